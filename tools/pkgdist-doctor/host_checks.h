// What can be told of this host without the network: interface, routes, buffers, shared memory.
#pragma once

#include <set>
#include <string>

#include "doctor_options.h"
#include "finding.h"
#include "network_interface.h"

namespace pkgdist::doctor {

// The network interface that has the address of --interface.
struct Interface : cli::NetworkInterface {
  int mtu = 0;
};

// Whether its packets have no room for the longest datagrams.
bool is_small(const Interface& interface);

// Looks for the interface; a problem, and an index of 0, when no interface has the address.
Interface check_interface(const DoctorOptions& options, Findings& findings);

// A small MTU, told from the interface alone.
void check_mtu(const Interface& interface, Findings& findings);

// Whether answers to each of `peers` leave from the address that pkgdist was told.
void check_routes(const DoctorOptions& options, const Interface& interface,
                  const std::set<uint32_t>& peers, Findings& findings);

void check_receive_buffer(const DoctorOptions& options, Findings& findings);
void check_shared_memory(Findings& findings);

}  // namespace pkgdist::doctor
