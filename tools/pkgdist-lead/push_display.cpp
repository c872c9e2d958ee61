#include "push_display.h"

#include <unistd.h>

#include <algorithm>

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kDrawPeriod = 200 * lead::kMillisecond;
// How often rates are measured. With many nodes a look at all of them takes milliseconds, in which
// nothing is sent.
constexpr lead::Time kLookPeriod = lead::kSecond;
constexpr size_t kManyNodes = 100;
// Lines in a log: seldom enough to be read.
constexpr lead::Time kLinePeriod = 5 * lead::kSecond;
constexpr lead::Time kJsonPeriod = lead::kSecond;

// Most nodes are heard within a second: that is not told.
constexpr lead::Time kSoon = 1500 * lead::kMillisecond;

}  // namespace

Display::Display(Reporter& reporter, PushView& view, bool json, lead::Time node_timeout)
    : reporter_(reporter),
      view_(view),
      node_timeout_(node_timeout),
      bars_wanted_(!json && ::isatty(STDOUT_FILENO) == 1),
      look_period_(bars_wanted_ ? kDrawPeriod : kLookPeriod),
      show_period_(bars_wanted_ ? kDrawPeriod
                   : json       ? kJsonPeriod
                                : kLinePeriod) {
  if (bars_wanted_) reporter_.before_line = [this] { return bars_.erasure(); };
}

Display::~Display() {
  bars_.erase();
  reporter_.before_line = nullptr;
}

void Display::run(const PushSource& push, lead::Time now) {
  if (lead::elapsed(now, looked_) < look_period_) return;
  const lead::PushReport report = push.push_progress();
  looked_ = now;
  if (!report.started) return wait(report, now);
  waiting_shown_ = 0;
  meter_.update(report, now);
  if (report.nodes.size() > kManyNodes) look_period_ = kLookPeriod;
  if (shown_ == 0) shown_ = report.started_at;
  if (lead::elapsed(now, shown_) < show_period_) return;
  shown_ = now;
  if (bars_wanted_)
    bars_.draw(report, meter_, overall_line(report, meter_, push, now));
  else
    view_.progress(report, meter_, push, now);
}

void Display::wait(const lead::PushReport& report, lead::Time now) {
  const lead::Time waited = lead::elapsed(now, report.started_at);
  if (report.finished || waited < kSoon || absent_nodes(report) == 0) return;
  if (lead::elapsed(now, waiting_shown_) < (bars_wanted_ ? kDrawPeriod : kLinePeriod)) return;
  waiting_shown_ = now;
  const double left = static_cast<double>(node_timeout_ - std::min(waited, node_timeout_)) /
                      static_cast<double>(lead::kSecond);
  const std::string line = waiting_line(report, left);
  if (bars_wanted_)
    bars_.draw_line(line);
  else
    view_.waiting(report, line, left);
}

}  // namespace pkgdist::lead_program
