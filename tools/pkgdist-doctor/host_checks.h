// What can be told of this host without the network: interface, routes, buffers, shared memory.
#pragma once

#include <string>

#include "doctor_options.h"
#include "finding.h"
#include "network_interface.h"

namespace pkgdist::doctor {

// The network interface that has the address of --interface.
struct Interface : cli::NetworkInterface {
  int mtu = 0;
};

// Looks for the interface; a problem, and an index of 0, when no interface has the address.
Interface check_interface(const DoctorOptions& options, Findings& findings);

// Whether answers to `peer` leave from the address that pkgdist was told.
void check_route(const DoctorOptions& options, const Interface& interface, uint32_t peer,
                 Findings& findings);

void check_receive_buffer(const DoctorOptions& options, Findings& findings);
void check_shared_memory(Findings& findings);

}  // namespace pkgdist::doctor
