// Descriptors and what to do when they are ready: one epoll instance and a function for each
// descriptor.
#pragma once

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <map>
#include <system_error>
#include <utility>

namespace pkgdist::cli {

// A descriptor that closes itself.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

class Poller {
 public:
  using Ready = std::function<void()>;

  Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_) throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }

  // Readable when one of the descriptors is ready.
  int fd() const { return epoll_.get(); }

  void add(int fd, uint32_t events, Ready ready) {
    change(EPOLL_CTL_ADD, fd, events);
    ready_[fd] = std::move(ready);
  }
  void modify(int fd, uint32_t events) { change(EPOLL_CTL_MOD, fd, events); }
  // Before the descriptor is closed.
  void remove(int fd) {
    (void)::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    ready_.erase(fd);
  }

  // Calls the functions of what is ready; they may add and remove descriptors.
  void dispatch() {
    std::array<epoll_event, 16> events;
    const int count = ::epoll_wait(epoll_.get(), events.data(), events.size(), 0);
    for (int i = 0; i < count; ++i) {
      const auto found = ready_.find(events[static_cast<size_t>(i)].data.fd);
      if (found == ready_.end()) continue;
      const Ready ready = found->second;  // outlives its removal
      ready();
    }
  }

 private:
  void change(int operation, int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), operation, fd, &event) != 0)
      throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }

  Fd epoll_;
  std::map<int, Ready> ready_;
};

}  // namespace pkgdist::cli
