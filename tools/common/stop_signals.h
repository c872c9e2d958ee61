// SIGINT and SIGTERM as something to wait for. Make it before threads are started, so that they
// inherit the mask.
#pragma once

#include <csignal>

namespace pkgdist::cli {

class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  void wait() const;
  // True when a signal came within this time.
  bool wait_for(double seconds) const;

 private:
  sigset_t signals_;
  sigset_t before_;
};

}  // namespace pkgdist::cli
