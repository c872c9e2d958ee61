// Small socket helpers shared by the control and the data side.
#pragma once

#include <cstdint>

namespace pkgdist {

// A UDP socket, closed on exec. -1 with errno on failure.
int udp_socket();

// The same for a socket that select() is to watch: fails with EMFILE when the descriptor is too
// large for a descriptor set.
int selectable_udp_socket();

// Closes `socket` if it is open and marks it -1.
void close_socket(int& socket);

// setsockopt() of one integer option at socket level. Returns its result, with errno.
int set_socket_option(int socket, int option, int value);

// bind() to an address and port in host byte order. Returns its result, with errno.
int bind_socket(int socket, uint32_t address, uint16_t port);

// Joins a multicast group on the interface with the given address. Returns setsockopt()'s result.
int join_group(int socket, uint32_t group, uint32_t interface_address);

}  // namespace pkgdist
