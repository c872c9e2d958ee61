// What becomes of a message to the lead: acknowledged, asked for again, repeated, given up.
#include "ctrl_support.h"

using namespace support;

namespace {

class LeadMsg : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    logs::records().clear();
  }
  // A message of three segments with sequence 1; the wire is empty afterwards.
  void send_three() {
    const std::string data(3000, 'x');
    ASSERT_EQ(
        instcomm_pkgdist_ctrl_send_lead_msg(data.data(), data.size(), 1, loop(), on_status, this),
        0u);
    wire::take();
  }
  void send_one() {
    ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, loop(), on_status, this), 0u);
    wire::take();
  }
  static LeadMessage& entry() { return *G_ctrl_recv_msg_db.head; }
  static uint64_t timeout() { return G_ctrl_rto.lead_ack_timeout; }
  static void scan() { pkgdist_ctrl_recv_chk_timeout(); }
  const Words all_again_{"MSG 1 segment 0 size 1390/3000 rxmt",
                         "MSG 1 segment 1 size 1390/3000 rxmt",
                         "MSG 1 segment 2 size 220/3000 rxmt"};
};

TEST_F(LeadMsg, a_nack_whose_segment_did_not_travel_is_for_the_whole_message) {
  send_three();
  {
    const CodecResidue residue;
    receive(lead_nack(1), true);
  }
  EXPECT_EQ(answers(), all_again_);
  EXPECT_TRUE(logs::contains("CTRL UC NACK - Sequence 1 Segment 0\n"));
}

// --- ACK ---

TEST_F(LeadMsg, an_ack_of_the_lead_ends_the_message_with_success) {
  send_three();
  clock::advance(20'000);
  receive(lead_ack(1), true);
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty());
  EXPECT_EQ(value(CrtCounter::kUcAckRecv), 1u);
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 1u);
  EXPECT_EQ(samples(CrtHistogram::kUcAckTime), 1u);
  EXPECT_TRUE(logs::contains("CTRL UC ACK - Sequence 1\n"));
  run();
  EXPECT_EQ(statuses(), (std::vector<PkgdistStatus>{0}));
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
}

TEST_F(LeadMsg, the_time_to_the_ack_is_counted_from_the_first_send) {
  send_one();
  clock::advance(timeout());
  scan();
  clock::advance(600 * kMillisecond);
  receive(lead_ack(1), true);
  const auto* buckets = static_cast<const uint32_t*>(pkgdist_crt_ship_histogram_hdl);
  const auto row = static_cast<uint32_t>(CrtHistogram::kUcAckTime);
  EXPECT_EQ(buckets[8 * row + 6], 1u) << "1.1 s, and 0.6 s since the last one";
}

TEST_F(LeadMsg, an_ack_of_a_message_without_callback_ends_it_silently) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, nullptr, nullptr, nullptr), 0u);
  receive(lead_ack(1), true);
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty());
  EXPECT_EQ(logs::count("Status Invoke CB"), 0u);
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(LeadMsg, an_ack_of_another_node_is_ignored) {
  send_one();
  receive(lead_ack(1, kOtherAddress), true);
  EXPECT_FALSE(G_ctrl_recv_msg_db.empty());
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_process_msg_ack: Ctrl msg ack from unexpected node  127.0.0.9 "
      "expecting 127.0.0.1\n"));
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 0u);
  run();
  EXPECT_TRUE(statuses().empty());
  receive(lead_ack(1), true);
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty()) << "and leaves no lock held";
}

TEST_F(LeadMsg, an_ack_of_something_done_changes_nothing) {
  send_one();
  receive(lead_ack(7), true);
  EXPECT_TRUE(logs::contains("CTRL UC ACK Sequence 7 - msg not found - already done?\n"));
  EXPECT_EQ(value(CrtCounter::kUcAckRecv), 1u);
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 1u);
  receive(lead_nack(8, 2), true);
  EXPECT_TRUE(logs::contains("CTRL UC NACK Sequence 8 - msg not found - already done?\n"));
  EXPECT_TRUE(answers().empty());
}

TEST_F(LeadMsg, an_ack_ends_the_message_of_its_sequence_among_several) {
  for (int i = 0; i < 3; ++i) send_one();
  receive(lead_ack(2), true);
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 2u);
  EXPECT_EQ(G_ctrl_recv_msg_db.head->sequence, 1u);
  EXPECT_EQ(G_ctrl_recv_msg_db.tail->sequence, 3u);
}

// --- NACK ---

TEST_F(LeadMsg, a_nack_without_segment_repeats_the_whole_message) {
  send_three();
  clock::advance(5);
  receive(lead_nack(1), true);
  EXPECT_EQ(answers(), all_again_);
  EXPECT_EQ(value(CrtCounter::kUcNackRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kUcRxmtMsgSent), 3u);
  EXPECT_EQ(value(CrtCounter::kUcMsgSent), 6u);
  EXPECT_TRUE(logs::contains("CTRL UC NACK - Sequence 1 Segment 0\n"));
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(entry().retransmits[i].count, 1u);
    EXPECT_EQ(entry().retransmits[i].last, clock::now());
  }
  EXPECT_EQ(entry().last_send, clock::now());
}

TEST_F(LeadMsg, a_nack_with_segment_repeats_that_one_without_the_mark) {
  send_three();
  clock::advance(5);
  receive(lead_nack(1, 2), true);
  EXPECT_EQ(answers(), (Words{"MSG 1 segment 2 size 220/3000"}));
  EXPECT_EQ(value(CrtCounter::kUcRxmtMsgSent), 1u);
  EXPECT_TRUE(logs::contains("CTRL UC NACK - Sequence 1 Segment 2\n"));
  EXPECT_EQ(entry().retransmits[2].count, 1u);
  EXPECT_EQ(entry().retransmits[2].last, clock::now());
  EXPECT_EQ(entry().retransmits[0].count, 0u);
  EXPECT_EQ(entry().last_send, clock::now());
}

TEST_F(LeadMsg, the_mark_of_a_repetition_stays_with_the_segment) {
  send_three();
  receive(lead_nack(1), true);
  wire::take();
  receive(lead_nack(1, 2), true);
  EXPECT_EQ(answers(), (Words{all_again_[2]}));
}

TEST_F(LeadMsg, a_segment_0_that_is_asked_for_is_one_segment) {
  send_three();
  receive(lead_nack(1, 0), true);
  EXPECT_EQ(answers(), (Words{"MSG 1 segment 0 size 1390/3000"}));
}

TEST_F(LeadMsg, a_nack_of_a_segment_that_does_not_exist_is_ignored) {
  send_three();
  for (const uint32_t segment : {3u, 4u, 0xFFFFFFFFu}) receive(lead_nack(1, segment), true);
  EXPECT_TRUE(answers().empty());
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_ctrl_recv_process_msg_ack: ctrl msg nack invalid segment 3\n"));
  EXPECT_EQ(logs::count("ctrl msg nack invalid segment"), 3u);
  EXPECT_EQ(value(CrtCounter::kUcRxmtMsgSent), 0u);
}

TEST_F(LeadMsg, a_nack_is_honoured_whatever_address_it_comes_from) {
  send_three();
  receive(lead_nack(1, 1, kOtherAddress), true);
  receive(lead_nack(1, {}, kOtherAddress), true);
  EXPECT_EQ(answers().size(), 4u);
}

TEST_F(LeadMsg, a_segment_is_repeated_at_most_five_times) {
  send_three();
  for (int i = 0; i < 5; ++i) receive(lead_nack(1, 1), true);
  EXPECT_EQ(answers().size(), 5u);
  receive(lead_nack(1, 1), true);
  EXPECT_TRUE(answers().empty());
  EXPECT_TRUE(logs::contains("CTRL UC MSG Max Retransmit Reached - Sequence 1 Segment 1\n"));
  receive(lead_nack(1), true);
  EXPECT_EQ(answers(), (Words{all_again_[0], all_again_[2]})) << "the others still are";
  EXPECT_TRUE(logs::contains("CTRL Lead Msg Max Retransmit Reached - Sequence 1 Segment 1\n"));
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 1u) << "a NACK never gives up";
}

TEST_F(LeadMsg, a_repetition_that_fails_stops_there_and_keeps_the_message) {
  send_three();
  faults::fail(Call::kSendto, 2, EPERM);
  receive(lead_nack(1), true);
  EXPECT_EQ(answers(), (Words{all_again_[0]}));
  EXPECT_EQ(entry().retransmits[1].count, 1u);
  EXPECT_EQ(entry().retransmits[2].count, 0u);
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 1u);
}

// --- Time-outs ---

TEST_F(LeadMsg, silence_is_answered_with_growing_patience_and_then_given_up) {
  send_three();
  for (uint32_t n = 1; n <= 5; ++n) {
    clock::advance(n * timeout() - 1);
    scan();
    EXPECT_TRUE(answers().empty()) << n;
    clock::advance(1);
    scan();
    EXPECT_EQ(answers(), all_again_) << n;
    EXPECT_EQ(value(CrtCounter::kUcAckTimeout), n);
  }
  EXPECT_TRUE(logs::contains("CTRL Lead Ack Timeout - Sequence 1 - retransmit\n"));
  clock::advance(6 * timeout() - 1);
  scan();
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 1u);
  clock::advance(1);
  scan();
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty());
  EXPECT_TRUE(answers().empty()) << "each segment was sent six times in all";
  EXPECT_TRUE(
      logs::contains("CTRL Lead Ack Max Timeout Reached - Sequence 1 Status 40101278ca100bf1 - "
                     "invoking callback\n"));
  EXPECT_EQ(value(CrtCounter::kUcAckTimeout), 6u);
  EXPECT_EQ(value(CrtCounter::kUcAckTimeoutMax), 1u);
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 1u);
  EXPECT_EQ(value(CrtCounter::kUcRxmtMsgSent), 15u);
  run();
  EXPECT_EQ(statuses(), (std::vector<PkgdistStatus>{PKGDIST_ERR_TIMEOUT}));
}

TEST_F(LeadMsg, the_patience_follows_the_first_segment) {
  send_three();
  receive(lead_nack(1, 0), true);
  receive(lead_nack(1, 2), true);
  receive(lead_nack(1, 2), true);
  wire::take();
  clock::advance(2 * timeout() - 1);
  scan();
  EXPECT_TRUE(answers().empty());
  clock::advance(1);
  scan();
  EXPECT_EQ(answers().size(), 3u);
}

TEST_F(LeadMsg, it_goes_on_while_one_segment_may_still_be_repeated) {
  send_three();
  entry().retransmits[0].count = entry().retransmits[1].count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_EQ(answers(), (Words{all_again_[2]}));
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 1u);
  EXPECT_EQ(logs::count("CTRL Lead Msg Max Retransmit Reached - Sequence 1"), 2u);
}

TEST_F(LeadMsg, a_time_out_whose_repetition_fails_ends_the_message_with_that_status) {
  send_three();
  clock::advance(timeout());
  faults::fail(Call::kSendto, 3, ENETUNREACH);
  scan();
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty());
  EXPECT_EQ(logs::count("Max Timeout Reached - Sequence 1 Status 40101278ca100beb"), 1u);
  run();
  EXPECT_EQ(statuses(), (std::vector<PkgdistStatus>{PKGDIST_ERR_SEND}));
}

TEST_F(LeadMsg, several_messages_are_given_up_and_others_repeated_in_one_scan) {
  for (int i = 0; i < 4; ++i) send_one();
  for (LeadMessage* at = G_ctrl_recv_msg_db.head; at != nullptr; at = at->next)
    if (at->sequence % 2 == 1) at->retransmits[0].count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_EQ(answers(), (Words{"MSG 2 segment 0 size 1/1 rxmt", "MSG 4 segment 0 size 1/1 rxmt"}));
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 2u);
  run();
  EXPECT_EQ(statuses().size(), 2u);
}

TEST_F(LeadMsg, a_given_up_message_without_callback_is_only_removed) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, nullptr, nullptr, nullptr), 0u);
  entry().retransmits[0].count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_TRUE(G_ctrl_recv_msg_db.empty());
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(LeadMsg, a_send_stamped_later_than_now_is_not_late) {
  send_one();
  entry().last_send = clock::now() + 100 * timeout();
  scan();
  EXPECT_TRUE(answers().empty());
}

TEST_F(LeadMsg, the_status_is_reported_without_the_lock) {
  send_one();
  receive(lead_ack(1), true);
  ASSERT_EQ(pthread_mutex_trylock(&G_ctrl_recv_msg_db.mutex), 0);
  run();
  EXPECT_EQ(statuses().size(), 1u) << "delivered while the database is locked by somebody else";
  pthread_mutex_unlock(&G_ctrl_recv_msg_db.mutex);
}

TEST_F(LeadMsg, an_ack_and_a_give_up_are_queued_for_the_caller_without_the_lock) {
  send_one();
  send_one();
  int looked_for = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex != &G_ctrl_recv_qitc_db.mutex) return;
    ++looked_for;
    ASSERT_EQ(pthread_mutex_trylock(&G_ctrl_recv_msg_db.mutex), 0);
    pthread_mutex_unlock(&G_ctrl_recv_msg_db.mutex);
  });
  receive(lead_ack(1), true);
  EXPECT_EQ(looked_for, 2) << "found and put";
  entry().retransmits[0].count = 5;
  clock::advance(6 * timeout());
  scan();
  EXPECT_EQ(looked_for, 4);
}

// A caller whose status callback sends the next message from inside.
TEST_F(LeadMsg, a_status_callback_may_send_the_next_message) {
  struct Chain {
    levm_handle_t loop;
    int left;
    static void next(uint64_t, void* self) {
      auto& chain = *static_cast<Chain*>(self);
      if (chain.left-- > 0) {
        EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, chain.loop, next, self), 0u);
      }
    }
  } chain{loop(), 2};
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, loop(), Chain::next, &chain), 0u);
  for (uint32_t sequence = 1; sequence <= 3; ++sequence) {
    receive(lead_ack(sequence), true);
    run();
  }
  EXPECT_EQ(chain.left, -1);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

}  // namespace
