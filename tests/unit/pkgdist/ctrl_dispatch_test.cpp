// Dispatch of control datagrams: what is too short, undecodable or unknown, on both streams.
#include "ctrl_support.h"

using namespace support;

namespace {

using Header = pkgdist_ctrl_msg_hdr;

class CtrlDispatch : public CtrlTest, public testing::WithParamInterface<bool> {
 protected:
  bool unicast() const { return GetParam(); }
  std::string stream() const { return unicast() ? "uc" : "mc"; }
  uint32_t bad_packets() const {
    return value(unicast() ? CrtCounter::kUcBadPktRecv : CrtCounter::kMcBadPktRecv);
  }
  uint32_t bad_packets_of_the_other_stream() const {
    return value(unicast() ? CrtCounter::kMcBadPktRecv : CrtCounter::kUcBadPktRecv);
  }
  // A datagram that is dropped with these words behind "ctrl mc " or "ctrl uc ".
  void expect_bad(const Bytes& datagram, const std::string& words) {
    const uint32_t before = bad_packets();
    logs::records().clear();
    receive(datagram, unicast());
    EXPECT_EQ(bad_packets(), before + 1);
    EXPECT_EQ(bad_packets_of_the_other_stream(), 0u);
    EXPECT_TRUE(
        logs::contains("ERR:pkgdist_ctrl_recv_process_msg: ctrl " + stream() + " " + words + "\n"))
        << words;
    EXPECT_TRUE(answers().empty());
  }
  static Bytes header_only(uint32_t msg_id) {
    Header header{};
    qidl::set<&Header::msg_id>(header, msg_id);
    qidl::set<&Header::node_ip>(header, kLeadAddress);
    return framed(encoded(header));
  }
};

TEST_P(CtrlDispatch, up_to_3_bytes_are_too_few_for_a_header_length) {
  for (size_t length = 0; length <= 3; ++length)
    expect_bad(Bytes(length), "received " + std::to_string(length) + " bytes, hdr msg too small");
}

TEST_P(CtrlDispatch, a_negative_length_is_too_few_bytes) {
  pkgdist_ctrl_recv_process_msg(nullptr, -1, unicast());
  EXPECT_EQ(bad_packets(), 1u);
}

TEST_P(CtrlDispatch, a_header_longer_than_the_rest_is_refused_up_to_the_largest_length) {
  expect_bad({0, 0, 0, 1}, "received 4 bytes, msg too small");
  expect_bad({0, 0, 0, 5, 0, 0, 0, 0}, "received 8 bytes, msg too small");
  for (const int last : {0xFB, 0xFC, 0xFD, 0xFF})
    expect_bad({0xFF, 0xFF, 0xFF, static_cast<uint8_t>(last), 0, 0, 0, 0},
               "received 8 bytes, msg too small");
  expect_bad({0x80, 0, 0, 0, 0, 0, 0, 0}, "received 8 bytes, msg too small");
}

TEST_P(CtrlDispatch, a_header_that_does_not_decode_is_refused_with_the_codecs_result) {
  expect_bad({0, 0, 0, 0}, "hdr decode failed: -1");
  expect_bad({0, 0, 0, 4, 0x80, 0, 0, 0}, "hdr decode failed: -2");
  expect_bad({0, 0, 0, 5, 0, 0, 0, 0, 0}, "hdr decode failed: -3");
  expect_bad({0, 0, 0, 4, 0, 0, 0, 1}, "hdr decode failed: -1");
}

TEST_P(CtrlDispatch, message_ids_other_than_1_3_4_and_5_are_refused) {
  for (const uint32_t msg_id : {0u, 2u, 6u, 0xFFu})
    expect_bad(header_only(msg_id), "received has invalid msg id '" + std::to_string(msg_id) + "'");
  expect_bad(header_only(0xFFFFFFFF), "received has invalid msg id '-1'");
}

TEST_P(CtrlDispatch, a_header_without_a_message_id_is_message_id_0) {
  expect_bad({0, 0, 0, 4, 0, 0, 0, 0}, "received has invalid msg id '0'");
}

TEST_P(CtrlDispatch, a_refused_message_id_does_not_make_its_sender_the_lead) {
  G_lead_uc_addr = 0;
  receive(header_only(2), unicast());
  EXPECT_EQ(G_lead_uc_addr, 0u);
}

TEST_P(CtrlDispatch, each_message_id_reaches_its_handler) {
  receive(ping(0), unicast());
  EXPECT_EQ(value(CrtCounter::kMcPingRecv), 1u);
  receive(control({.sequence = 1}), unicast());
  EXPECT_EQ(value(unicast() ? CrtCounter::kUcMsgRecv : CrtCounter::kMcMsgRecv), 1u);
  receive(lead_ack(9), unicast());
  EXPECT_EQ(value(CrtCounter::kUcAckRecv), 1u);
  receive(lead_nack(9), unicast());
  EXPECT_EQ(value(CrtCounter::kUcNackRecv), 1u);
  EXPECT_EQ(bad_packets(), 0u);
}

TEST_P(CtrlDispatch, a_body_that_does_not_decode_is_refused_after_the_lead_is_detected) {
  G_lead_uc_addr = 0;
  Bytes datagram = control({.sequence = 5});
  datagram.push_back(0);
  receive(datagram, unicast());
  EXPECT_EQ(bad_packets(), 1u);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_ctrl_msg: ctrl " + stream() +
                             " msg decode failed: -3\n"));
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress) << "the sender counts as the lead all the same";
  EXPECT_EQ(G_ctrl_mc_last_sequence, 4u) << "but its sequence is not taken";
  EXPECT_EQ(G_ctrl_uc_last_sequence, 0u);
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_TRUE(answers().empty());
}

TEST_P(CtrlDispatch, a_control_message_cut_anywhere_is_dropped_and_leaves_nothing) {
  const Bytes whole = control({.sequence = 1, .data = "some bytes", .nodes = {1, 2, 3}});
  for (size_t length = 0; length < whole.size(); ++length)
    receive(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)), unicast());
  EXPECT_EQ(bad_packets(), whole.size());
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_TRUE(answers().empty());
}

INSTANTIATE_TEST_SUITE_P(Streams, CtrlDispatch, testing::Bool(),
                         [](const auto& stream) { return stream.param ? "unicast" : "multicast"; });

}  // namespace
