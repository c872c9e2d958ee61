// What arrives at the control group, where leads hear each other.
#pragma once

#include "lead_parts.h"

namespace pkgdist::lead {

class OtherLeads {
 public:
  explicit OtherLeads(LeadParts& parts) : parts_(parts) {}

  // A datagram with this header. True when another lead speaks, so that the role may change. Own
  // datagrams come back, too. A namesake on the same address is this host's previous process.
  bool hear(std::span<const uint8_t> header, uint32_t from, Time now);

 private:
  LeadParts& parts_;
};

}  // namespace pkgdist::lead
