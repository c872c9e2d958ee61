// Finds the nodes that answer pings, and take no part in the push beside that: their lists or the
// data channel do not get through.
#pragma once

#include <utility>

#include "push/announcer.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

class Reachability {
 public:
  Reachability(const Members& members, Announcer& announcer, const NodeTable& nodes,
               DataSender& data)
      : members_(members), announcer_(announcer), nodes_(nodes), data_(data) {}

  // Looks once a second. The nodes that cannot be reached, each with the status of what it lacks.
  std::vector<std::pair<NodeIndex, uint64_t>> look(Time now);

 private:
  uint64_t judge(NodeIndex node, Time now);

  const Members& members_;
  Announcer& announcer_;
  const NodeTable& nodes_;
  DataSender& data_;
  Time next_look_ = 0;
};

}  // namespace pkgdist::lead
