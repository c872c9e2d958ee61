// How a push stands, told from the records of its nodes.
#pragma once

#include "push/members.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

// Adds what the members and the nodes that are asked for and were not heard say.
void add_nodes(PushReport& report, const PushPlan& plan, const Members& members,
               const NodeTable& nodes, const DataSender& data,
               const std::vector<Streamed>& in_transfer);

// Adds the failed and the open files of each member to a report that add_nodes() has filled, by
// their places in the owner's request.
void add_files(PushReport& report, const PushPlan& plan, const Members& members);

}  // namespace pkgdist::lead
