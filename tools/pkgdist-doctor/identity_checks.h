// Whether there are two of what there may be one: leads on the groups, hosts with one address.
#pragma once

#include "conversation.h"
#include "finding.h"

namespace pkgdist::doctor {

void check_leads(const DoctorOptions& options, const Conversation& talk, Findings& findings);

// This host's own address, and those of the hosts that were heard.
void check_addresses(const DoctorOptions& options, const Conversation& talk, const LinkWatch& watch,
                     Findings& findings);

}  // namespace pkgdist::doctor
