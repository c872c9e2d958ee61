// What the conversation and the link tell of the network.
#pragma once

#include "conversation.h"
#include "finding.h"
#include "packet_filter.h"

namespace pkgdist::doctor {

struct NetworkEvidence {
  const DoctorOptions& options;
  const Interface& interface;
  const Conversation& talk;
  const LinkWatch& watch;
  const PacketFilter& filter_before;
  const PacketFilter& filter_after;
  const std::vector<BlockedPort>& blocked;  // told from the rules before
};

void check_network(const NetworkEvidence& evidence, Findings& findings);

// While the conversation still has its sockets: whether the kernel has joined the groups.
void check_membership(const DoctorOptions& options, const Interface& interface,
                      const Conversation& talk, Findings& findings);

}  // namespace pkgdist::doctor
