// How a push stands, in plain values: everything that bars, lines, the full-screen view and events
// show is drawn from this, wherever it comes from (a push of this process, events that another one
// has printed).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "push_meter.h"
#include "push_source.h"

namespace pkgdist::lead_program {

struct NodeState {
  uint32_t address = 0;
  std::string name = {};  // what people call it; empty: by its address
  bool heard = false;     // at some time
  bool silent = false;    // for the node time-out: the push goes on without it
  bool deferred = false;  // too slow: gets the rest when the others have everything
  bool ended = false;     // every file has ended on it
  double share = 0;       // of the content has arrived, 0 to 1
  uint64_t bytes = 0;     // that have arrived or were there already
  uint64_t files_done = 0;
  uint64_t files_failed = 0;
  double rate = 0;       // bytes per second that arrive
  uint64_t repairs = 0;  // segments that it asked for again
  double repair_ratio = 0;
  double seconds_since_heard = 0;
};

struct PushState {
  uint32_t transaction = 0;
  std::string name = {};  // by which the lead lists it; empty: by its transaction
  double seconds = 0;     // since the start
  uint64_t files = 0;
  uint64_t bytes = 0;       // of content, once
  size_t nodes_in_all = 0;  // those that were never heard too
  size_t nodes_done = 0;
  double rate_bits = 0;     // of the stream, per second
  double repair_share = 0;  // of the segments that were sent
  uint64_t segments_sent = 0, repairs_sent = 0, polls_sent = 0;
  std::optional<double> seconds_left;
  std::vector<NodeState> nodes;
};

// The name or the address of a node.
std::string label_of(const NodeState& node);

// A node that was not heard for so long is marked: pings come every second at least.
inline constexpr double kQuietSeconds = 2;
bool is_quiet(const NodeState& node);

// Something is wrong with the node: it is shown before others.
bool is_troubled(const NodeState& node);
// "heard 3 s ago", "2 failed", "done" and the like; empty when it just receives.
std::string note_of(const NodeState& node);

// Those in trouble first, then the slowest; the ones that are done last.
std::vector<const NodeState*> by_trouble(const PushState& state);

PushState push_state(const lead::PushReport& report, const PushMeter& meter, const PushSource& push,
                     lead::Time now);

// How the whole push stands, in one line of so many columns: parts that do not fit are left out.
std::string overall_line(const PushState& state, size_t columns = SIZE_MAX);

}  // namespace pkgdist::lead_program
