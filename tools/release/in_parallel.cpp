#include "in_parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace pkgdist::release {

namespace {

struct Shared {
  std::atomic<size_t> next{0};
  std::mutex mutex;            // of the other
  std::exception_ptr failure;  // the first one
};

void do_some(Shared& shared, size_t count, const std::function<void(size_t)>& work) {
  for (size_t at = shared.next.fetch_add(1); at < count; at = shared.next.fetch_add(1)) {
    try {
      work(at);
    } catch (...) {
      const std::lock_guard lock(shared.mutex);
      if (shared.failure == nullptr) shared.failure = std::current_exception();
      shared.next = count;
    }
  }
}

}  // namespace

void in_parallel(size_t count, unsigned threads, const std::function<void(size_t)>& work) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  Shared shared;
  {
    std::vector<std::jthread> running;
    for (size_t i = 0; i < std::min<size_t>(threads, count); ++i)
      running.emplace_back([&] { do_some(shared, count, work); });
  }
  if (shared.failure != nullptr) std::rethrow_exception(shared.failure);
}

}  // namespace pkgdist::release
