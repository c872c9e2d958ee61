// Where the lead's datagrams go. The lead owns no socket: it writes each datagram into the sink's
// buffer and says where it is meant to go; the sink sends at once, in batches, or not at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace pkgdist::lead {

// Outgoing: the group or port a datagram is sent to. Incoming: the port it arrived at;
// kOverheard is the control group, on which leads hear each other.
enum class Channel : uint8_t { kControl, kData, kOverheard };

// Destination of a datagram for every node: the channel's multicast group.
inline constexpr uint32_t kGroup = 0;

class DatagramSink {
 public:
  virtual ~DatagramSink() = default;

  // Room for one datagram of the largest size, valid until the next send().
  virtual std::span<uint8_t> buffer() = 0;

  // Sends the first `length` bytes of buffer() to the channel's group or to the node at the IPv4
  // address `destination` (host byte order).
  virtual void send(Channel channel, uint32_t destination, size_t length) = 0;
};

}  // namespace pkgdist::lead
