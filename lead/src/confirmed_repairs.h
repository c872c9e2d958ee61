// Repairs of one file that nodes confirm.
//
// A node does not notice that it lost a repair, and asks again after seconds only. Where whole
// batches of datagrams get lost, a question is the last datagram of each batch of repairs: a node
// that answers has the batch. While queues run over, which tears batches, there is one before it as
// well, which has to be answered, too. Without the answers of all who asked, it is sent again.
#pragma once

#include <list>
#include <vector>

#include "node_table.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class ConfirmedRepairs {
 public:
  struct Node {
    NodeIndex index = 0;
    bool before = false;  // answered the question before the batch, and the one behind it
    bool behind = false;
  };
  struct Batch {
    uint32_t place = kNoPlace;  // of the batch that was lost
    std::vector<uint32_t> segments;
    std::vector<Node> nodes;  // that have not confirmed it
    // The numbers of the questions when it was sent last, 0 for none.
    uint32_t question_before = 0;
    uint32_t question_behind = 0;
    unsigned sent = 0;  // times
    Time sent_at = 0;
    Time due = 0;
  };
  // For repairs of several batches.
  static constexpr uint32_t kNoPlace = UINT32_MAX;

  bool empty() const { return batches_.empty(); }
  // No more can be waited for.
  bool full() const { return batches_.size() >= kMaxBatches; }
  // The node wants it, too. False when no batch of this place is on its way.
  bool join(uint32_t place, NodeIndex node);
  Batch& add(uint32_t place, std::vector<uint32_t> segments, const std::vector<NodeIndex>& nodes);

  // The oldest batch to be sent now, or null. Gives up those that were sent often: their nodes will
  // have to ask again.
  Batch* next_due(Time now);
  // When there is one, kNever without batches.
  Time due() const;
  // It was sent between these questions; without the first there is no need for an answer to it.
  static void sent(Batch& batch, uint32_t before, uint32_t behind, Time now, Time answer_time);

  // A node answered a question; returns how long ago that was sent, 0 when it is none of these.
  Time answered(uint32_t question, NodeIndex node, Time now);
  void drop_node(NodeIndex node);
  void clear() { batches_.clear(); }

 private:
  static constexpr size_t kMaxBatches = 256;
  static constexpr unsigned kMaxSent = 6;

  std::list<Batch> batches_;
};

}  // namespace pkgdist::lead
