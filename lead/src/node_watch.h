// Tells the parts of the lead what becomes of nodes: one appears, restarts, returns, falls silent,
// or is taken out of the table.
#pragma once

#include "lead_parts.h"

namespace pkgdist::lead {

class NodeWatch {
 public:
  explicit NodeWatch(LeadParts& parts) : parts_(parts) {}

  // A node was heard, with what the table says about that.
  void on_sighting(NodeTable::Result seen);
  // Looks for nodes that have fallen silent.
  void run(Time now);
  Time next_deadline() const { return next_look_; }
  // The nodes are another lead's business from here on.
  void forget_all(Time now);

 private:
  void on_silent(NodeIndex node);
  void release_silent();

  LeadParts& parts_;
  Time next_look_ = 0;
};

}  // namespace pkgdist::lead
