#include "stop_signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>

namespace pkgdist::cli {

namespace {

using Clock = std::chrono::steady_clock;

struct Watch {
  int event = -1;
  std::string name;
  int status = 0;
  Clock::time_point came;  // written before `signal`
  std::atomic<int> signal{0};
};

// Never destroyed: its thread outlives the end of main().
Watch& watch() {
  static auto* one = new Watch;
  return *one;
}

sigset_t stop_set() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// The last words must not wait for a reader either.
void say_at_once(const std::string& line) {
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  if (poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0)
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

[[noreturn]] void take_signals() {
  Watch& w = watch();
  (void)pthread_setname_np(pthread_self(), "SIGNALS");
  const sigset_t set = stop_set();
  int signal = 0;
  while (sigwait(&set, &signal) != 0) continue;
  w.came = Clock::now();
  w.signal = signal;
  const uint64_t one = 1;
  (void)!write(w.event, &one, sizeof one);
  std::this_thread::sleep_for(std::chrono::duration<double>(kStopSeconds));
  say_at_once(w.name + ": " + stop_text() + ": ended in the middle of something that takes long\n");
  _exit(w.status);
}

}  // namespace

void watch_stop_signals(const std::string& name, int status) {
  Watch& w = watch();
  w.event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (w.event < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  w.name = name;
  w.status = status;
  const sigset_t set = stop_set();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread(take_signals).detach();
}

int stop_signal() {
  return watch().signal;
}

int stop_fd() {
  return watch().event;
}

bool wait_for_stop(double seconds) {
  (void)wait_unless_stopped(-1, 0, seconds);
  return stop_signal() != 0;
}

bool wait_unless_stopped(int fd, short events, double seconds) {
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(std::max(seconds, 0.0)));
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    constexpr int64_t kLongestMs = 3'600'000;
    const int wait_ms =
        seconds < 0 ? -1 : static_cast<int>(std::clamp<int64_t>(left, 0, kLongestMs));
    pollfd fds[2] = {{fd, events, 0}, {stop_fd(), POLLIN, 0}};
    const int ready = poll(fds, 2, wait_ms);
    if (ready > 0) return fds[1].revents == 0;
    if (ready < 0 && errno != EINTR) return false;
    if (ready == 0 && left <= kLongestMs) return false;
  }
}

double seconds_since_stop() {
  if (stop_signal() == 0) return 0;
  return std::chrono::duration<double>(Clock::now() - watch().came).count();
}

std::string stop_text() {
  return stop_signal() == 0 ? "" : "interrupted by " + signal_name(stop_signal());
}

std::string signal_name(int signal) {
  const char* name = sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal) : std::string("SIG") + name;
}

}  // namespace pkgdist::cli
