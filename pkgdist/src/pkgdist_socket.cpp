#include "pkgdist_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "pkgdist_atomic.h"

namespace pkgdist {

int udp_socket() {
  return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}

int selectable_udp_socket() {
  const int descriptor = udp_socket();
  if (descriptor < FD_SETSIZE) return descriptor;
  (void)close(descriptor);
  errno = EMFILE;
  return -1;
}

void close_socket(int& socket) {
  const int descriptor = load(socket);
  if (descriptor == -1) return;
  store(socket, -1);
  (void)close(descriptor);
}

int set_socket_option(int socket, int option, int value) {
  return setsockopt(socket, SOL_SOCKET, option, &value, sizeof value);
}

int bind_socket(int socket, uint32_t address, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(address);
  local.sin_port = htons(port);
  return bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local);
}

int join_group(int socket, uint32_t group, uint32_t interface_address) {
  ip_mreq membership{};
  membership.imr_multiaddr.s_addr = htonl(group);
  membership.imr_interface.s_addr = htonl(interface_address);
  return setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
}

}  // namespace pkgdist
