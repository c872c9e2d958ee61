// Datagrams of the control channel that the lead sends.
#pragma once

#include <vector>

#include "datagram.h"
#include "pkgdist_lead/lead.h"
#include "pkgdist_lead/message.h"

namespace pkgdist::lead {

// What of a control message goes into every datagram of it, and its bytes.
struct ControlMessage {
  uint32_t sequence = 0;
  uint32_t msg_class = 0;
  Audience audience;
  std::vector<uint8_t> payload;

  uint32_t segment_size() const;
  uint32_t segments() const;
};

// The most addresses that fit beside a segment.
inline constexpr size_t kMaxNodesPerMessage = 48;

// The status word of a ping, which travels back in the replies: since when the lead leads in
// wall-clock seconds, for other leads, above the time of sending in microseconds, which makes the
// reply a measurement of the round trip.
inline uint64_t ping_status(uint32_t leading_since, Time now) {
  return uint64_t{leading_since} << 32 | static_cast<uint32_t>(now / kMicrosecond);
}
inline uint32_t leading_since_of(uint64_t status) {
  return static_cast<uint32_t>(status >> 32);
}
// The time since a ping with this status was sent, when that was within the last hour.
inline Time age_of(uint64_t status, Time now) {
  const auto age =
      static_cast<uint32_t>(now / kMicrosecond) - static_cast<uint32_t>(status & UINT32_MAX);
  return age * kMicrosecond;
}

// Each returns the datagram's length, 0 when it does not fit.
size_t build_ping(std::span<uint8_t> out, const Settings& self, uint32_t last_sequence,
                  uint64_t status);
// Asks whether somebody leads. To nodes it is an acknowledgement of a message that none of them has
// sent; a lead answers with a ping.
size_t build_lead_query(std::span<uint8_t> out, const Settings& self);
inline constexpr uint32_t kLeadQuerySequence = 0;  // no message has it
size_t build_segment(std::span<uint8_t> out, const Settings& self, const ControlMessage& message,
                     uint32_t segment, bool retransmission);
// An ACK or NACK of a message that a node sent; a NACK may ask for one segment.
size_t build_answer(std::span<uint8_t> out, const Settings& self, uint32_t msg_id,
                    uint32_t sequence, const uint32_t* segment);

}  // namespace pkgdist::lead
