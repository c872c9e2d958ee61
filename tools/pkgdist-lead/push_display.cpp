#include "push_display.h"

#include <fmt/core.h>
#include <unistd.h>

#include <CLI/Error.hpp>
#include <algorithm>

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kDrawPeriod = 200 * lead::kMillisecond;
// How often rates are measured. With many nodes a look at all of them takes milliseconds, in which
// nothing is sent.
constexpr lead::Time kLookPeriod = lead::kSecond;
constexpr size_t kManyToShow = 100;
// Lines in a log: seldom enough to be read.
constexpr lead::Time kLinePeriod = 5 * lead::kSecond;
constexpr lead::Time kJsonPeriod = lead::kSecond;
// Most nodes are heard within a second: that is not told.
constexpr lead::Time kSoon = 1500 * lead::kMillisecond;
// Lines that are said again after the full-screen view.
constexpr size_t kMaxLinesKept = 1000;

}  // namespace

PushDisplay::PushDisplay(Reporter& reporter, PushView& view, const LeadOptions& options,
                         lead::Time node_timeout)
    : reporter_(reporter), view_(view), node_timeout_(node_timeout) {
  const bool json = options.common.json;
  if (options.top && json) throw CLI::ExcludesError("--top", "--json");
  on_terminal_ = !json && (!reporter.quiet || options.top) && ::isatty(STDOUT_FILENO) == 1;
  look_period_ = on_terminal_ ? kDrawPeriod : kLookPeriod;
  show_period_ = on_terminal_ ? kDrawPeriod : json ? kJsonPeriod : kLinePeriod;
  if (on_terminal_) reporter_.before_line = [this] { return bars_.erasure(); };
  if (options.top) open_screen();
}

PushDisplay::~PushDisplay() {
  close_screen();
  bars_.erase();
  reporter_.before_line = nullptr;
}

void PushDisplay::open_screen() {
  screen_ = std::make_unique<TopScreen>(STDIN_FILENO, true);
  reporter_.takes_line = [this](const std::string& line) {
    screen_->tell(line);
    if (lines_.size() < kMaxLinesKept) lines_.push_back(line);
  };
}

void PushDisplay::close_screen() {
  if (!screen_) return;
  screen_.reset();
  reporter_.takes_line = nullptr;
  for (const std::string& line : lines_) reporter_.say(line);
  lines_.clear();
}

void PushDisplay::follow_keys(PushSource& push, lead::Time now) {
  for (const uint32_t node : screen_->take_stops()) push.stop_for(node, now);
  if (screen_->left()) close_screen();
}

void PushDisplay::run(PushSource& push, lead::Time now) {
  if (lead::elapsed(now, looked_) < look_period_) return;
  if (screen_) follow_keys(push, now);
  const lead::PushReport report = push.push_progress();
  looked_ = now;
  if (!report.started) return wait(report, push, now);
  waiting_shown_ = 0;
  meter_.update(report, now);
  if (report.nodes.size() > kManyToShow) look_period_ = kLookPeriod;
  if (shown_ == 0) shown_ = report.started_at;
  if (lead::elapsed(now, shown_) < show_period_) return;
  shown_ = now;
  show(report, push, now);
}

void PushDisplay::show(const lead::PushReport& report, PushSource& push, lead::Time now) {
  PushState state = push_state(report, meter_, push, now);
  for (NodeState& node : state.nodes)
    if (std::string label = reporter_.label(node.address);
        label != cli::format_address(node.address))
      node.name = std::move(label);
  if (screen_)
    screen_->show(state);
  else if (on_terminal_)
    bars_.draw(state);
  else
    view_.progress(state);
}

void PushDisplay::wait(const lead::PushReport& report, PushSource& push, lead::Time now) {
  const lead::Time waited = lead::elapsed(now, report.started_at);
  if (report.finished || waited < kSoon || absent_nodes(report) == 0) return;
  if (lead::elapsed(now, waiting_shown_) < (on_terminal_ ? kDrawPeriod : kLinePeriod)) return;
  waiting_shown_ = now;
  const lead::Time silence = lead::elapsed(now, report.waits_since);
  const double left = static_cast<double>(node_timeout_ - std::min(silence, node_timeout_)) /
                      static_cast<double>(lead::kSecond);
  const std::string line = waiting_line(report, left);
  if (screen_) {
    screen_->show(push_state(report, meter_, push, now));
    screen_->tell(line);
  } else if (on_terminal_) {
    bars_.draw_line(line);
  } else {
    view_.waiting(report, line, left);
  }
}

}  // namespace pkgdist::lead_program
