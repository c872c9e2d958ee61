// A push that has ended, in a few numbers.
#pragma once

#include <optional>
#include <vector>

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

struct PushFigures {
  // Seconds from the start of the push until nodes had every file, of the nodes that have.
  struct Completion {
    size_t nodes = 0;
    double p50 = 0, p90 = 0, p99 = 0, max = 0;
  };
  Completion completion;
  std::vector<size_t> slowest;  // of these nodes, slowest first: places in PushReport::nodes

  double seconds = 0;
  uint64_t repairs = 0;       // segments that nodes asked for again
  uint64_t repairs_sent = 0;  // one serves all nodes that asked for it
  uint64_t segments_sent = 0;
  uint64_t wire_bytes = 0;  // UDP payload on the data channel
  // Bits of content per second: files that some node has received, each once.
  double goodput_bits = 0;
  // wire_bytes for each byte of that content, nothing when there is none.
  std::optional<double> wire_per_content;
};

// `counters` are those of a lead that did nothing but this push.
PushFigures figures_of(const lead::PushReport& report, const lead::Counters& counters);

// What the node asked for again for each segment that it was sent the first time.
double repair_ratio(const lead::PushNodeReport& node);
// Repairs among the segments that were sent.
double repair_share(const lead::Counters& counters);
// Every file is on the node.
bool is_complete(const lead::PushNodeReport& node);
// From the start of the push until the node's last file ended, or until the end of the push.
double seconds_of(const lead::PushReport& report, const lead::PushNodeReport& node);

}  // namespace pkgdist::lead_program
