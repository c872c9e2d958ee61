#include "process_threads.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace pkgdist::sim {

namespace {

constexpr size_t kStackBytes = 256 * 1024;
constexpr uint64_t kNoDeadline = UINT64_MAX;
// One of so many yields is a nap: the processor is somewhere else for so long at most.
constexpr uint64_t kYieldsPerNap = 4;
constexpr uint64_t kLongestNap = 30'000'000;

// The sanitizer's own version of the switch clears the shadow of the whole stack each time; with
// its notes about fibers below the plain one is right.
using Switch = int (*)(ucontext_t*, const ucontext_t*);
Switch plain_switch() {
#if defined(__SANITIZE_ADDRESS__)
  void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
  auto found = reinterpret_cast<Switch>(dlsym(libc, "swapcontext"));
  dlclose(libc);
  return found;
#else
  return swapcontext;
#endif
}
const Switch switch_context = plain_switch();

// Before and after a switch, on the leaving and on the arriving side.
void leave_for([[maybe_unused]] void** saved, [[maybe_unused]] const void* stack,
               [[maybe_unused]] size_t size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(saved, stack, size);
#endif
}
void arrived([[maybe_unused]] void* saved, [[maybe_unused]] const void** from,
             [[maybe_unused]] size_t* size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(saved, from, size);
#endif
}

}  // namespace

struct Threads::Thread {
  enum class State : uint8_t { kReady, kWaiting, kContending, kEnded };

  Thread(Threads& owner_, Body body_) : owner(owner_), body(std::move(body_)) {
    stack = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (stack == MAP_FAILED) std::abort();
  }
  ~Thread() {
#if defined(__SANITIZE_ADDRESS__)
    __asan_unpoison_memory_region(stack, kStackBytes);  // frames that were never left
#endif
    munmap(stack, kStackBytes);
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  Threads& owner;
  Body body;
  State state = State::kReady;
  const void* key = nullptr;
  const fd_set* sockets = nullptr;  // on its stack
  uint64_t deadline = kNoDeadline;
  bool woken = false;
  bool napping = false;
  pthread_mutex_t* mutex = nullptr;
  ucontext_t context{};
  void* stack = nullptr;
  void* shadow = nullptr;
};

Threads::Threads(uint64_t seed, uint32_t yields_per_mille)
    : random_(seed), yields_per_mille_(yields_per_mille) {}
Threads::~Threads() = default;

uint64_t Threads::random(uint64_t limit) {
  return random_() % limit;
}

void Threads::enter(unsigned high, unsigned low) {
  auto& thread = *reinterpret_cast<Thread*>(uint64_t{high} << 32 | low);
  Threads& owner = thread.owner;
  arrived(nullptr, &owner.scheduler_stack_, &owner.scheduler_stack_size_);
  thread.body();
  thread.state = Thread::State::kEnded;
  leave_for(nullptr, owner.scheduler_stack_, owner.scheduler_stack_size_);
  switch_context(&thread.context, &owner.scheduler_);
  std::abort();  // nobody goes on with an ended thread
}

void Threads::start(Body body) {
  Thread& thread = *threads_.emplace_back(std::make_unique<Thread>(*this, std::move(body)));
  getcontext(&thread.context);
  thread.context.uc_stack = {thread.stack, 0, kStackBytes};
  thread.context.uc_link = nullptr;
  const auto at = reinterpret_cast<uint64_t>(&thread);
  makecontext(&thread.context, reinterpret_cast<void (*)()>(enter), 2,
              static_cast<unsigned>(at >> 32), static_cast<unsigned>(at));
}

void Threads::resume(Thread& thread) {
  thread.state = Thread::State::kReady;
  current_ = &thread;
  void* shadow = nullptr;
  leave_for(&shadow, thread.stack, kStackBytes);
  switch_context(&scheduler_, &thread.context);
  arrived(shadow, nullptr, nullptr);
  current_ = nullptr;
}

void Threads::give_way() {
  Thread& thread = *current_;
  leave_for(&thread.shadow, scheduler_stack_, scheduler_stack_size_);
  switch_context(&thread.context, &scheduler_);
  arrived(thread.shadow, &scheduler_stack_, &scheduler_stack_size_);
}

bool Threads::can_run(const Thread& thread) const {
  using State = Thread::State;
  if (thread.state == State::kReady) return true;
  if (thread.state == State::kWaiting) return thread.woken || thread.deadline <= now_;
  if (pthread_mutex_trylock(thread.mutex) != 0) return false;
  pthread_mutex_unlock(thread.mutex);
  return true;
}

Threads::Thread* Threads::choose() {
  candidates_.clear();
  for (const auto& thread : threads_)
    if (can_run(*thread)) candidates_.push_back(thread.get());
  if (candidates_.empty()) return nullptr;
  return candidates_[candidates_.size() == 1 ? 0 : random(candidates_.size())];
}

bool Threads::run(uint64_t now) {
  now_ = now;
  while (Thread* next = choose()) {
    resume(*next);
    if (next->state != Thread::State::kEnded) continue;
    std::erase_if(threads_, [next](const auto& thread) { return thread.get() == next; });
  }
  const auto any = [this](auto&& property) {
    return std::any_of(threads_.begin(), threads_.end(),
                       [&](const auto& thread) { return property(*thread); });
  };
  return any([](const Thread& thread) { return thread.napping; }) ||
         !any([](const Thread& thread) { return thread.state == Thread::State::kContending; });
}

bool Threads::run_awake(uint64_t now) {
  naps_ = false;
  for (const auto& thread : threads_)
    if (thread->napping) thread->woken = true;
  const bool result = run(now);
  naps_ = true;
  return result;
}

void Threads::yield_at_times() {
  if (yields_per_mille_ == 0 || random(1000) >= yields_per_mille_) return;
  if (!naps_ || random(kYieldsPerNap) != 0) return give_way();
  current_->napping = true;
  wait(nullptr, now_ + random(kLongestNap));
  current_->napping = false;
}

uint64_t Threads::next_wake() const {
  uint64_t next = kNoDeadline;
  for (const auto& thread : threads_) {
    if (thread->state == Thread::State::kReady || thread->woken) return now_;
    if (thread->state == Thread::State::kWaiting) next = std::min(next, thread->deadline);
  }
  return next;
}

bool Threads::wait(const void* key, uint64_t deadline) {
  Thread& thread = *current_;
  thread.key = key;
  thread.deadline = deadline;
  thread.woken = false;
  thread.state = Thread::State::kWaiting;
  give_way();
  thread.key = nullptr;
  return std::exchange(thread.woken, false);
}

void Threads::wait_for_sockets(const fd_set& sockets, uint64_t deadline) {
  current_->sockets = &sockets;
  wait(nullptr, deadline);
  current_->sockets = nullptr;
}

void Threads::lock(pthread_mutex_t* mutex) {
  yield_at_times();
  while (pthread_mutex_trylock(mutex) != 0) {
    current_->mutex = mutex;
    current_->state = Thread::State::kContending;
    give_way();
  }
}

void Threads::wake(const void* key) {
  for (const auto& thread : threads_) {
    if (thread->state != Thread::State::kWaiting || thread->key != key || thread->woken) continue;
    thread->woken = true;
    return;
  }
}

void Threads::wake_socket(int socket) {
  for (const auto& thread : threads_)
    if (thread->state == Thread::State::kWaiting && thread->sockets != nullptr &&
        FD_ISSET(socket, thread->sockets))
      thread->woken = true;
}

}  // namespace pkgdist::sim
