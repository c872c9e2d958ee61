// Acknowledgements, negative ones, pings and the replies to them.
#include <unistd.h>

#include "ctrl_support.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

using Header = pkgdist_ctrl_msg_hdr;
constexpr uint32_t kMax = 0xFFFFFFFF;

class AckSend : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    G_ctrl_uc_tx_socket = 33;
  }
  void TearDown() override {
    G_ctrl_uc_tx_socket = -1;
    CtrlTest::TearDown();
  }
};

TEST_F(AckSend, a_multicast_ack_carries_the_point_and_no_stream_mark) {
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), 0u);
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(ctrl_header(sent[0].bytes).presence, 0x31Fu);
  EXPECT_EQ(ctrl_header(sent[0].bytes).msg_id, PKGDIST_CTRL_MSG_ACK);
  EXPECT_EQ(ctrl_header(sent[0].bytes).ack_sequence, 5u);
  EXPECT_EQ(value(CrtCounter::kMcAckSent), 1u);
  EXPECT_TRUE(logs::contains("CTRL MC ACK Sent - Node 127.0.0.1 (9/8/7) Sequence 7 Segment 0\n"));
}

TEST_F(AckSend, a_unicast_ack_carries_the_stream_mark_and_no_point) {
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, true, 5), 0u);
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(ctrl_header(sent[0].bytes).presence, 0x15Fu);
  EXPECT_EQ(ctrl_header(sent[0].bytes).unicast, 1);
  EXPECT_EQ(value(CrtCounter::kUcAckSent), 1u);
  EXPECT_TRUE(logs::contains("CTRL UC ACK Sent - Node 127.0.0.1 (9/8/7) Sequence 7 Segment 0\n"));
}

TEST_F(AckSend, a_nack_asks_for_one_segment_or_for_the_whole_message) {
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(false, 7, true, 3, false, 5), 0u);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(false, 7, false, 0, false, 5), 0u);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(false, 7, true, 0, true, 5), 0u);
  EXPECT_EQ(answers(),
            (Words{"MC NACK 7 segment 3 point 5", "MC NACK 7 point 5", "UC NACK 7 segment 0"}));
  EXPECT_EQ(value(CrtCounter::kMcNackSent), 2u);
  EXPECT_EQ(value(CrtCounter::kUcNackSent), 1u);
  EXPECT_TRUE(logs::contains("CTRL MC NACK Sent - Node 127.0.0.1 (9/8/7) Sequence 7 Segment 3\n"));
  EXPECT_TRUE(logs::contains("CTRL UC NACK Sent - Node 127.0.0.1 (9/8/7) Sequence 7 Segment 0\n"));
}

TEST_F(AckSend, an_ack_never_carries_a_segment) {
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, true, 3, false, 5), 0u);
  EXPECT_EQ(answers(), (Words{"MC ACK 7 point 5"}));
}

TEST_F(AckSend, goes_from_the_send_socket_to_the_leads_control_port) {
  G_lead_uc_addr = 0x0A000001;
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), 0u);
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].socket, 33);
  EXPECT_EQ(sent[0].address, 0x0A000001u);
  EXPECT_EQ(sent[0].port, 7102);
}

TEST_F(AckSend, the_bytes_are_those_of_the_wire_format) {
  G_my_node_ip = 0x0A000002;
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(false, 0x11223344, true, 6, false, 0x55667788), 0u);
  const auto pid = static_cast<uint32_t>(getpid());
  const auto byte = [](uint32_t word, int shift) { return static_cast<uint8_t>(word >> shift); };
  EXPECT_EQ(wire::take()[0].bytes, (Bytes{0,
                                          0,
                                          0,
                                          36,  // header length
                                          0,
                                          0,
                                          0x03,
                                          0x3F,  // presence
                                          0,
                                          0,
                                          0,
                                          5,  // NACK
                                          10,
                                          0,
                                          0,
                                          2,  // this node
                                          byte(pid, 24),
                                          byte(pid, 16),
                                          byte(pid, 8),
                                          byte(pid, 0),  // its process
                                          0x11,
                                          0x22,
                                          0x33,
                                          0x44,  // sequence
                                          0,
                                          0,
                                          0,
                                          3,  // card class
                                          0,
                                          0,
                                          0,
                                          6,  // segment
                                          0,
                                          1,
                                          2,
                                          3,  // identity
                                          0x55,
                                          0x66,
                                          0x77,
                                          0x88}));  // point
}

TEST_F(AckSend, records_the_time_of_sending) {
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), 0u);
  EXPECT_EQ(samples(CrtHistogram::kUcSendTime), 1u);
}

TEST_F(AckSend, without_memory_nothing_is_sent) {
  faults::fail(Call::kCalloc, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_ack_send: malloc() 61 bytes for RCTRL_ACK_PKT failed\n"));
  EXPECT_TRUE(answers().empty());
  EXPECT_EQ(value(CrtCounter::kMcAckSent), 0u);
}

TEST_F(AckSend, a_failed_send_is_reported_in_the_same_words_for_both_streams) {
  for (const bool unicast : {false, true}) {
    logs::records().clear();
    faults::fail(Call::kSendto, 1, ENETUNREACH);
    EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, unicast, 5), PKGDIST_ERR_SEND);
    EXPECT_TRUE(logs::contains(
        "ERR:pkgdist_ctrl_recv_ack_send: ctrl mcast msg ack sendto of 36 bytes failed, rc=-1, "
        "errno=101(" +
        std::string(std::strerror(ENETUNREACH)) + ")\n"));
    EXPECT_EQ(logs::count("ACK Sent"), 0u);
  }
  EXPECT_EQ(value(CrtCounter::kMcAckSent) + value(CrtCounter::kUcAckSent), 0u);
  EXPECT_EQ(samples(CrtHistogram::kUcSendTime), 0u);
}

TEST_F(AckSend, a_send_without_socket_fails_like_any_other) {
  G_ctrl_uc_tx_socket = -1;
  wire::capture(false);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count("errno=9("), 1u);
}

// The codec refuses (-6), or the datagram is one byte larger than its buffer (4 + 58).
TEST_F(AckSend, an_acknowledgement_that_cannot_be_encoded_is_not_sent) {
  faults::fail(Call::kEncodeCtrlHeader, 1, -6);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), PKGDIST_ERR_ENCODE);
  EXPECT_EQ(logs::count("ERR:pkgdist_ctrl_recv_ack_send: "), 1u);
  faults::fail(Call::kEncodeCtrlHeader, 1, 58);
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 7, false, 0, false, 5), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_ctrl_recv_ack_send: ctrl msg ack encode size '62' exceeds alloc "
                     "size '61'\n"));
  EXPECT_TRUE(wire::take().empty());
  EXPECT_EQ(value(CrtCounter::kMcAckSent), 0u);
}

// --- Replies ---

TEST_F(AckSend, a_reply_that_cannot_be_encoded_is_not_sent) {
  faults::fail(Call::kEncodeCtrlHeader, 1, -6);
  EXPECT_EQ(pkgdist_ctrl_recv_ping_reply_send(12, true, 5), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_ping_reply_send: ctrl hdr ping reply encode failed: -6\n"));
  faults::fail(Call::kEncodeCtrlHeader, 1, 58);
  EXPECT_EQ(pkgdist_ctrl_recv_ping_reply_send(12, true, 5), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_ctrl_recv_ping_reply_send: ctrl hdr ping reply encode size '62' "
                     "exceeds alloc size '61'\n"));
  EXPECT_TRUE(wire::take().empty());
  EXPECT_EQ(value(CrtCounter::kMcPingReplySent), 0u);
}

TEST_F(AckSend, a_reply_carries_the_point_as_its_sequence) {
  EXPECT_EQ(pkgdist_ctrl_recv_ping_reply_send(12, false, 5), 0u);
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  const Header header = ctrl_header(sent[0].bytes);
  EXPECT_EQ(header.presence, 0x11Fu);
  EXPECT_EQ(header.msg_id, PKGDIST_CTRL_MSG_PING_REPLY);
  EXPECT_EQ(header.sequence, 12u);
  EXPECT_EQ(sent[0].bytes.size(), 32u);
  EXPECT_EQ(value(CrtCounter::kMcPingReplySent), 1u);
  EXPECT_EQ(samples(CrtHistogram::kUcSendTime), 1u);
}

TEST_F(AckSend, a_reply_without_memory_is_not_sent) {
  faults::fail(Call::kCalloc, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_recv_ping_reply_send(12, false, 0), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_ping_reply_send: malloc() 61 bytes for RPING_REPLY_CTRL_PKT "
      "failed\n"));
  EXPECT_EQ(value(CrtCounter::kMcPingReplySent), 0u);
}

TEST_F(AckSend, a_reply_that_cannot_be_sent_is_reported) {
  faults::fail(Call::kSendto, 1, EPERM);
  EXPECT_EQ(pkgdist_ctrl_recv_ping_reply_send(12, true, 5), PKGDIST_ERR_SEND);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_ping_reply_send: ctrl ucast ping reply sendto of 40 bytes failed, "
      "rc=-1, errno=1(" +
      std::string(std::strerror(EPERM)) + ")\n"));
  EXPECT_EQ(value(CrtCounter::kMcPingReplySent), 0u);
  EXPECT_EQ(samples(CrtHistogram::kUcSendTime), 0u);
}

// --- Pings ---

class Ping : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    set_multicast_point(9);
    logs::records().clear();
  }
};

TEST_F(Ping, of_the_last_sequence_is_replied_to_with_the_point) {
  G_ctrl_mc_last_ack_sequence = 7;
  receive(ping(9));
  EXPECT_EQ(answers(), (Words{"REPLY 7"}));
  EXPECT_EQ(value(CrtCounter::kMcPingRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 0u);
}

TEST_F(Ping, of_an_older_sequence_changes_nothing) {
  receive(ping(3));
  EXPECT_EQ(answers(), (Words{"REPLY 9"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 9u);
}

TEST_F(Ping, without_a_status_is_replied_to_without_one_whatever_the_codec_left) {
  {
    const CodecResidue residue;
    receive(ping(9));
  }
  EXPECT_EQ(answers(), (Words{"REPLY 9"}));
}

TEST_F(Ping, echoes_a_status_and_only_one_that_was_there) {
  receive(ping(9, 5));
  receive(ping(9, 0));
  receive(ping(9));
  receive(ping(9, ~uint64_t{0}));
  EXPECT_EQ(answers(), (Words{"REPLY 9 status 5", "REPLY 9 status 0", "REPLY 9",
                              "REPLY 9 status 18446744073709551615"}));
}

TEST_F(Ping, ahead_asks_for_everything_up_to_its_own_sequence) {
  receive(ping(12));
  EXPECT_TRUE(logs::contains("CTRL Ping Out Of Sequence Received - New Sequence 12 Last 9\n"));
  EXPECT_EQ(answers(),
            (Words{"MC NACK 10 point 9", "MC NACK 11 point 9", "MC NACK 12 point 9", "REPLY 9"}));
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(value(CrsCounter::kRxOosAddMc), 3u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 12u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 9u);
  for (const uint32_t sequence : {10u, 11u, 12u}) {
    const CTRL_RECV_RX_MSG* entry = pkgdist::rx_msg_find(sequence, false);
    ASSERT_NE(entry, nullptr);
    EXPECT_FALSE(entry->filled);
    EXPECT_EQ(entry->nack_count, 1u);
    EXPECT_EQ(entry->stamp, clock::now());
  }
}

TEST_F(Ping, asks_only_for_what_is_not_waited_for) {
  pkgdist::rx_msg_add(11, false);
  receive(ping(12));
  EXPECT_EQ(answers(), (Words{"MC NACK 10 point 9", "MC NACK 12 point 9", "REPLY 9"}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 3u);
}

TEST_F(Ping, repeated_asks_for_nothing_again) {
  receive(ping(12));
  answers();
  receive(ping(12));
  EXPECT_EQ(answers(), (Words{"REPLY 9"}));
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 1u);
}

TEST_F(Ping, what_it_revealed_is_delivered_when_it_comes) {
  attach(2);
  receive(ping(10));
  receive(control({.sequence = 10, .data = "ten", .rxmt = true}));
  run();
  EXPECT_EQ(messages(), (Words{"ten"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 10u);
}

TEST_F(Ping, up_to_the_largest_sequence_ends) {
  set_multicast_point(kMax - 2);
  receive(ping(kMax));
  EXPECT_EQ(answers(), (Words{"MC NACK 4294967294 point 4294967293",
                              "MC NACK 4294967295 point 4294967293", "REPLY 4294967293"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, kMax);
  receive(ping(kMax));
  EXPECT_EQ(answers(), (Words{"REPLY 4294967293"}));
}

TEST_F(Ping, without_memory_the_loop_ends_with_the_last_sequence_at_the_one_that_failed) {
  faults::fail(Call::kCalloc, 3, ENOMEM);  // entry, its NACK, the second entry
  receive(ping(14));
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_ping: malloc() " +
                             std::to_string(sizeof(CTRL_RECV_RX_MSG)) +
                             " bytes for CTRL_RECV_RX_OOS_MSG failed\n"));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 11u);
  EXPECT_EQ(answers(), (Words{"MC NACK 10 point 9", "REPLY 9"})) << "it is replied to all the same";
  receive(ping(14));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 14u) << "the next ping asks for the rest";
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 4u);
}

TEST_F(Ping, far_ahead_stops_at_the_limit_of_entries) {
  receive(ping(0x80000000));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, pkgdist::kRxMsgDbLimit);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 9 + pkgdist::kRxMsgDbLimit + 1);
  EXPECT_EQ(logs::count("bytes for CTRL_RECV_RX_OOS_MSG failed"), 1u);
}

TEST_F(Ping, of_a_new_lead_process_asks_for_what_it_missed_when_an_old_one_filled_the_database) {
  receive(ping(0x80000000));
  receive(ping(0, {}, {.pid = 101}));
  answers();
  clock::advance(kSecond);  // requests are limited in time, too
  receive(ping(2, {}, {.pid = 101}));
  EXPECT_EQ(answers(), (Words{"MC NACK 1 point 0", "MC NACK 2 point 0", "REPLY 0"}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, pkgdist::kRxMsgDbLimit);
}

TEST_F(Ping, of_a_second_lead_gets_no_reply) {
  receive(ping(12, {}, {.address = kOtherAddress}));
  EXPECT_TRUE(answers().empty());
  EXPECT_EQ(value(CrtCounter::kMcLeadFailoverDrop), 1u);
  EXPECT_EQ(value(CrtCounter::kMcPingRecv), 0u);
}

TEST_F(Ping, on_the_unicast_socket_is_a_ping_as_well) {
  receive(ping(10), true);
  EXPECT_EQ(answers(), (Words{"MC NACK 10 point 9", "REPLY 9"}));
}

// What the caller's own thread may wait for is not held while the reply goes out. The counters are
// updated behind it.
TEST_F(Ping, is_replied_to_with_the_receive_database_unlocked) {
  unsigned updates = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex != &atomic_mutex || wire::sent().empty()) return;
    ++updates;
    ASSERT_EQ(pthread_mutex_trylock(&G_ctrl_recv_rx_msg_db.mutex), 0);
    pthread_mutex_unlock(&G_ctrl_recv_rx_msg_db.mutex);
  });
  receive(ping(9));
  faults::clear();
  EXPECT_GE(updates, 2u);
  EXPECT_EQ(answers(), (Words{"REPLY 9"}));
}

TEST_F(Ping, leaves_the_receive_database_unlocked) {
  faults::fail_always(Call::kSendto, EPERM);
  receive(ping(12));
  EXPECT_EQ(pthread_mutex_trylock(&G_ctrl_recv_rx_msg_db.mutex), 0);
  pthread_mutex_unlock(&G_ctrl_recv_rx_msg_db.mutex);
}

}  // namespace
