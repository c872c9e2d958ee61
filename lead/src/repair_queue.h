// The segments of one file that nodes asked for again.
//
// Requests of all nodes are merged. A segment that was just repaired is not repaired again for a
// short while: nodes lose it together and ask one after the other. What was asked for is remembered
// until the nodes have the file, because a repair can be lost, too, and its node does not ask again
// for seconds.
//
// While a file streams, repairs are in no hurry, but they must not get lost for the same reason as
// what they replace: a queue that ran over is still full a moment later. They wait until that is
// over.
#pragma once

#include <algorithm>

#include "pkgdist_lead/time.h"
#include "segment_set.h"

namespace pkgdist::lead {

class RepairQueue {
 public:
  explicit RepairQueue(uint32_t segments)
      : fresh_(segments),
        waiting_(segments),
        due_(segments),
        recent_(segments),
        older_(segments),
        asked_(segments),
        echo_(segments),
        once_(segments) {}

  // How long a segment that was repaired is held back at least: a round trip, in which requests
  // arrive that were sent before the repair came.
  void set_holdoff(Time round_trip) { holdoff_ = std::clamp(round_trip, kMinHoldoff, kMaxHoldoff); }

  // Whether what is asked for from here on has to wait until it ripens.
  void set_patient(bool on) { patient_ = on; }

  // Enters a run inside the file; returns how many segments are to be repaired because of it.
  uint32_t request(uint32_t first, uint32_t num, Time now);

  // Makes due what has waited long enough; true when something is due.
  bool ripen(Time now);
  // Makes all due that waits.
  void end_waiting();
  // What is due now has no echo.
  void due_once() { once_.insert_all(due_); }

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
    fresh_.clear();
    waiting_.clear();
    due_.clear();
    echo_.clear();
    once_.clear();
  }

 private:
  // Nodes have queues of their own, which a short round trip does not show; one that asks again
  // after its time-out must not be held back.
  static constexpr Time kMinHoldoff = 12 * kMillisecond;
  static constexpr Time kMaxHoldoff = 500 * kMillisecond;
  // What was asked for waits until nothing was asked for so long, or for one to two of the others.
  static constexpr Time kQuiet = 100 * kMillisecond;
  static constexpr Time kMaxWait = 500 * kMillisecond;
  void rotate(Time now);

  SegmentSet fresh_;    // asked for since ripened_
  SegmentSet waiting_;  // asked for before
  bool patient_ = false;
  Time ripened_ = 0;
  Time last_request_ = 0;
  SegmentSet due_;
  SegmentSet recent_;  // repaired since rotated_
  SegmentSet older_;   // repaired in the period before
  SegmentSet asked_;
  SegmentSet echo_;  // to come once more when nothing is due
  SegmentSet once_;  // due, without an echo
  bool echoing_ = false;
  Time rotated_ = 0;
  Time holdoff_ = kMinHoldoff;  // a segment is held back for one to two of these
  uint32_t cursor_ = 0;
};

}  // namespace pkgdist::lead
