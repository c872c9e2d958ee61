// Putting messages together from their segments, and everything that does not fit them.
#include "ctrl_support.h"

using namespace support;

namespace {

class Reassembly : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    attach(2);
    set_multicast_point(4);
    logs::records().clear();
  }
  // Segment of a message of 10 bytes, "abcdefghij", in segments of 4.
  static Bytes part(uint32_t segment, bool rxmt = false) {
    const std::string whole = "abcdefghij";
    return control({.sequence = 5,
                    .data = whole.substr(4 * segment, 4),
                    .segment = segment,
                    .total_size = 10,
                    .segment_size = 4,
                    .rxmt = rxmt});
  }
  static CTRL_RECV_RX_MSG* entry() { return pkgdist::rx_msg_find(5, false); }
  // The datagram is bad: counted, its segment stays open.
  void expect_bad(const Segment& segment) {
    const uint32_t before = value(CrtCounter::kMcBadPktRecv);
    receive(control(segment));
    EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), before + 1);
    EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 1u) << "the first segment only";
    EXPECT_EQ(entry()->segments_received, 1u);
  }
};

TEST_F(Reassembly, segments_in_any_order_make_the_message) {
  for (const uint32_t segment : {2u, 0u, 1u}) receive(part(segment));
  run();
  EXPECT_EQ(messages(), (Words{"abcdefghij"}));
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 3u);
  EXPECT_EQ(value(CrsCounter::kRxAddMcMsg), 1u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
}

// --- Another lead ---

TEST_F(Reassembly, a_message_of_another_lead_does_not_continue_an_old_ones) {
  const auto half = [](const std::string& data, uint32_t segment, uint32_t pid) {
    return control({.sequence = 5,
                    .data = data,
                    .segment = segment,
                    .total_size = 8,
                    .segment_size = 4,
                    .from = {.pid = pid}});
  };
  receive(half("OLD1", 0, 100));
  receive(half("new2", 1, 101));  // another process: its messages are others
  run();
  EXPECT_TRUE(messages().empty());
  EXPECT_EQ(entry()->segments_received, 1u);
  receive(half("new1", 0, 101));
  run();
  EXPECT_EQ(messages(), (Words{"new1new2"}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
}

TEST_F(Reassembly, sizes_of_an_old_leads_message_do_not_bind_another_lead) {
  receive(part(0));
  receive(control({.sequence = 5, .data = "short", .from = {.pid = 101}}));
  run();
  EXPECT_EQ(messages(), (Words{"short"}));
}

TEST_F(Reassembly, what_another_lead_misses_is_asked_for_whatever_an_old_one_left) {
  receive(control({.sequence = 6, .data = "half", .total_size = 8, .segment_size = 4}));
  receive(ping(4, {}, {.pid = 101}));
  answers();
  receive(control({.sequence = 7, .from = {.pid = 101}}));
  EXPECT_EQ(answers(), (Words{"MC NACK 5 point 4", "MC NACK 6 point 4", "MC ACK 7 point 4"}));
  EXPECT_FALSE(pkgdist::rx_msg_find(6, false)->filled);
  EXPECT_EQ(pkgdist::rx_msg_find(6, false)->data, nullptr);
}

// --- Bad sizes ---

TEST_F(Reassembly, a_datagram_with_unusable_sizes_is_logged) {
  receive(part(0));
  logs::records().clear();
  expect_bad({.sequence = 5, .data = "x", .segment = 3, .total_size = 10, .segment_size = 4});
  EXPECT_EQ(logs::count("ctrl mc msg 5 segment 3 of 1 bytes is outside the message"), 1u);
  receive(control({.sequence = 6, .data = "x", .segment_size = 0}));
  EXPECT_EQ(logs::count("ctrl mc msg 6 has segments of 0 bytes"), 1u);
}

TEST_F(Reassembly, the_first_segment_makes_an_entry_with_the_sizes_of_the_message) {
  receive(part(1));
  ASSERT_NE(entry(), nullptr);
  EXPECT_EQ(entry()->msg_class, 2u);
  EXPECT_EQ(entry()->total_size, 10u);
  EXPECT_EQ(entry()->segment_size, 4u);
  EXPECT_EQ(entry()->segments, 3u);
  EXPECT_EQ(entry()->segments_received, 1u);
  EXPECT_EQ(entry()->bitmap[0], 2);
  EXPECT_EQ(entry()->nack_count, 0u);
  EXPECT_EQ(entry()->stamp, clock::now());
  EXPECT_TRUE(logs::contains(
      "CTRL MC New Msg Received - Sequence 5 Segment 1 Num 3 Card Class 0, status 0\n"));
  EXPECT_TRUE(answers().empty());
}

TEST_F(Reassembly, a_unicast_message_is_put_together_on_its_own_stream) {
  receive(part(0), true);
  EXPECT_EQ(entry(), nullptr);
  EXPECT_NE(pkgdist::rx_msg_find(5, true), nullptr);
  EXPECT_EQ(logs::count("CTRL UC New Msg Received - Sequence 5 Segment 0 Num 3"), 1u);
  receive(part(1), true);
  receive(part(2), true);
  EXPECT_EQ(answers(), (Words{"UC ACK 5"}));
}

TEST_F(Reassembly, each_segment_restarts_the_entrys_clock) {
  receive(part(0));
  clock::advance(kSecond);
  receive(part(1));
  EXPECT_EQ(entry()->stamp, clock::now());
}

TEST_F(Reassembly, a_segment_twice_is_a_duplicate_that_changes_nothing) {
  receive(part(0));
  clock::advance(kSecond);
  receive(control({.sequence = 5, .data = "XXXX", .total_size = 10, .segment_size = 4}));
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 1u);
  EXPECT_EQ(entry()->segments_received, 1u);
  EXPECT_EQ(entry()->stamp, clock::now()) << "but it is a sign of life";
  receive(part(1, true));
  receive(part(2, true));
  run();
  EXPECT_EQ(messages(), (Words{"abcdefghij"}));
}

TEST_F(Reassembly, a_unicast_duplicate_is_counted_on_its_stream) {
  receive(part(0), true);
  receive(part(0), true);
  EXPECT_EQ(value(CrtCounter::kUcDupDropRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 0u);
}

TEST_F(Reassembly, a_placeholder_is_filled_from_any_segment) {
  receive(control({.sequence = 6}));
  ASSERT_NE(entry(), nullptr);
  EXPECT_FALSE(entry()->filled);
  answers();
  for (const uint32_t segment : {1u, 0u, 2u}) receive(part(segment, true));
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
  EXPECT_EQ(logs::count("New Msg Received - Sequence 5"), 0u) << "it was known already";
  EXPECT_EQ(value(CrsCounter::kRxAddMcMsg), 1u) << "message 6";
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 6u);
}

TEST_F(Reassembly, a_message_of_exactly_one_segment_needs_one_and_one_byte_more_needs_two) {
  receive(control({.sequence = 5, .data = std::string(1390, 'x')}));
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
  receive(control({.sequence = 6, .data = std::string(1390, 'y'), .total_size = 1391}));
  EXPECT_TRUE(answers().empty());
  receive(control({.sequence = 6, .data = "z", .segment = 1, .total_size = 1391}));
  EXPECT_EQ(answers(), (Words{"MC ACK 6 point 5"}));
  run();
  ASSERT_EQ(messages().size(), 2u);
  EXPECT_EQ(messages()[1], std::string(1390, 'y') + "z");
}

TEST_F(Reassembly, a_message_of_0_bytes_is_delivered_at_once_with_size_0) {
  receive(control({.sequence = 5, .data = ""}));
  run();
  EXPECT_EQ(messages(), (Words{""}));
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 1u);
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
}

TEST_F(Reassembly, a_placeholder_of_a_message_of_0_bytes_is_delivered_too) {
  receive(control({.sequence = 6}));
  receive(control({.sequence = 5, .data = "", .rxmt = true}));
  run();
  EXPECT_EQ(messages().size(), 2u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 6u);
}

// --- Where a complete message goes ---

TEST_F(Reassembly, class_1_goes_to_the_data_side) {
  pkgdist_file_send_ctrl cancel{};
  qidl::set<&pkgdist_file_send_ctrl::operation>(cancel, PKGDIST_FILE_SEND_CANCEL);
  qidl::set<&pkgdist_file_send_ctrl::xact_id>(cancel, 9);
  const Bytes bytes = encoded(cancel);
  receive(control({.sequence = 5, .data = {bytes.begin(), bytes.end()}, .msg_class = 1}));
  EXPECT_EQ(value(DrtCounter::kMcSendCancel), 1u);
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
}

TEST_F(Reassembly, a_message_of_a_class_without_handler_is_acknowledged_and_dropped) {
  for (const uint32_t msg_class : {0u, 3u, 6u, 10u, 0xFFFFFFFFu}) {
    const uint32_t sequence = G_ctrl_mc_last_sequence + 1;
    receive(control({.sequence = sequence, .msg_class = msg_class}));
    EXPECT_EQ(answers().size(), 1u);
    EXPECT_EQ(G_ctrl_mc_last_ack_sequence, sequence);
  }
  EXPECT_EQ(logs::count("ctrl recv msg ctx msg class"), 5u);
}

// --- What does not fit ---

TEST_F(Reassembly, segments_of_0_bytes_are_bad_before_an_entry_is_made) {
  receive(control({.sequence = 5, .data = "x", .segment_size = 0}));
  EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), 1u);
  EXPECT_EQ(entry(), nullptr);
  EXPECT_TRUE(answers().empty());
  receive(control({.sequence = 1, .data = "x", .segment_size = 0}), true);
  EXPECT_EQ(value(CrtCounter::kUcBadPktRecv), 1u);
}

TEST_F(Reassembly, segments_of_0_bytes_do_not_fill_a_placeholder) {
  receive(control({.sequence = 6}));
  receive(control({.sequence = 5, .data = "x", .segment_size = 0, .rxmt = true}));
  EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), 1u);
  ASSERT_NE(entry(), nullptr);
  EXPECT_FALSE(entry()->filled);
}

TEST_F(Reassembly, a_segment_beyond_the_message_is_bad) {
  receive(part(0));
  for (const uint32_t segment : {3u, 4u, 0x40000000u, 0x7FFFFFFFu, 0xFFFFFFFFu})
    expect_bad(
        {.sequence = 5, .data = "abcd", .segment = segment, .total_size = 10, .segment_size = 4});
}

TEST_F(Reassembly, a_segment_longer_than_the_segment_size_is_bad) {
  receive(part(0));
  expect_bad({.sequence = 5, .data = "efghi", .segment = 1, .total_size = 10, .segment_size = 4});
}

TEST_F(Reassembly, a_last_segment_longer_than_the_rest_is_bad) {
  receive(part(0));
  expect_bad({.sequence = 5, .data = "ijk", .segment = 2, .total_size = 10, .segment_size = 4});
}

TEST_F(Reassembly, sizes_that_change_in_a_later_datagram_are_not_believed) {
  receive(part(0));
  // With the sizes it claims this segment would lie far behind the buffer.
  expect_bad({.sequence = 5,
              .data = std::string(1000, 'x'),
              .segment = 1,
              .total_size = 1'000'000,
              .segment_size = 1000});
  receive(part(1));
  receive(part(2));
  run();
  EXPECT_EQ(messages(), (Words{"abcdefghij"}));
}

TEST_F(Reassembly, a_single_segment_larger_than_the_message_is_bad) {
  receive(control({.sequence = 5, .data = "abcd", .total_size = 3}));
  EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 0u);
}

TEST_F(Reassembly, the_number_of_segments_of_the_largest_message_does_not_overflow) {
  // Filled without memory for the buffer: nothing of 4 GiB is touched.
  faults::fail(Call::kCalloc, 2, ENOMEM);
  receive(control({.sequence = 5, .data = "x", .total_size = 0xFFFFFFFF}));
  ASSERT_NE(entry(), nullptr);
  EXPECT_EQ(entry()->segments, 3089905u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_process_ctrl_msg: malloc() 4294967295 bytes for CTRL_RECV_RX_PKT "
      "failed\n"));
}

// --- Without memory ---

TEST_F(Reassembly, without_memory_for_the_entry_the_sequence_is_taken_and_nothing_kept) {
  faults::fail(Call::kCalloc, 1, ENOMEM);
  receive(part(0));
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_ctrl_msg: malloc() " +
                             std::to_string(sizeof(CTRL_RECV_RX_MSG)) +
                             " bytes for CTRL_RECV_RX_MSG failed\n"));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 5u);
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 0u);
}

TEST_F(Reassembly, without_memory_for_buffer_or_bitmap_the_segment_may_come_again) {
  struct Case {
    unsigned nth;
    const char* words;
  };
  for (const Case& at : {Case{2, "malloc() 10 bytes for CTRL_RECV_RX_PKT failed\n"},
                         Case{3, "malloc() 1 bytes for CTRL_RECV_RX_BITMAP failed\n"}}) {
    reset_library();
    attach(2);
    set_multicast_point(4);
    messages().clear();
    faults::fail(Call::kCalloc, at.nth, ENOMEM);
    receive(part(0));
    EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_ctrl_recv_process_ctrl_msg: ") + at.words));
    EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 0u);
    ASSERT_NE(entry(), nullptr);
    EXPECT_EQ(entry()->segments_received, 0u);
    for (const uint32_t segment : {0u, 1u, 2u}) receive(part(segment, true));
    run();
    EXPECT_EQ(messages(), (Words{"abcdefghij"}));
  }
}

TEST_F(Reassembly, a_failed_acknowledgement_does_not_keep_the_message) {
  faults::fail(Call::kSendto, 1, ENETUNREACH);
  receive(control({.sequence = 5, .data = "x"}));
  run();
  EXPECT_EQ(messages(), (Words{"x"}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
}

}  // namespace
