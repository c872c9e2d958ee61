// The threads of a simulated process: coroutines that give way where a thread would wait.
//
// Which of several that could run goes on is drawn from a seed, so every order that a scheduler
// could choose at a waiting point comes up in some seed, and the same seed repeats it. With yields
// switched on a thread also gives way before some of the locks that it takes, for a moment or for a
// while: then other threads run, and time may pass, between any two of its critical sections.
//
// Time stands still while threads run. A thread that is dropped is not unwound: it ends where it
// is, as in a killed process.
#pragma once

#include <pthread.h>
#include <sys/select.h>
#include <ucontext.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace pkgdist::sim {

class Threads {
 public:
  using Body = std::function<void()>;

  Threads(uint64_t seed, uint32_t yields_per_mille);
  ~Threads();
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  void start(Body body);
  // Lets all go on until all wait. False when some wait for mutexes that nobody will unlock.
  bool run(uint64_t now);
  // The same, and nobody is away for a while any longer.
  bool run_awake(uint64_t now);
  uint64_t next_wake() const;
  uint64_t now() const { return now_; }
  size_t count() const { return threads_.size(); }
  uint64_t random(uint64_t limit);  // below the limit

  // Of the thread that runs; on_thread() says whether there is one.
  bool on_thread() const { return current_ != nullptr; }
  // Gives way until somebody wakes `key` or the time has come. True when it was woken.
  bool wait(const void* key, uint64_t deadline);
  // The same until a datagram waits in one of the sockets.
  void wait_for_sockets(const fd_set& sockets, uint64_t deadline);
  void lock(pthread_mutex_t* mutex);

  // Any time. At most one thread that waits for the key; the one that has waited longest.
  void wake(const void* key);
  void wake_socket(int socket);

 private:
  struct Thread;

  void resume(Thread& thread);
  void give_way();
  void yield_at_times();
  bool can_run(const Thread& thread) const;
  Thread* choose();
  static void enter(unsigned high, unsigned low);

  uint64_t now_ = 0;
  std::mt19937_64 random_;
  const uint32_t yields_per_mille_;
  std::vector<std::unique_ptr<Thread>> threads_;
  std::vector<Thread*> candidates_;
  Thread* current_ = nullptr;
  bool naps_ = true;
  ucontext_t scheduler_{};
  // The stack that run() was called on, for the address sanitizer.
  const void* scheduler_stack_ = nullptr;
  size_t scheduler_stack_size_ = 0;
};

}  // namespace pkgdist::sim
