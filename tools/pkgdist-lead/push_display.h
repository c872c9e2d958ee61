// Shows a push while it waits and runs: bars on a terminal, lines or events otherwise.
#pragma once

#include "progress.h"
#include "push_source.h"
#include "push_view.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class Display {
 public:
  Display(Reporter& reporter, PushView& view, bool json, lead::Time node_timeout);
  ~Display();
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  // How often it wants to run.
  lead::Time period() const { return look_period_; }
  void run(const PushSource& push, lead::Time now);

 private:
  void wait(const lead::PushReport& report, lead::Time now);

  Reporter& reporter_;
  PushView& view_;
  const lead::Time node_timeout_;
  lead::Time waiting_shown_ = 0;
  PushMeter meter_;
  ProgressBars bars_;
  const bool bars_wanted_;
  lead::Time look_period_;
  const lead::Time show_period_;
  lead::Time looked_ = 0;
  lead::Time shown_ = 0;
};

}  // namespace pkgdist::lead_program
