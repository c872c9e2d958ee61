// The segments of one file that nodes asked for again.
//
// Requests of all nodes are merged: one repair serves all. A segment that was just repaired is held
// back for a short while, since nodes lose it together and ask one after the other. What was asked
// for is remembered, because a repair can be lost, too; a request after a silence comes from a
// node's time-out and names all that it lacks, so it replaces what was asked for before.
//
// A node's time-out begins anew with everything that it lacked and gets. Once the stream has gone
// round the file, the time-outs of several nodes end within a turn of their timers: if the first
// one that asks were served at once, that would keep the others from asking. So repairs are
// gathered for as long as further nodes ask, see gather().
#pragma once

#include <algorithm>

#include "pkgdist_lead/time.h"
#include "stream/segment_set.h"

namespace pkgdist::lead {

class RepairQueue {
 public:
  explicit RepairQueue(uint32_t segments)
      : due_(segments), recent_(segments), older_(segments), asked_(segments) {}

  // How long a segment that was repaired is held back at least: a round trip, in which requests
  // arrive that were sent before the repair came.
  void set_holdoff(Time round_trip) { holdoff_ = std::clamp(round_trip, kMinHoldoff, kMaxHoldoff); }

  // Whether requests come from the time-outs of several nodes, so that others are about to follow.
  void gather(bool several) { gathers_ = several; }
  // When what is due may be sent.
  Time ready_at() const {
    if (!gathers_) return 0;
    return std::min(requested_ + kGatherPause, gathered_since_ + kMostGathering);
  }

  // Enters a run inside the file; returns how many segments are to be repaired because of it.
  uint32_t request(uint32_t first, uint32_t num, Time now);

  bool empty() const { return due_.empty(); }
  // Takes the next segment in rising order, going round. Not for an empty queue.
  uint32_t take(Time now);

  // How much was asked for of these parts of the file and, for all that is known, may still be
  // lacking.
  uint32_t asked(uint64_t parts) const;
  bool was_asked(uint32_t segment) const { return asked_.contains(segment); }
  // Makes that due.
  void repeat_asked(uint64_t parts);
  // A file's segments in 64 parts, of one segment each if there are no more: a bit for each.
  uint64_t part_of(uint32_t segment) const { return uint64_t{1} << (segment / part_segments()); }
  uint64_t parts_of(uint32_t first, uint32_t num) const;
  void forget_asked() { asked_.clear(); }
  void clear() { due_.clear(); }

 private:
  // Nodes have queues of their own, which a short round trip does not show; one that asks again
  // after its time-out must not be held back.
  static constexpr Time kMinHoldoff = 12 * kMillisecond;
  static constexpr Time kMaxHoldoff = 500 * kMillisecond;
  // A node sends all requests of one time-out pass without a pause.
  static constexpr Time kRequestPause = 50 * kMillisecond;

  // Nodes that wait look at their timers every 20 ms, ten of them 2 ms one after the other. For a
  // few the pause costs little beside the time-out that they have waited for.
  static constexpr Time kGatherPause = 2 * kMillisecond;
  static constexpr Time kMostGathering = 20 * kMillisecond;

  static constexpr uint32_t kParts = 64;
  uint32_t part_segments() const { return (due_.size() + kParts - 1) / kParts; }
  template <class Act>
  void each_asked(uint64_t parts, Act&& act) const;
  void rotate(Time now);

  SegmentSet due_;
  SegmentSet recent_;  // repaired since rotated_
  SegmentSet older_;   // repaired in the period before
  SegmentSet asked_;
  Time rotated_ = 0;
  Time requested_ = 0;
  bool gathers_ = false;
  Time gathered_since_ = 0;     // when something became due
  Time holdoff_ = kMinHoldoff;  // a segment is held back for one to two of these
  uint32_t cursor_ = 0;
};

}  // namespace pkgdist::lead
