// Sequences of the lead's control messages: in order, ahead, old, and at the ends of the range.
#include "ctrl_support.h"

using namespace support;

namespace {

constexpr uint32_t kMax = 0xFFFFFFFF;

class Sequencing : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    attach(2);
  }
  static uint32_t entries() { return G_ctrl_recv_rx_msg_db.count; }
  static bool waits_for(uint32_t sequence, bool unicast = false) {
    const CTRL_RECV_RX_MSG* entry = pkgdist::rx_msg_find(sequence, unicast);
    return entry != nullptr && !entry->filled && entry->nack_count == 1 &&
           entry->stamp == clock::now();
  }
};

// --- Multicast ---

TEST_F(Sequencing, messages_in_order_are_delivered_and_acknowledged_at_once) {
  set_multicast_point(4);
  receive(control({.sequence = 5, .data = "five"}));
  receive(control({.sequence = 6, .data = "six"}));
  run();
  EXPECT_EQ(messages(), (Words{"five", "six"}));
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4", "MC ACK 6 point 5"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 6u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 6u);
  EXPECT_EQ(value(CrsCounter::kRxAddMcMsg), 2u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 2u);
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 2u);
  EXPECT_EQ(entries(), 0u);
}

TEST_F(Sequencing, a_gap_makes_placeholders_and_asks_for_each) {
  set_multicast_point(5);
  receive(control({.sequence = 8, .data = "eight"}));
  EXPECT_TRUE(logs::contains("CTRL MC Out Of Sequence Msg Received - New Sequence 8 Last 5\n"));
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(value(CrsCounter::kRxOosAddMc), 2u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 8u);
  EXPECT_TRUE(waits_for(6));
  EXPECT_TRUE(waits_for(7));
  EXPECT_EQ(entries(), 2u);
  EXPECT_EQ(answers(), (Words{"MC NACK 6 point 5", "MC NACK 7 point 5", "MC ACK 8 point 5"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u) << "held by the gap";
  run();
  EXPECT_EQ(messages(), (Words{"eight"})) << "the gap does not hold the delivery";
}

TEST_F(Sequencing, filling_the_gap_advances_the_acknowledgement_point) {
  set_multicast_point(5);
  receive(control({.sequence = 8}));
  receive(control({.sequence = 7, .rxmt = true}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
  receive(control({.sequence = 6, .rxmt = true}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 8u);
  EXPECT_EQ(entries(), 0u);
  run();
  EXPECT_EQ(messages().size(), 3u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 3u);
}

TEST_F(Sequencing, a_gap_behind_a_gap_asks_only_for_what_is_not_waited_for) {
  set_multicast_point(5);
  pkgdist::rx_msg_add(7, false);  // left over
  receive(control({.sequence = 9}));
  EXPECT_EQ(answers(), (Words{"MC NACK 6 point 5", "MC NACK 8 point 5", "MC ACK 9 point 5"}));
  EXPECT_EQ(value(CrsCounter::kRxOosAddMc), 2u);
}

TEST_F(Sequencing, the_same_sequence_waiting_on_the_other_stream_does_not_count) {
  set_multicast_point(5);
  pkgdist::rx_msg_add(6, true);
  receive(control({.sequence = 7}));
  EXPECT_EQ(value(CrsCounter::kRxOosAddMc), 1u);
  EXPECT_TRUE(waits_for(6));
}

TEST_F(Sequencing, a_partial_message_holds_the_acknowledgement_point) {
  set_multicast_point(5);
  receive(control({.sequence = 6, .data = std::string(1390, 'a'), .total_size = 1400}));
  receive(control({.sequence = 7}));
  EXPECT_EQ(answers(), (Words{"MC ACK 7 point 5"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 7u);
}

TEST_F(Sequencing, what_waits_on_the_unicast_stream_does_not_hold_the_point) {
  set_multicast_point(5);
  G_ctrl_mc_last_sequence = 6;  // 6 was given up
  pkgdist::rx_msg_add(6, true);
  receive(control({.sequence = 7}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 7u);
}

// --- Old sequences ---

TEST_F(Sequencing, a_retransmission_of_something_done_is_dropped_without_an_answer) {
  set_multicast_point(9);
  receive(control({.sequence = 7, .rxmt = true}));
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 1u);
  EXPECT_TRUE(logs::contains("CTRL MC Rxmt Msg - Already Processed - Sequence 7 Last 9\n"));
  EXPECT_TRUE(answers().empty());
  EXPECT_EQ(entries(), 0u);
}

TEST_F(Sequencing, only_segment_0_of_a_done_retransmission_is_logged) {
  set_multicast_point(9);
  receive(control({.sequence = 7, .segment = 1, .total_size = 5000, .rxmt = true}));
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 1u);
  EXPECT_EQ(logs::count("Already Processed"), 0u);
}

TEST_F(Sequencing, an_old_sequence_without_the_mark_of_retransmission_is_new) {
  set_multicast_point(9);
  receive(control({.sequence = 7, .data = "again"}));
  run();
  EXPECT_EQ(messages(), (Words{"again"}));
  EXPECT_EQ(answers(), (Words{"MC ACK 7 point 9"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 9u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 9u);
}

TEST_F(Sequencing, a_mark_of_retransmission_that_did_not_travel_is_none) {
  set_multicast_point(9);
  {
    const CodecResidue residue;
    receive(control({.sequence = 7, .data = "again"}));
  }
  run();
  EXPECT_EQ(messages(), (Words{"again"}));
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 0u);
}

TEST_F(Sequencing, the_next_sequence_is_new_although_it_is_marked_as_retransmission) {
  set_multicast_point(9);
  receive(control({.sequence = 10, .data = "ten", .rxmt = true}));
  run();
  EXPECT_EQ(messages(), (Words{"ten"}));
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 0u);
}

TEST_F(Sequencing, a_retransmission_ahead_is_new_as_well) {
  set_multicast_point(9);
  receive(control({.sequence = 12, .data = "twelve", .rxmt = true}));
  run();
  EXPECT_EQ(messages(), (Words{"twelve"}));
}

// --- Unicast ---

TEST_F(Sequencing, the_first_unicast_message_sets_the_stream_wherever_it_starts) {
  receive(control({.sequence = 500, .data = "first"}), true);
  EXPECT_EQ(G_ctrl_uc_last_sequence, 500u);
  EXPECT_EQ(answers(), (Words{"UC ACK 500"}));
  EXPECT_EQ(value(CrtCounter::kUcOutOfSeqRecv), 0u);
  EXPECT_EQ(value(CrtCounter::kUcMsgRecv), 1u);
  EXPECT_EQ(value(CrsCounter::kRxAddUcMsg), 1u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteUcMsg), 1u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 0u) << "the streams are independent";
}

TEST_F(Sequencing, a_unicast_gap_asks_without_an_acknowledgement_point) {
  G_ctrl_uc_last_sequence = 5;
  receive(control({.sequence = 8}), true);
  EXPECT_TRUE(logs::contains("CTRL UC Out Of Sequence Msg Received - New Sequence 8 Last 5\n"));
  EXPECT_EQ(value(CrtCounter::kUcOutOfSeqRecv), 1u);
  EXPECT_EQ(value(CrsCounter::kRxOosAddUc), 2u);
  EXPECT_TRUE(waits_for(6, true));
  EXPECT_TRUE(waits_for(7, true));
  EXPECT_EQ(answers(), (Words{"UC NACK 6", "UC NACK 7", "UC ACK 8"}));
}

TEST_F(Sequencing, a_done_unicast_retransmission_is_acknowledged_again_for_segment_0) {
  G_ctrl_uc_last_sequence = 5;
  receive(control({.sequence = 5, .rxmt = true}), true);
  EXPECT_EQ(answers(), (Words{"UC ACK 5"}));
  EXPECT_EQ(value(CrtCounter::kUcDupDropRecv), 1u);
  EXPECT_TRUE(logs::contains("CTRL UC Rxmt Msg - Already Processed - Sequence 5 Last 5\n"));
  receive(control({.sequence = 5, .segment = 1, .total_size = 5000, .rxmt = true}), true);
  EXPECT_TRUE(answers().empty());
  EXPECT_EQ(value(CrtCounter::kUcDupDropRecv), 2u);
}

TEST_F(Sequencing, a_unicast_delivery_leaves_the_acknowledgement_point_alone) {
  G_ctrl_mc_last_sequence = 9;
  G_ctrl_mc_last_ack_sequence = 4;
  receive(control({.sequence = 1}), true);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 4u);
}

TEST_F(Sequencing, an_old_unicast_sequence_without_the_mark_of_retransmission_is_new) {
  G_ctrl_uc_last_sequence = 9;
  receive(control({.sequence = 7, .data = "again"}), true);
  run();
  EXPECT_EQ(messages(), (Words{"again"}));
  EXPECT_EQ(answers(), (Words{"UC ACK 7"}));
  EXPECT_EQ(G_ctrl_uc_last_sequence, 9u);
}

// A caller that hears of a message may rely on it: the lead is told afterwards.
TEST_F(Sequencing, a_message_is_queued_for_its_client_before_it_is_acknowledged) {
  std::vector<const char*> order;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_ctrl_recv_qitc_db.mutex && wire::sent().empty()) order.push_back("queue");
  });
  receive(control({.sequence = 1}));
  faults::clear();
  EXPECT_EQ(order.size(), 2u) << "looked for and put, both before anything was sent";
  EXPECT_EQ(answers().size(), 1u);
}

// --- The ends of the range ---

TEST_F(Sequencing, the_largest_sequence_is_next_in_order) {
  set_multicast_point(kMax - 1);
  receive(control({.sequence = kMax}));
  EXPECT_EQ(answers(), (Words{"MC ACK 4294967295 point 4294967294"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, kMax);
}

TEST_F(Sequencing, a_gap_up_to_the_largest_sequence_ends) {
  set_multicast_point(kMax - 3);
  receive(control({.sequence = kMax}));
  EXPECT_EQ(answers(),
            (Words{"MC NACK 4294967293 point 4294967292", "MC NACK 4294967294 point 4294967292",
                   "MC ACK 4294967295 point 4294967292"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, kMax);
}

TEST_F(Sequencing, behind_the_largest_sequence_0_is_next_and_all_others_are_old) {
  set_multicast_point(kMax);
  receive(control({.sequence = 0, .data = "zero"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 0u);
  EXPECT_EQ(answers(), (Words{"MC ACK 0 point 4294967295"}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 0u);
  set_multicast_point(kMax);
  receive(control({.sequence = 1, .rxmt = true}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, kMax) << "there is no comparison across the wrap";
  EXPECT_EQ(value(CrtCounter::kMcDupDropRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 0u);
}

TEST_F(Sequencing, behind_the_largest_unicast_sequence_0_is_next_and_starts_the_stream_anew) {
  G_ctrl_uc_last_sequence = kMax;
  receive(control({.sequence = 0}), true);
  EXPECT_EQ(G_ctrl_uc_last_sequence, 0u);
  receive(control({.sequence = 500}), true);
  EXPECT_EQ(answers(), (Words{"UC ACK 0", "UC ACK 500"})) << "nothing is asked for";
}

TEST_F(Sequencing, the_largest_sequence_seen_with_an_open_gap_keeps_the_point) {
  set_multicast_point(kMax - 1);
  pkgdist::rx_msg_add(kMax, false);
  G_ctrl_mc_last_sequence = kMax;
  receive(control({.sequence = 7}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, kMax - 1);
}

// --- Without memory, and far ahead ---

TEST_F(Sequencing, without_memory_the_filling_stops_and_the_message_is_dropped_but_counted_for) {
  struct Case {
    bool unicast;
    const char* label;
  };
  for (const Case& at : {Case{false, "MC"}, Case{true, "UC"}}) {
    reset_library();
    attach(2);
    set_multicast_point(5);
    G_ctrl_uc_last_sequence = 5;
    // The second placeholder: the first one and its NACK's buffer come before.
    faults::fail(Call::kCalloc, 3, ENOMEM);
    receive(control({.sequence = 9}), at.unicast);
    EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_ctrl_msg: malloc() " +
                               std::to_string(sizeof(CTRL_RECV_RX_MSG)) +
                               " bytes for CTRL_RECV_RX_" + at.label + "_OOS_MSG failed\n"));
    EXPECT_EQ(entries(), 1u);
    EXPECT_EQ(at.unicast ? G_ctrl_uc_last_sequence : G_ctrl_mc_last_sequence, 9u);
    EXPECT_EQ(value(CrtCounter::kMcMsgRecv) + value(CrtCounter::kUcMsgRecv), 0u);
    EXPECT_EQ(wire::take().size(), 1u);
  }
}

TEST_F(Sequencing, a_forged_jump_fills_the_database_up_to_its_limit_and_no_further) {
  set_multicast_point(5);
  logs::records().clear();
  receive(control({.sequence = 0x80000000}));
  EXPECT_EQ(entries(), pkgdist::kRxMsgDbLimit);
  EXPECT_EQ(pkgdist::kRxMsgDbLimit, 65'536u);
  EXPECT_EQ(logs::count("bytes for CTRL_RECV_RX_MC_OOS_MSG failed"), 1u);
  EXPECT_EQ(value(CrsCounter::kRxOosAddMc), 65'536u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 0x80000000u);
  // At the limit a new message is dropped like one without memory.
  receive(control({.sequence = 0x80000001}));
  EXPECT_EQ(logs::count("bytes for CTRL_RECV_RX_MSG failed"), 1u);
  EXPECT_EQ(entries(), pkgdist::kRxMsgDbLimit);
}

}  // namespace
