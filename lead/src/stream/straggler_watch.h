// Finds the node that holds the others up: for most of the time the stream stands still because of
// this node alone, which takes data at less than half the pace of the others.
#pragma once

#include "node_table.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class StragglerWatch {
 public:
  // From now on the stream is held up by this node alone, or by none (kNoNode).
  void held_up_by(NodeIndex node, Time now) {
    const Time passed = elapsed(now, changed_);
    changed_ = now;
    if (passed > kPause) return begin(node, now);  // nothing was streamed meanwhile
    if (holder_ != kNoNode) held_ += passed;
    if (node != kNoNode && node != suspect_) begin(node, now);
    holder_ = node;
  }

  // The node, once in `patience` as long as it is so; else kNoNode.
  NodeIndex take(Time now, Time patience) {
    const Time watched = elapsed(now, begun_);
    if (suspect_ == kNoNode || watched < patience) return kNoNode;
    const NodeIndex found = 2 * held_ > watched ? suspect_ : kNoNode;
    begin(kNoNode, now);
    return found;
  }

 private:
  static constexpr Time kPause = 500 * kMillisecond;

  void begin(NodeIndex node, Time now) {
    suspect_ = holder_ = node;
    begun_ = changed_ = now;
    held_ = 0;
  }

  NodeIndex suspect_ = kNoNode;  // no other node held the stream up since begun_
  NodeIndex holder_ = kNoNode;   // at present
  Time begun_ = 0;
  Time changed_ = 0;
  Time held_ = 0;
};

}  // namespace pkgdist::lead
