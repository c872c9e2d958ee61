// One push to a crowd, and what it cost compared with what it must cost.
#pragma once

#include <vector>

#include "crowd.h"

namespace pkgdist::test {

struct ScaleCase {
  uint32_t nodes = 1;
  uint32_t files = 1;
  uint64_t file_bytes = 0;
  uint64_t rate_bits = 2'000'000'000;
  // Node i of n loses this much times (i + 1/2) / n of what it receives, and of what it sends that
  // times up_share.
  double worst_loss = 0.1;
  double up_share = 1;
  uint64_t round_trip = 400'000;  // nanoseconds
  uint64_t start = 1;             // of the random numbers
  NodeTimeouts timeouts = NodeTimeouts::of_the_node_program();

  uint64_t content() const { return files * file_bytes; }
  double loss_of(uint32_t node) const { return worst_loss * (node + 0.5) / nodes; }
};

// How often a segment has to be sent on average until each of the nodes has received it once: the
// expected maximum of independent geometric distributions.
double necessary_sends(const ScaleCase& scale);

struct ScaleResult {
  bool complete = false;
  double seconds = 0;          // virtual, from the first file list to the last report
  double sent_ratio = 0;       // bytes that the lead sent (UDP payload) over bytes of content
  double necessary_ratio = 0;  // necessary_sends()
  uint64_t datagrams_out = 0, datagrams_in = 0;
  lead::Counters lead;
  CrowdFiles::Counters nodes;
  std::vector<double> finished;  // by node, seconds from the start

  double over_necessary() const { return sent_ratio / necessary_ratio; }
  // Over the time that the necessary bytes take at the rate.
  double over_ideal(const ScaleCase& scale) const;
};

// Runs until the push ends, or `limit_seconds` of virtual time have passed.
ScaleResult run_scale(const ScaleCase& scale, LeadWatch* watch = nullptr,
                      double limit_seconds = 3600);

}  // namespace pkgdist::test
