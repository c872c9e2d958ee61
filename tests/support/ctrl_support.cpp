#include "ctrl_support.h"

#include <unistd.h>

namespace support {
namespace {

using Header = pkgdist_ctrl_msg_hdr;
using Body = pkgdist_ctrl_msg;

Header header_of(uint32_t msg_id, uint32_t sequence, const Sender& from) {
  Header header{};
  qidl::set<&Header::msg_id>(header, msg_id);
  qidl::set<&Header::node_ip>(header, from.address);
  qidl::set<&Header::pid>(header, from.pid);
  qidl::set<&Header::sequence>(header, sequence);
  if (from.node_id != 0) qidl::set<&Header::node_id>(header, from.node_id);
  return header;
}

Bytes lead_answer(uint32_t msg_id, uint32_t sequence, std::optional<uint32_t> segment,
                  uint32_t address) {
  Header header = header_of(msg_id, sequence, {.address = address});
  qidl::set<&Header::unicast>(header, 1);
  if (segment) qidl::set<&Header::segment>(header, *segment);
  return framed(encoded(header));
}

std::string number(const char* name, uint64_t value) {
  return std::string(" ") + name + " " + std::to_string(value);
}

void expect_own_header(const Header& header, const Sent& sent) {
  EXPECT_EQ(sent.address, G_lead_uc_addr);
  EXPECT_EQ(sent.port, G_ctrl_rx_uc_port);
  EXPECT_EQ(sent.socket, G_ctrl_uc_tx_socket);
  EXPECT_TRUE(qidl::has<&Header::node_ip>(header));
  EXPECT_EQ(header.node_ip, G_my_node_ip);
  EXPECT_TRUE(qidl::has<&Header::node_id>(header));
  EXPECT_EQ(header.node_id, G_my_msg_nodeid);
  EXPECT_TRUE(qidl::has<&Header::pid>(header));
  EXPECT_EQ(header.pid, static_cast<uint32_t>(getpid()));
  EXPECT_TRUE(qidl::has<&Header::sequence>(header));
  EXPECT_TRUE(qidl::has<&Header::card_class>(header));
  EXPECT_EQ(header.card_class, G_my_card_class);
}

std::string answer_words(const Header& header, const char* verb) {
  const bool unicast = qidl::has<&Header::unicast>(header);
  std::string words = std::string(unicast ? "UC " : "MC ") + verb + " ";
  words += std::to_string(header.sequence);
  if (qidl::has<&Header::segment>(header)) words += number("segment", header.segment);
  EXPECT_EQ(header.unicast, unicast ? 1 : 0);
  if (qidl::has<&Header::ack_sequence>(header)) words += number("point", header.ack_sequence);
  EXPECT_FALSE(qidl::has<&Header::status>(header));
  return words;
}

std::string reply_words(const Header& header) {
  std::string words = "REPLY " + std::to_string(header.sequence);
  if (qidl::has<&Header::status>(header)) words += number("status", header.status);
  EXPECT_FALSE(qidl::has<&Header::segment>(header));
  EXPECT_FALSE(qidl::has<&Header::unicast>(header));
  EXPECT_FALSE(qidl::has<&Header::ack_sequence>(header));
  return words;
}

std::string message_words(const Header& header, const Bytes& datagram) {
  EXPECT_TRUE(qidl::has<&Header::segment>(header));
  const Decoded<Body> body(datagram);
  EXPECT_EQ(body->segment_size, PKGDIST_CTRL_SEGMENT_SIZE);
  std::string words = "MSG " + std::to_string(header.sequence) + number("segment", header.segment) +
                      number("size", body->data_size) + "/" + std::to_string(body->total_size);
  if (qidl::has<&Body::rxmt>(*body.operator->())) {
    EXPECT_EQ(body->rxmt, 1u);
    words += " rxmt";
  }
  return words;
}

std::string words_of(const Sent& sent) {
  const Header header = ctrl_header(sent.bytes);
  expect_own_header(header, sent);
  // Everything but a message is a header alone.
  const bool has_body = sent.bytes.size() > 4 + pkgdist::header_length(sent.bytes.data());
  EXPECT_EQ(has_body, header.msg_id == PKGDIST_CTRL_MSG_CTRL);
  switch (header.msg_id) {
    case PKGDIST_CTRL_MSG_PING_REPLY:
      return reply_words(header);
    case PKGDIST_CTRL_MSG_CTRL:
      return message_words(header, sent.bytes);
    case PKGDIST_CTRL_MSG_ACK:
      return answer_words(header, "ACK");
    case PKGDIST_CTRL_MSG_NACK:
      return answer_words(header, "NACK");
    default:
      return "message id " + std::to_string(header.msg_id);
  }
}

}  // namespace

void drop_control_channels() {
  while (ControlCallbackChannel* channel = G_ctrl_recv_qitc_db.head) {
    G_ctrl_recv_qitc_db.remove(channel);
    void* entry = nullptr;
    while (qitc_get(channel->qitc, &entry) == 0)
      pkgdist::ControlSide::drop_entry(channel->channel_id, entry);
    qitc_handle_destroy(channel->qitc);
    std::free(channel);
  }
}

Bytes ping(uint32_t sequence, std::optional<uint64_t> status, const Sender& from) {
  Header header = header_of(PKGDIST_CTRL_MSG_PING, sequence, from);
  if (status) qidl::set<&Header::status>(header, *status);
  return framed(encoded(header));
}

Bytes control(const Segment& segment) {
  Header header = header_of(PKGDIST_CTRL_MSG_CTRL, segment.sequence, segment.from);
  qidl::set<&Header::card_class>(header, segment.card_class);
  qidl::set<&Header::segment>(header, segment.segment);
  Body body{};
  qidl::set<&Body::msg_class>(body, segment.msg_class);
  std::vector<uint32_t> nodes = segment.nodes;
  if (!nodes.empty()) {
    body.node_list = nodes.data();
    body.node_list_count = static_cast<uint32_t>(nodes.size());
    qidl::mark<&Body::node_list>(body);
  }
  qidl::set<&Body::total_size>(body, segment.total_size.value_or(segment.data.size()));
  qidl::set<&Body::segment_size>(body, segment.segment_size);
  if (segment.rxmt) qidl::set<&Body::rxmt>(body, 1);
  body.data = reinterpret_cast<const uint8_t*>(segment.data.data());
  body.data_size = segment.data.size();
  qidl::mark<&Body::data>(body);
  return framed(encoded(header), encoded(body));
}

Bytes lead_ack(uint32_t sequence, uint32_t address) {
  return lead_answer(PKGDIST_CTRL_MSG_ACK, sequence, {}, address);
}

Bytes lead_nack(uint32_t sequence, std::optional<uint32_t> segment, uint32_t address) {
  return lead_answer(PKGDIST_CTRL_MSG_NACK, sequence, segment, address);
}

void receive(const Bytes& datagram, bool unicast) {
  pkgdist_ctrl_recv_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()), unicast);
}

std::vector<std::string> answers() {
  std::vector<std::string> words;
  for (const Sent& sent : wire::take()) words.push_back(words_of(sent));
  return words;
}

void CtrlTest::SetUp() {
  RecvTest::SetUp();
  loop_ = levm_create();
  ASSERT_NE(loop_, nullptr);
}

void CtrlTest::TearDown() {
  faults::clear();
  RecvTest::TearDown();
  drop_control_channels();
  levm_destroy(loop_);
}

void CtrlTest::attach(uint32_t msg_class) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, msg_class, on_message, this), 0u);
}

uint32_t CtrlTest::status_client() {
  uint32_t recv_id = 0;
  EXPECT_EQ(pkgdist_ctrl_recv_alloc_ctx(loop_, nullptr, on_status, nullptr, this, recv_id), 0u);
  return recv_id;
}

void CtrlTest::on_message(const void* bytes, uint64_t size, void* fixture) {
  static_cast<CtrlTest*>(fixture)->messages_.emplace_back(static_cast<const char*>(bytes), size);
}

void CtrlTest::on_status(uint64_t status, void* fixture) {
  static_cast<CtrlTest*>(fixture)->statuses_.push_back(status);
}

void CtrlTest::on_lead_change(uint32_t lead, uint32_t pid, bool failover, void* fixture) {
  static_cast<CtrlTest*>(fixture)->lead_changes_.push_back({lead, pid, failover});
}

void CtrlTest::set_multicast_point(uint32_t sequence) {
  G_ctrl_mc_last_sequence = G_ctrl_mc_last_ack_sequence = sequence;
}

std::string dotted(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
         std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

}  // namespace support
