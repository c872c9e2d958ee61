// Late messages of the lead: asked for again with growing patience, then given up.
#include <cstdio>

#include "ctrl_support.h"

using namespace support;

namespace {

class RxScan : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    attach(2);
    set_multicast_point(4);
    G_ctrl_uc_last_sequence = 4;
  }
  static void scan() { pkgdist_ctrl_recv_chk_timeout(); }
  static uint64_t timeout() { return G_ctrl_rto.segment_timeout; }
  // A message of three segments of 4 bytes, of which only the middle one came.
  static void receive_middle(uint32_t sequence, bool unicast = false) {
    receive(control({.sequence = sequence,
                     .data = "efgh",
                     .segment = 1,
                     .total_size = 10,
                     .segment_size = 4}),
            unicast);
    wire::take();
  }
  static void receive_with_gap(uint32_t sequence, bool unicast = false) {
    receive(control({.sequence = sequence}), unicast);
    wire::take();
  }
};

TEST_F(RxScan, a_partial_message_is_asked_for_by_its_missing_segments) {
  receive_middle(5);
  clock::advance(timeout() - 1);
  scan();
  EXPECT_TRUE(answers().empty());
  clock::advance(1);
  scan();
  EXPECT_EQ(answers(), (Words{"MC NACK 5 segment 0 point 4", "MC NACK 5 segment 2 point 4"}));
  EXPECT_EQ(value(CrtCounter::kMcMsgTimeout), 1u);
  EXPECT_TRUE(logs::contains("CTRL MC Msg Segment Timeout - Sequence 5 - sending nack\n"));
  EXPECT_EQ(pkgdist::rx_msg_find(5, false)->nack_count, 1u);
  EXPECT_EQ(pkgdist::rx_msg_find(5, false)->stamp, clock::now());
}

TEST_F(RxScan, a_placeholder_is_asked_for_as_a_whole) {
  receive_with_gap(6);
  clock::advance(2 * timeout() - 1);
  scan();
  EXPECT_TRUE(answers().empty()) << "its first NACK went out with its creation";
  clock::advance(1);
  scan();
  EXPECT_EQ(answers(), (Words{"MC NACK 5 point 4"}));
  EXPECT_EQ(pkgdist::rx_msg_find(5, false)->nack_count, 2u);
}

// The sizes came with a first segment that found no memory for buffer or bitmap.
TEST_F(RxScan, a_message_without_memory_for_its_first_segment_is_asked_for_by_all_its_segments) {
  for (const unsigned buffer_or_bitmap : {2u, 3u}) {
    reset_library();
    set_multicast_point(4);
    faults::fail(Call::kCalloc, buffer_or_bitmap, ENOMEM);
    receive_middle(5);
    ASSERT_EQ(pkgdist::rx_msg_find(5, false)->segments, 3u);
    clock::advance(timeout());
    scan();
    EXPECT_EQ(answers(), (Words{"MC NACK 5 segment 0 point 4", "MC NACK 5 segment 1 point 4",
                                "MC NACK 5 segment 2 point 4"}));
  }
}

// --- Large messages ---

class LargeRxScan : public RxScan {
 protected:
  // Segments of one byte; the entry begins with segment 1.
  static void receive_one_of(uint32_t sequence, uint32_t segments) {
    receive(control({.sequence = sequence,
                     .data = "x",
                     .segment = 1,
                     .total_size = segments,
                     .segment_size = 1}));
    wire::take();
  }
  static void receive_more(uint32_t sequence, uint32_t segments, uint32_t segment) {
    receive(control({.sequence = sequence,
                     .data = "x",
                     .segment = segment,
                     .total_size = segments,
                     .segment_size = 1,
                     .rxmt = true}));
    wire::take();
  }
  static void next_scan() {
    clock::advance(G_ctrl_rto.scan_interval);
    scan();
  }
  static CTRL_RECV_RX_MSG* entry(uint32_t sequence) {
    return pkgdist::rx_msg_find(sequence, false);
  }
};

TEST_F(LargeRxScan, a_scan_asks_for_at_most_4096_segments_and_the_next_goes_on_there) {
  receive_one_of(5, 10'000);
  clock::advance(timeout());
  scan();
  Words asked = answers();
  ASSERT_EQ(asked.size(), 4096u);
  EXPECT_EQ(asked.front(), "MC NACK 5 segment 0 point 4");
  EXPECT_EQ(asked.back(), "MC NACK 5 segment 4096 point 4") << "1 is there";
  EXPECT_EQ(entry(5)->nack_count, 0u) << "the cycle is not through";
  receive_more(5, 10'000, 0);
  next_scan();
  asked = answers();
  ASSERT_EQ(asked.size(), 4096u);
  EXPECT_EQ(asked.front(), "MC NACK 5 segment 4097 point 4");
  EXPECT_EQ(entry(5)->nack_count, 0u);
  receive_more(5, 10'000, 4097);
  next_scan();
  asked = answers();
  ASSERT_EQ(asked.size(), 10'000u - 8193u);
  EXPECT_EQ(asked.back(), "MC NACK 5 segment 9999 point 4");
  EXPECT_EQ(entry(5)->nack_count, 1u) << "once when it is through";
  next_scan();
  EXPECT_TRUE(answers().empty()) << "the next cycle is late only after two time-outs";
}

TEST_F(LargeRxScan, a_message_that_comes_part_by_part_is_never_given_up) {
  constexpr uint32_t kSegments = 30'000;
  receive_one_of(5, kSegments);
  clock::advance(timeout());
  for (uint32_t part = 0; part < 20 && entry(5) != nullptr; ++part) {
    scan();
    for (const std::string& word : answers()) {
      uint32_t segment = 0;
      ASSERT_EQ(std::sscanf(word.c_str(), "MC NACK 5 segment %u", &segment), 1) << word;
      receive_more(5, kSegments, segment);
    }
    clock::advance(G_ctrl_rto.scan_interval);
  }
  run();
  EXPECT_EQ(messages().size(), 1u);
  EXPECT_EQ(value(CrtCounter::kMcMsgMaxRetry), 0u);
}

TEST_F(LargeRxScan, a_size_that_nobody_sends_draws_a_limited_number_of_requests) {
  receive_one_of(5, 0xFFFFFF00);
  clock::advance(timeout());
  size_t asked = 0;
  for (int i = 0; i < 100 && entry(5) != nullptr; ++i) {
    scan();
    asked += answers().size();
    clock::advance(G_ctrl_rto.scan_interval);
  }
  EXPECT_EQ(entry(5), nullptr);
  EXPECT_EQ(asked, 6u * 4096u);
}

// --- Requests of this node ---

TEST_F(LargeRxScan, no_more_than_4096_requests_leave_in_a_tenth_of_a_second) {
  receive_one_of(5, 3'000);
  receive_one_of(6, 3'000);
  clock::advance(timeout());
  scan();
  EXPECT_EQ(answers().size(), 4096u);
  EXPECT_EQ(entry(6)->nack_count, 0u);
  clock::advance(100'000'000 - 1);
  scan();
  EXPECT_TRUE(answers().empty());
  clock::advance(1);
  scan();
  EXPECT_EQ(answers().size(), 5'998u - 4096u) << "the rest";
  EXPECT_EQ(entry(5)->nack_count, 1u);
  EXPECT_EQ(entry(6)->nack_count, 1u);
}

TEST_F(LargeRxScan, a_gap_of_4096_messages_is_asked_for_at_once) {
  receive(control({.sequence = 5 + 4096}));
  unsigned nacks = 0;
  for (const std::string& word : answers()) nacks += word.rfind("MC NACK", 0) == 0 ? 1 : 0;
  EXPECT_EQ(nacks, 4096u);
}

TEST_F(LargeRxScan, of_a_wider_gap_the_rest_is_asked_for_by_the_next_scans) {
  receive(ping(4 + 5'000));
  unsigned nacks = 0;
  for (const std::string& word : answers()) nacks += word.rfind("MC NACK", 0) == 0 ? 1 : 0;
  EXPECT_EQ(nacks, 4096u);
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 5'000u);
  EXPECT_EQ(entry(4 + 5'000)->nack_count, 0u);
  clock::advance(timeout());
  scan();
  const Words rest = answers();
  ASSERT_EQ(rest.size(), 5'000u - 4096u);
  EXPECT_EQ(rest.back(), "MC NACK 5004 point 4");
  EXPECT_EQ(entry(4 + 5'000)->nack_count, 1u);
}

TEST_F(RxScan, unicast_messages_are_asked_for_on_their_stream) {
  receive_with_gap(6, true);
  receive_middle(7, true);
  clock::advance(2 * timeout());
  scan();
  EXPECT_EQ(answers(), (Words{"UC NACK 5", "UC NACK 7 segment 0", "UC NACK 7 segment 2"}));
  EXPECT_EQ(value(CrtCounter::kUcMsgTimeout), 2u);
  EXPECT_EQ(value(CrtCounter::kMcMsgTimeout), 0u);
  EXPECT_TRUE(logs::contains("CTRL UC Msg Segment Timeout - Sequence 5 - sending nack\n"));
}

TEST_F(RxScan, patience_grows_by_one_time_out_per_cycle_and_ends_at_the_limit) {
  receive_middle(5);
  for (uint32_t cycle = 1; cycle <= 5; ++cycle) {
    clock::advance(cycle * timeout() - 1);
    scan();
    EXPECT_TRUE(answers().empty()) << "cycle " << cycle;
    clock::advance(1);
    scan();
    EXPECT_EQ(answers().size(), 2u) << "cycle " << cycle;
  }
  clock::advance(6 * timeout() - 1);
  scan();
  EXPECT_NE(pkgdist::rx_msg_find(5, false), nullptr);
  clock::advance(1);
  scan();
  EXPECT_EQ(pkgdist::rx_msg_find(5, false), nullptr);
  EXPECT_TRUE(answers().empty());
  EXPECT_TRUE(logs::contains("CTRL MC Nack Max Reached - Sequence 5 - removing\n"));
  EXPECT_EQ(value(CrtCounter::kMcMsgMaxRetry), 1u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 1u);
  EXPECT_EQ(value(CrtCounter::kMcMsgTimeout), 5u);
}

TEST_F(RxScan, a_given_up_unicast_message_is_counted_on_its_stream) {
  receive_middle(5, true);
  pkgdist::rx_msg_find(5, true)->nack_count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_TRUE(logs::contains("CTRL UC Nack Max Reached - Sequence 5 - removing\n"));
  EXPECT_EQ(value(CrtCounter::kUcMsgMaxRetry), 1u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteUcMsg), 1u);
}

TEST_F(RxScan, a_new_segment_restarts_the_wait_but_not_the_patience) {
  receive_middle(5);
  clock::advance(timeout());
  scan();
  clock::advance(timeout());
  receive(
      control({.sequence = 5, .data = "abcd", .total_size = 10, .segment_size = 4, .rxmt = true}));
  wire::take();
  clock::advance(2 * timeout() - 1);
  scan();
  EXPECT_TRUE(answers().empty());
  clock::advance(1);
  scan();
  EXPECT_EQ(answers(), (Words{"MC NACK 5 segment 2 point 4"}));
}

TEST_F(RxScan, giving_up_moves_the_acknowledgement_point_only_with_the_next_delivery) {
  receive_with_gap(6);
  pkgdist::rx_msg_find(5, false)->nack_count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 4u);
  receive(ping(6));
  EXPECT_EQ(answers(), (Words{"REPLY 4"})) << "also in replies to pings";
  receive(control({.sequence = 7}));
  EXPECT_EQ(answers(), (Words{"MC ACK 7 point 4"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 7u);
}

TEST_F(RxScan, several_entries_are_given_up_and_the_others_asked_for_in_one_scan) {
  receive_with_gap(9);  // 5 to 8 are missing
  pkgdist::rx_msg_find(5, false)->nack_count = 5;
  pkgdist::rx_msg_find(7, false)->nack_count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_EQ(answers(), (Words{"MC NACK 6 point 4", "MC NACK 8 point 4"}));
  EXPECT_EQ(value(CrtCounter::kMcMsgMaxRetry), 2u);
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 2u);
}

TEST_F(RxScan, a_limit_of_0_gives_up_without_asking) {
  G_ctrl_rto.max_retries = 0;
  receive_middle(5);
  clock::advance(timeout());
  scan();
  EXPECT_TRUE(answers().empty());
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
}

TEST_F(RxScan, an_entry_stamped_later_than_now_is_not_late) {
  receive_middle(5);
  pkgdist::rx_msg_find(5, false)->stamp = clock::now() + 10 * timeout();
  scan();
  EXPECT_TRUE(answers().empty());
}

TEST_F(RxScan, a_failed_nack_counts_as_a_cycle) {
  receive_middle(5);
  clock::advance(timeout());
  faults::fail_always(Call::kSendto, ENETUNREACH);
  scan();
  EXPECT_EQ(pkgdist::rx_msg_find(5, false)->nack_count, 1u);
  EXPECT_EQ(logs::count("ack sendto of"), 2u);
}

// --- Bits of an entry ---

TEST_F(RxScan, segment_bits_are_counted_once_and_never_out_of_range) {
  receive_middle(5);
  CTRL_RECV_RX_MSG& entry = *pkgdist::rx_msg_find(5, false);
  EXPECT_TRUE(pkgdist_ctrl_recv_is_segment_set(entry, 1));
  for (const uint32_t clear : {0u, 2u, 3u, 8u, 0xFFFFFFFFu})
    EXPECT_FALSE(pkgdist_ctrl_recv_is_segment_set(entry, clear));
  for (const uint32_t again_or_beyond : {1u, 3u, 0xFFFFFFFFu})
    pkgdist_ctrl_recv_set_segment(entry, again_or_beyond);
  EXPECT_EQ(entry.segments_received, 1u);
  EXPECT_FALSE(pkgdist_ctrl_recv_all_segments_set(entry));
  pkgdist_ctrl_recv_set_segment(entry, 0);
  pkgdist_ctrl_recv_set_segment(entry, 2);
  EXPECT_TRUE(pkgdist_ctrl_recv_all_segments_set(entry));
  EXPECT_EQ(entry.bitmap[0], 7);
}

}  // namespace
