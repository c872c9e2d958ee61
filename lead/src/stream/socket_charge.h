// What a datagram takes of a receive buffer. The system charges a socket the memory in which a
// datagram lies, in steps of 832, 1,280 and 2,304 bytes (measured on Linux 6 with datagrams of one
// to 1,472 bytes). Here the largest step counts as the bytes of a full datagram, so the usual limit
// of a socket, 212,992 bytes, is 92 times that.
#pragma once

#include <algorithm>
#include <cstddef>

namespace pkgdist::lead {

inline constexpr size_t kFullDatagram = 1428;
inline constexpr size_t kSmallestCharge = kFullDatagram * 832 / 2304;

// `bytes`: of UDP payload.
constexpr size_t socket_charge(size_t bytes) {
  constexpr size_t kSmall = 150;
  constexpr size_t kMedium = 500;
  constexpr size_t kMediumCharge = kFullDatagram * 1280 / 2304;
  if (bytes <= kSmall) return kSmallestCharge;
  if (bytes <= kMedium) return kMediumCharge;
  return std::max(bytes, kFullDatagram);
}

}  // namespace pkgdist::lead
