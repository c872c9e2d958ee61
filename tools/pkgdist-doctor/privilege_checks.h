// What this process may do: some checks need more than an ordinary user has, and so do low ports.
#pragma once

#include "doctor_options.h"
#include "finding.h"
#include "link_watch.h"
#include "packet_filter.h"

namespace pkgdist::doctor {

// One note for everything that privileges kept from being looked at.
void check_privileges(const LinkWatch& watch, const PacketFilter& filter, Findings& findings);

// Ports that only a privileged program may open.
void check_ports(const DoctorOptions& options, Findings& findings);

}  // namespace pkgdist::doctor
