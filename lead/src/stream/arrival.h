// How much of the stream has arrived on each node, as far as the node has said: for the operator's
// view of a push. Nothing that is sent depends on it.
//
// A node answers a poll of the stream once it has handled everything that was sent before
// (window.h), and it asks for what it lacks. So the stream has arrived up to the poll's position,
// but for what was asked for lately. The window polls eight nodes at a time; where there are more,
// all of them are polled in turn for this account.
#pragma once

#include <array>
#include <vector>

#include "stream/transfer.h"
#include "stream/window.h"

namespace pkgdist::lead {

class Arrival {
 public:
  explicit Arrival(const BusyNodes& busy) : busy_(busy) {}

  // --- What nodes say; positions are the window's ---

  // The node receives from `position` on, unless it did before.
  void joins(NodeIndex node, uint64_t position);
  // The node answers a poll that was sent at `asked`.
  void answers(NodeIndex node, uint64_t asked, uint64_t position);
  // It has a file whole that was streamed up to there.
  void reached(NodeIndex node, uint64_t position);
  // It asks for so many bytes.
  void lacks(NodeIndex node, uint64_t bytes);
  // It is gone, or another process.
  void forget(NodeIndex node);

  // Segments of a file that it has not reported to be whole.
  uint64_t segments(const Transfer& transfer, NodeIndex node) const;

  // --- Polls beside those of the window ---

  bool poll_due(uint64_t position, Time now) const;
  // The nodes to be named by the poll of this number, which is sent now.
  const std::vector<NodeIndex>& begin_poll(TransferId number, uint64_t position, Time now);
  // False when the number is none of these polls.
  bool answered(TransferId number, NodeIndex node, uint64_t position);

 private:
  // Each poll draws so many answers at once, which a socket holds easily; 1,000 nodes are polled
  // every 3 s, for 330 small datagrams in a second.
  static constexpr size_t kNamed = 32;
  static constexpr Time kPeriod = 100 * kMillisecond;
  // Where less was sent since the last poll there is little to tell.
  static constexpr uint64_t kLeastStream = 32 * 1024;

  static constexpr uint64_t kNone = UINT64_MAX;
  struct One {
    uint64_t joined = kNone;
    uint64_t arrived = 0;  // grows only
    // Bytes asked for since `turned`, and before that. A repair follows its request closely: what
    // was asked for before a poll was sent is repaired once the next one has been answered.
    uint64_t lacking = 0, lacking_before = 0;
    uint64_t turned = 0;
  };
  struct Poll {
    TransferId number = kNoTransfer;
    uint64_t position = 0;
  };
  One& at(NodeIndex node) {
    if (node >= nodes_.size()) nodes_.resize(node + size_t{1});
    return nodes_[node];
  }

  const BusyNodes& busy_;
  std::vector<One> nodes_;
  std::array<Poll, 16> polls_;  // the latest
  size_t next_ = 0;
  NodeIndex next_node_ = 0;
  std::vector<NodeIndex> named_;
  uint64_t polled_at_ = 0;  // position
  Time polled_ = 0;
};

}  // namespace pkgdist::lead
