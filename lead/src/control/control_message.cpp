#include "control/control_message.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

// A segment with a node list of the greatest length fills the datagram as far as one of the full
// size without a list.
constexpr uint32_t kSegmentSizeWithNodes = 1200;
static_assert(kSegmentSizeWithNodes + 2 + 4 * kMaxNodesPerMessage <=
              PKGDIST_CTRL_SEGMENT_SIZE + 16);

pkgdist_ctrl_msg_hdr header_of(const Settings& self, uint32_t msg_id, uint32_t sequence) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::msg_id>(header, msg_id);
  qidl::set<&H::node_ip>(header, self.address);
  qidl::set<&H::pid>(header, self.pid);
  qidl::set<&H::sequence>(header, sequence);
  if (self.node_id != 0) qidl::set<&H::node_id>(header, self.node_id);
  return header;
}

}  // namespace

uint32_t ControlMessage::segment_size() const {
  return audience.nodes.empty() ? PKGDIST_CTRL_SEGMENT_SIZE : kSegmentSizeWithNodes;
}

uint32_t ControlMessage::segments() const {
  const uint64_t size = segment_size();
  return std::max<uint32_t>(1, static_cast<uint32_t>((payload.size() + size - 1) / size));
}

size_t build_ping(std::span<uint8_t> out, const Settings& self, uint32_t last_sequence,
                  uint64_t status) {
  pkgdist_ctrl_msg_hdr header = header_of(self, PKGDIST_CTRL_MSG_PING, last_sequence);
  qidl::set<&pkgdist_ctrl_msg_hdr::status>(header, status);
  return frame(out, header);
}

size_t build_segment(std::span<uint8_t> out, const Settings& self, const ControlMessage& message,
                     uint32_t segment, bool retransmission) {
  pkgdist_ctrl_msg_hdr header = header_of(self, PKGDIST_CTRL_MSG_CTRL, message.sequence);
  qidl::set<&pkgdist_ctrl_msg_hdr::card_class>(header, message.audience.card_class);
  qidl::set<&pkgdist_ctrl_msg_hdr::segment>(header, segment);

  using B = pkgdist_ctrl_msg;
  const uint64_t size = message.segment_size();
  const uint64_t offset = std::min<uint64_t>(segment * size, message.payload.size());
  B body{};
  qidl::set<&B::msg_class>(body, message.msg_class);
  if (!message.audience.nodes.empty()) {
    body.node_list = const_cast<uint32_t*>(message.audience.nodes.data());
    body.node_list_count = static_cast<uint32_t>(message.audience.nodes.size());
    qidl::mark<&B::node_list>(body);
  }
  qidl::set<&B::total_size>(body, message.payload.size());
  qidl::set<&B::segment_size>(body, size);
  if (retransmission) qidl::set<&B::rxmt>(body, 1u);
  body.data = message.payload.data() + offset;
  body.data_size = std::min<uint64_t>(size, message.payload.size() - offset);
  qidl::mark<&B::data>(body);
  return frame(out, header, body);
}

size_t build_answer(std::span<uint8_t> out, const Settings& self, uint32_t msg_id,
                    uint32_t sequence, const uint32_t* segment) {
  using H = pkgdist_ctrl_msg_hdr;
  H header = header_of(self, msg_id, sequence);
  if (segment != nullptr) qidl::set<&H::segment>(header, *segment);
  qidl::set<&H::unicast>(header, 1);
  return frame(out, header);
}

size_t build_lead_query(std::span<uint8_t> out, const Settings& self) {
  return build_answer(out, self, PKGDIST_CTRL_MSG_ACK, kLeadQuerySequence, nullptr);
}

bool Audience::includes(uint32_t address, uint32_t node_class) const {
  switch (card_class) {
    case 1:
    case 2:
    case 5:
    case 11:
    case 13:
      return node_class == card_class;
    case 12:
      return node_class == 1 || node_class == 11;
    case 6:
      return node_class == 1 || node_class == 5;
    case kCardClassListed:
      return std::find(nodes.begin(), nodes.end(), address) != nodes.end();
    default:
      return true;
  }
}

}  // namespace pkgdist::lead
