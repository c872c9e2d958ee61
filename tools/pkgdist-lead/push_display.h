// Shows a push while it runs: full screen or as bars on a terminal, as lines or events otherwise.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lead_options.h"
#include "progress.h"
#include "push_source.h"
#include "push_view.h"
#include "top_screen.h"

namespace pkgdist::lead_program {

class PushDisplay {
 public:
  // Throws when the full-screen view was asked for and there is no terminal for it, or with --json.
  PushDisplay(Reporter& reporter, PushView& view, const LeadOptions& options,
              lead::Time node_timeout);
  ~PushDisplay();
  PushDisplay(const PushDisplay&) = delete;
  PushDisplay& operator=(const PushDisplay&) = delete;

  // How often it is to be run at least.
  lead::Time period() const { return look_period_; }
  void run(PushSource& push, lead::Time now);

 private:
  void wait(const lead::PushReport& report, PushSource& push, lead::Time now);
  void show(const lead::PushReport& report, PushSource& push, lead::Time now);
  void open_screen();
  void close_screen();
  void follow_keys(PushSource& push, lead::Time now);

  Reporter& reporter_;
  PushView& view_;
  lead::Time node_timeout_;
  lead::Time waiting_shown_ = 0;
  PushMeter meter_;
  ProgressBars bars_;
  std::unique_ptr<TopScreen> screen_;
  std::vector<std::string> lines_;  // that were said while the screen was full; said again after it
  bool on_terminal_ = false;
  lead::Time look_period_;
  lead::Time show_period_;
  lead::Time looked_ = 0;
  lead::Time shown_ = 0;
};

}  // namespace pkgdist::lead_program
