#include "name_resolver.h"

#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

namespace pkgdist::cli {

namespace {

// Empty: it has none.
std::string name_of(uint32_t address) {
  sockaddr_in socket{};
  socket.sin_family = AF_INET;
  socket.sin_addr.s_addr = htonl(address);
  std::array<char, NI_MAXHOST> name{};
  const int failed = ::getnameinfo(reinterpret_cast<const sockaddr*>(&socket), sizeof socket,
                                   name.data(), name.size(), nullptr, 0, NI_NAMEREQD | NI_NOFQDN);
  return failed == 0 ? name.data() : "";
}

}  // namespace

struct NameResolver::Shared {
  std::mutex mutex;  // of all
  std::deque<uint32_t> waiting;
  std::vector<std::pair<uint32_t, std::string>> names;
  bool running = false;  // the thread
  bool closing = false;

  void run() {
    (void)::pthread_setname_np(::pthread_self(), "NAMES");
    for (;;) {
      uint32_t address = 0;
      {
        const std::lock_guard lock(mutex);
        if (closing || waiting.empty()) {
          running = false;
          return;
        }
        address = waiting.front();
        waiting.pop_front();
      }
      std::string name = name_of(address);
      const std::lock_guard lock(mutex);
      if (!name.empty()) names.emplace_back(address, std::move(name));
    }
  }
};

NameResolver::NameResolver() : shared_(std::make_shared<Shared>()) {}

NameResolver::~NameResolver() {
  const std::lock_guard lock(shared_->mutex);
  shared_->closing = true;
}

void NameResolver::ask(uint32_t address) {
  if (asked_.size() >= kMaxAddresses || !asked_.insert(address).second) return;
  {
    const std::lock_guard lock(shared_->mutex);
    shared_->waiting.push_back(address);
    if (std::exchange(shared_->running, true)) return;
  }
  // Signals are for the other threads.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread([shared = shared_] { shared->run(); }).detach();
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::vector<std::pair<uint32_t, std::string>> NameResolver::take() {
  const std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->names, {});
}

}  // namespace pkgdist::cli
