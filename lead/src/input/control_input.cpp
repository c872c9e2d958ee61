#include "input/control_input.h"

#include "input/sender_check.h"

namespace pkgdist::lead {

namespace {

// Answers to older pings are made up, or say nothing about the present.
constexpr Time kOldestPing = 10 * kSecond;
// Longer round trips are no measurement: the reply carries what somebody made up.
constexpr Time kMaxRoundTrip = 2 * kSecond;

}  // namespace

void ControlInput::on_datagram(const Frame& frame, uint32_t from, Time now) {
  const Decoded<Header> header(frame.header);
  if (!header) {
    ++parts_.counters.bad_datagrams;
    return;
  }
  const uint32_t kind = header->msg_id;
  const bool reply = kind == PKGDIST_CTRL_MSG_PING_REPLY;
  const bool answer = kind == PKGDIST_CTRL_MSG_ACK || kind == PKGDIST_CTRL_MSG_NACK;
  if (!reply && !answer && kind != PKGDIST_CTRL_MSG_CTRL) {
    ++parts_.counters.foreign_datagrams;
    return;
  }
  const std::optional<uint32_t> address = checked_sender(parts_, header->node_ip, from);
  if (!address) return;
  // A node that has not heard this lead yet still answers the one before it: its points say nothing
  // about what this lead has sent.
  const Time asked = reply ? asked_at(*header, now) : 0;
  const bool expected = reply ? asked != 0 : !answer || follows(*address, header->pid);
  if (!expected || *address == parts_.settings.address) {
    ++parts_.counters.foreign_datagrams;
    return;
  }
  on_node(*header, frame.body, *address, asked, now);
}

void ControlInput::on_node(const Header& header, std::span<const uint8_t> body, uint32_t address,
                           Time asked, Time now) {
  const bool reply = header.msg_id == PKGDIST_CTRL_MSG_PING_REPLY;
  const bool message = header.msg_id == PKGDIST_CTRL_MSG_CTRL;
  const NodeTable::Result seen = parts_.nodes.observe_control(header, address, asked, now);
  if (seen.sighting == Sighting::kRival) parts_.control.ping_soon(now);
  // A process need not be the present one to send a message.
  const NodeIndex node = message ? parts_.nodes.find(address) : seen.index;
  if (node == kNoNode) {
    ++parts_.counters.foreign_datagrams;
    return;
  }
  if (seen.sighting == Sighting::kShared)
    return parts_.events.address_shared(parts_.nodes[seen.index].info, header.pid);
  ControlStream& control = parts_.control;
  const bool renewed = reply && parts_.number.on_point(header.sequence, control.last_sequence(),
                                                       control.unused(), asked, now);
  if (renewed) control.ping_soon(now);
  watch_.on_sighting(seen);
  if (reply) return on_ping_reply(node, header, asked, now);
  if (message) return on_message(node, header, body, now);
  on_answer(node, header, now);
}

// Whether this process of the node is known here: answers that come before are for an earlier lead.
bool ControlInput::follows(uint32_t address, uint32_t pid) const {
  const NodeIndex node = parts_.nodes.find(address);
  return node != kNoNode && pid == parts_.nodes[node].info.pid;
}

// When the ping was sent that a reply answers; 0 when that was not lately, or not by this lead.
Time ControlInput::asked_at(const Header& header, Time now) const {
  if (!qidl::has<&Header::status>(header) ||
      leading_since_of(header.status) != parts_.leadership.leading_since())
    return 0;
  const Time age = age_of(header.status, now);
  if (age > kOldestPing || age > now) return 0;
  // The ping tells microseconds: what answers the same one is to have the same time.
  const Time asked = (now - age) / kMicrosecond * kMicrosecond;
  return asked < parts_.number.changed_at() ? 0 : asked;
}

void ControlInput::on_ping_reply(NodeIndex node, const Header& header, Time asked, Time now) {
  measure_round_trip(header.status, now);
  parts_.nodes.note_reply(node, now);
  parts_.last_reply = now;
  parts_.control.on_ping_reply(node, header.sequence, asked, now);
}

// An ACK or NACK, of either stream.
void ControlInput::on_answer(NodeIndex node, const Header& header, Time now) {
  const bool positive = header.msg_id == PKGDIST_CTRL_MSG_ACK;
  const bool has_segment = qidl::has<&Header::segment>(header);
  if (header.unicast == 1) {
    if (positive) return parts_.streams.on_ack(node, header.sequence, now);
    return parts_.streams.on_nack(node, header.sequence, has_segment, header.segment, now);
  }
  if (positive)
    parts_.control.on_ack(node, header.sequence);
  else
    parts_.control.on_nack(node, header.sequence, has_segment, header.segment, now);
  if (qidl::has<&Header::ack_sequence>(header)) parts_.control.on_point(node, header.ack_sequence);
}

void ControlInput::on_message(NodeIndex node, const Header& header, std::span<const uint8_t> bytes,
                              Time now) {
  const Decoded<pkgdist_ctrl_msg> body(bytes);
  if (body)
    parts_.messages.on_segment(node, header, *body, now);
  else
    ++parts_.counters.bad_datagrams;
}

void ControlInput::measure_round_trip(uint64_t echo, Time now) {
  const Time sample = age_of(echo, now);
  if (sample == 0 || sample > kMaxRoundTrip) return;
  round_trip_ = round_trip_ == 0 ? sample : (7 * round_trip_ + sample) / 8;
  parts_.data.set_round_trip(round_trip_);
  parts_.control.set_round_trip(round_trip_);
  parts_.streams.set_round_trip(round_trip_);
}

}  // namespace pkgdist::lead
