// The segments of one file that nodes asked for again.
//
// Requests of all nodes are merged. A segment that was just repaired is not repaired again for a
// short while: nodes lose it together and ask one after the other. What was asked for is remembered
// until the nodes have the file, because a repair can be lost, too, and its node does not ask again
// for seconds.
#pragma once

#include <algorithm>

#include "pkgdist_lead/time.h"
#include "segment_set.h"

namespace pkgdist::lead {

class RepairQueue {
 public:
  explicit RepairQueue(uint32_t segments)
      : due_(segments), recent_(segments), older_(segments), asked_(segments), echo_(segments) {}

  // How long a segment that was repaired is held back at least: a round trip, in which requests
  // arrive that were sent before the repair came.
  void set_holdoff(Time round_trip) { holdoff_ = std::clamp(round_trip, kMinHoldoff, kMaxHoldoff); }

  // Enters a run inside the file; returns how many segments became due.
  uint32_t request(uint32_t first, uint32_t num, Time now);

  // What is taken from here on comes once more, behind all that is due; or does not.
  void set_echo(bool on) { echoing_ = on; }

  bool empty() const { return due_.empty() && echo_.empty(); }
  // Takes the next segment in rising order, going round. Not for an empty queue.
  uint32_t take(Time now);

  // Makes everything due that was asked for since forget_asked().
  void repeat_asked() { due_.insert_all(asked_); }
  uint32_t asked() const { return asked_.count(); }
  void forget_asked() { asked_.clear(); }
  void clear() {
    due_.clear();
    echo_.clear();
  }

 private:
  // Nodes have queues of their own, which a short round trip does not show; one that asks again
  // after its time-out must not be held back.
  static constexpr Time kMinHoldoff = 12 * kMillisecond;
  static constexpr Time kMaxHoldoff = 500 * kMillisecond;
  void rotate(Time now);

  SegmentSet due_;
  SegmentSet recent_;  // repaired since rotated_
  SegmentSet older_;   // repaired in the period before
  SegmentSet asked_;
  SegmentSet echo_;  // to come once more
  bool echoing_ = false;
  Time rotated_ = 0;
  Time holdoff_ = kMinHoldoff;  // a segment is held back for one to two of these
  uint32_t cursor_ = 0;
};

}  // namespace pkgdist::lead
