#include "stop_signals.h"

#include <cmath>
#include <ctime>

namespace pkgdist::cli {

StopSignals::StopSignals() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, &before_);
}

StopSignals::~StopSignals() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void StopSignals::wait() const {
  int signal = 0;
  sigwait(&signals_, &signal);
}

bool StopSignals::wait_for(double seconds) const {
  constexpr double kNsPerSecond = 1e9;
  timespec time{};
  time.tv_sec = static_cast<time_t>(seconds);
  time.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * kNsPerSecond);
  return sigtimedwait(&signals_, nullptr, &time) > 0;
}

}  // namespace pkgdist::cli
