// What people and programs see of a push: how it stands while it runs, what is left when it is
// interrupted, and the summary.
#pragma once

#include <array>

#include "push_figures.h"
#include "push_state.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class PushView {
 public:
  explicit PushView(Reporter& reporter) : reporter_(reporter) {}

  // A push that has not begun waits for nodes.
  void waiting(const lead::PushReport& report, const std::string& line, double seconds_left);
  // How the push stands, as events or as lines for a log.
  void progress(const PushState& state);
  // The owner gave the push up before its end.
  void interrupted(const lead::PushReport& report);
  void summary(const lead::PushReport& report, const lead::PushRequest& request,
               const lead::Counters& counters);

 private:
  void node_events(const PushState& state);
  void lines(const PushState& state);
  void summary_event(const lead::PushReport& report, const lead::PushRequest& request,
                     const PushFigures& figures);
  void result(const std::string& line);
  void table(const lead::PushReport& report);
  void missing(const lead::PushReport& report, const lead::PushRequest& request);
  void figures_lines(const lead::PushReport& report, const PushFigures& figures);

  Reporter& reporter_;
  // What was told of each node last, by address: nothing new is not told again.
  using Told = std::array<uint64_t, 5>;
  std::unordered_map<uint32_t, Told> told_;
};

// The nodes that a push waits for before it begins: those that were not heard, or are silent.
size_t absent_nodes(const lead::PushReport& report);

// What a push waits for that has not begun, in one line.
std::string waiting_line(const lead::PushReport& report, double seconds_left);

}  // namespace pkgdist::lead_program
