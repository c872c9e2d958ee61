// The rate of a push and the time that is left: computed from reports of its progress.
//
// A rate is an average over the last seconds in which older bytes and older time weigh less. The
// push is over when its slowest node is; the moment that follows from the rates is smoothed once
// more, so that the time left runs down instead of jumping, and still follows a stream that becomes
// slower. Nodes that are silent or done are not waited for.
#pragma once

#include <optional>
#include <unordered_map>

#include "pkgdist_lead/push.h"

namespace pkgdist::lead_program {

class PushMeter {
 public:
  // How the push stands at `now`; at any intervals.
  void update(const lead::PushReport& report, lead::Time now);

  // Content that has arrived on the node, in bytes per second; 0 before there is a measure.
  double rate(uint32_t address) const;
  // Seconds until the slowest node is done, nothing while that is not known. 0: everything was
  // sent, and nodes have to be helped with the rest.
  std::optional<double> seconds_left(lead::Time now) const;

 private:
  struct Sample {
    lead::Time first = 0, time = 0;
    uint64_t received = 0;  // has arrived on the node
    uint64_t passed = 0;    // that need not be sent any more: sent, present or failed
    // Of the growth of these, weighed by age, and of the time in which it happened.
    double received_sum = 0;
    double passed_sum = 0;
    double seconds = 0;
  };
  static void add(Sample& sample, uint64_t received, uint64_t passed, lead::Time now);
  static bool measured(const Sample& sample);
  double best_rate() const;
  std::optional<double> estimate(const lead::PushReport& report) const;

  std::unordered_map<uint32_t, Sample> samples_;  // by address: reports change their order
  lead::Time updated_ = 0;
  // When the push will be over, in seconds of the lead's clock, weighed like the samples.
  double end_sum_ = 0, end_weight_ = 0;
};

}  // namespace pkgdist::lead_program
