// When nothing can be expected of a node any more, so that a file ends for it without its report.
//
// A node is given up when it has not answered for longer than it can remember the file, or when it
// answers, round after round, and what it lacks does not get less.
#pragma once

#include <map>
#include <utility>

#include "stream/transfer.h"

namespace pkgdist::lead {

class GivingUp {
 public:
  // Polls in a row without an answer after which a node can be silent for good.
  static constexpr uint32_t kSilentPolls = 10;

  // An open node answered a poll and asked for nothing.
  void was_idle(TransferId id, NodeIndex node, Time now);
  // An open node asked for so many segments of a file that is being settled.
  void has_asked(TransferId id, NodeIndex node, uint32_t segments, Time now);

  // The status with which the file ends for an open node; 0: it is waited for.
  uint64_t verdict(const Transfer& transfer, NodeIndex node, Time now) const;

  void forget(TransferId id, NodeIndex node) { progress_.erase({id, node}); }
  void forget(TransferId id);

 private:
  static constexpr uint32_t kUnknown = UINT32_MAX;
  // How a node that answers gets on with a file.
  struct Progress {
    Time since = 0;               // the last sign of it
    uint32_t rounds = 0;          // without one
    uint32_t lacking = kUnknown;  // segments, the least it asked for at once
    uint32_t asks = 0;            // for so many at present
    Time asked_at = 0;
  };
  Progress& begun(TransferId id, NodeIndex node, Time now);

  std::map<std::pair<TransferId, NodeIndex>, Progress> progress_;
};

}  // namespace pkgdist::lead
