// Finds the nodes that are reached on the control channel alone.
//
// A node answers each poll of the stream as soon as it has taken what was sent before it. One that
// answers none of them, although it answers pings, takes no part in the data stream, and a push
// would wait for it for ever: a packet filter drops one of the data channel's ports, its switch
// does not forward the group, its disk hangs, or it takes no file from its lists and so does not
// listen. A node that asks for files, and for segments again and again, reaches the lead, which
// says nothing about what reaches the node.
#pragma once

#include <cerrno>
#include <vector>

#include "node_table.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class DataContact {
 public:
  // A poll names the node.
  void polled(NodeIndex node, Time now) {
    One& one = at(node);
    if (one.polls == 0 || elapsed(now, one.polled) >= kPause)
      one = {.since = now, .knew = one.knew};
    one.polled = now;
    ++one.polls;
  }
  // It asks for a file that it was told of, or for segments again.
  void asked(NodeIndex node) { at(node).asked = true; }
  // It says what only somebody says whom the data stream reaches. That it has given up is no such
  // word.
  void answered(NodeIndex node) { at(node) = {.knew = true}; }
  // Polls count from now on.
  void restart(NodeIndex node) { at(node) = {.knew = at(node).knew}; }
  // It may be another process from now on.
  void forget(NodeIndex node) { at(node) = {}; }

  // Why the node is not waited for any longer, as a status; 0: it is.
  uint64_t lost(NodeIndex node, Time now) const {
    if (node >= nodes_.size()) return 0;
    const One& one = nodes_[node];
    if (one.polls < kLeastPolls ||
        elapsed(now, one.since) < (one.knew ? kPatience : kFirstPatience))
      return 0;
    return PKGDIST_STATUS_FROM_ERRNO(one.asked ? ENODATA : ECOMM);
  }

 private:
  // Longer than all time-outs of a node with the library's own values.
  static constexpr Time kFirstPatience = 45 * kSecond;
  // Of a node that took part before: its disk may hang for a while, and a file that it has
  // forgotten is sent again before that.
  static constexpr Time kPatience = 120 * kSecond;
  static constexpr uint32_t kLeastPolls = 10;
  // Where nobody asked for so long, nothing was owed.
  static constexpr Time kPause = 60 * kSecond;

  struct One {
    Time since = 0;      // the first poll that it has not answered
    Time polled = 0;     // the last one
    uint32_t polls = 0;  // that it has not answered
    bool asked = false;  // since then
    bool knew = false;   // it has answered at some time
  };
  One& at(NodeIndex node) {
    if (node >= nodes_.size()) nodes_.resize(node + size_t{1});
    return nodes_[node];
  }

  std::vector<One> nodes_;
};

}  // namespace pkgdist::lead
