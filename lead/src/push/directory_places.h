// Makes room for the directories of a push.
//
// A release that had a link `lib -> lib64` is followed by one with a directory `lib`: on a node
// that still has the link, `lib/a.so` would be written into lib64. So nodes are told to delete the
// names of all directories first. A link or a file of such a name goes; a directory stays, because
// it cannot be deleted in this way. Nodes do not process messages in order, so each has to
// acknowledge before it is told of a file.
#pragma once

#include <set>
#include <vector>

#include "control/control_stream.h"
#include "pkgdist_lead/push.h"

namespace pkgdist::lead {

class DirectoryPlaces {
 public:
  explicit DirectoryPlaces(const PushRequest& push);

  // Nothing is to be told, or the node has acknowledged everything.
  bool clear(NodeIndex node) const { return messages_.empty() || left(node) == 0; }
  bool untold(NodeIndex node) const { return !messages_.empty() && left(node) == kUntold; }
  // Tells nodes that have not been told. `audience`: takes them all in.
  void tell(const std::vector<NodeIndex>& nodes, const Audience& audience, ControlStream& control,
            Time now);
  // The node's process is another one: what it has not acknowledged it has not done.
  void forget(NodeIndex node);

  enum class Meaning : uint8_t { kOther, kMore, kCleared };
  // What an acknowledgement says: it is about something else, more is to come, or the node is
  // clear.
  Meaning on_acknowledged(uint32_t sequence, NodeIndex node);

 private:
  static constexpr size_t kUntold = SIZE_MAX;
  size_t left(NodeIndex node) const { return node < left_.size() ? left_[node] : kUntold; }

  std::vector<std::vector<uint8_t>> messages_;
  std::vector<size_t> left_;  // messages that a node has not acknowledged
  std::set<uint32_t> sequences_;
};

}  // namespace pkgdist::lead
