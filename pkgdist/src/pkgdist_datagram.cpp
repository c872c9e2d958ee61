#include "pkgdist_datagram.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "pkgdist_ctrl_recv.h"

namespace pkgdist {

uint32_t header_length(const uint8_t* data) {
  uint32_t length = 0;
  std::memcpy(&length, data, sizeof length);
  return ntohl(length);
}

void Datagram::store_header_length(uint32_t length) {
  const uint32_t wire = htonl(length);
  std::memcpy(buffer_.get(), &wire, sizeof wire);
}

ssize_t Datagram::send_to_lead(int socket, uint16_t port) const {
  sockaddr_in lead{};
  lead.sin_family = AF_INET;
  lead.sin_addr.s_addr = htonl(load(G_lead_uc_addr));
  lead.sin_port = htons(port);
  return sendto(socket, buffer_.get(), total_, 0, reinterpret_cast<const sockaddr*>(&lead),
                sizeof lead);
}

}  // namespace pkgdist
