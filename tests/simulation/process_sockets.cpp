#include "process_sockets.h"

#include <algorithm>

namespace pkgdist::sim {

int Sockets::open() {
  int descriptor = kFirst;
  while (sockets_.contains(descriptor)) ++descriptor;
  if (descriptor > kLast) return -1;
  sockets_[descriptor];
  return descriptor;
}

void Sockets::bind(int socket, uint32_t address, uint16_t port) {
  sockets_.at(socket).address = address;
  sockets_.at(socket).port = port;
}

bool Sockets::readable(int socket) const {
  const auto found = sockets_.find(socket);
  return found != sockets_.end() && !found->second.queue.empty();
}

long Sockets::receive(int socket, std::span<uint8_t> out) {
  const auto found = sockets_.find(socket);
  if (found == sockets_.end() || found->second.queue.empty()) return -1;
  const std::vector<uint8_t>& oldest = found->second.queue.front();
  const size_t length = std::min(oldest.size(), out.size());
  std::copy_n(oldest.begin(), length, out.begin());
  found->second.queue.pop_front();
  return static_cast<long>(length);
}

}  // namespace pkgdist::sim
