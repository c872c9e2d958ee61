// The pushes of a lead that runs on this host, as it tells them to those who watch (push_watch.h).
#pragma once

#include <string>

#include "line_connection.h"
#include "push_meter.h"
#include "push_source.h"
#include "push_state.h"
#include "push_wire.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class WatchedLead : private PushSource {
 public:
  // Throws std::runtime_error when the lead is of another version, or tells nothing.
  explicit WatchedLead(cli::LineConnection connection);

  // Takes what the lead tells within this time. True when a push, or what is known of it, is new.
  // Throws std::runtime_error when the lead has ended.
  bool follow(double seconds);
  // Of the push that runs, or ran last.
  const PushState& state() const { return state_; }
  // What there is to say beside it, in a line.
  const std::string& news() const { return news_; }
  // Ends the push that runs for this node.
  void stop_for(uint32_t node);

 private:
  bool take(const Json& line);
  void take_state(const Json& line);
  void take_idle(const Json& line);

  uint32_t push_transaction() const override { return transaction_; }
  lead::PushReport push_progress() const override { return report_; }
  uint64_t rate_bits() const override { return rate_bits_; }
  const lead::Counters& counters() const override { return counters_; }
  void stop_for(uint32_t node, lead::Time) override { stop_for(node); }

  cli::LineConnection connection_;
  Reporter names_{false, 0};  // knows what nodes are called
  uint32_t transaction_ = 0;
  lead::PushReport report_;
  lead::Counters counters_;
  uint64_t rate_bits_ = 0;
  PushMeter meter_;
  PushState state_;
  std::string news_;
};

}  // namespace pkgdist::lead_program
