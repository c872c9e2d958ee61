// Who leads: the first one heard, the same address as long as it is heard, another after silence.
#include "ctrl_support.h"

using namespace support;

namespace {

constexpr Sender kOther = {.address = kOtherAddress, .pid = 200};

class LeadDetection : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    attach(2);
    logs::records().clear();
  }
  // As after start-up: nobody was heard yet.
  static void forget_lead() {
    G_lead_uc_addr = G_lead_pid = 0;
    pkgdist::set_lead_node_text("");
  }
  static void silence() { clock::advance(G_ctrl_rto.lead_silence_timeout); }
  static std::string lead_text() { return pkgdist::lead_node_text().text; }
  void register_lead_change() {
    ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop(), on_lead_change, this), 0u);
    run();
    lead_changes().clear();
  }
  // A file that waits for its information: a new lead is asked for it.
  static void add_wanted_file() {
    ASSERT_EQ(instcomm_pkgdist_get_file("wanted", 1, 1, 1, 5, nullptr, nullptr, nullptr), 0u);
    wire::take();
  }
  static unsigned file_requests() {
    unsigned requests = 0;
    for (const Sent& sent : wire::take())
      requests += sent.port == G_data_req_uc_port &&
                  data_header(sent.bytes).msg_id == PKGDIST_DATA_MSG_FILE_REQ;
    return requests;
  }
};

// --- The first lead ---

TEST_F(LeadDetection, the_first_sender_of_a_ping_becomes_the_lead) {
  forget_lead();
  receive(ping(9, {}, {.address = kOtherAddress, .pid = 55, .node_id = 0x010203}));
  EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
  EXPECT_EQ(G_lead_pid, 55u);
  EXPECT_EQ(G_ctrl_last_lead_msg, clock::now());
  EXPECT_EQ(G_lead_msg_nodeid, 0x010203u);
  ASSERT_NE(G_lead_nodeid, nullptr);
  EXPECT_EQ(G_lead_nodeid->first, 1u);
  EXPECT_EQ(G_lead_nodeid->second, 2u);
  EXPECT_EQ(G_lead_nodeid->third, 3u);
  EXPECT_EQ(lead_text(), "1/2/3");
  EXPECT_EQ(value(CrsCounter::kNewLead), 1u);
  EXPECT_EQ(value(CrsCounter::kNewPid), 0u);
  EXPECT_TRUE(logs::contains("New Lead Node ip '127.0.0.9' (1/2/3) pid '55' on ctrl mcast\n"));
}

TEST_F(LeadDetection, the_first_sender_of_a_control_message_becomes_the_lead_on_either_stream) {
  for (const bool unicast : {false, true}) {
    reset_library();
    forget_lead();
    receive(control({.sequence = 9, .from = kOther}), unicast);
    EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
    EXPECT_EQ(value(CrsCounter::kNewLead), 1u);
  }
}

TEST_F(LeadDetection, answers_to_this_nodes_messages_make_nobody_the_lead) {
  forget_lead();
  receive(lead_ack(1, kOtherAddress), true);
  receive(lead_nack(1, {}, kOtherAddress), true);
  EXPECT_EQ(G_lead_uc_addr, 0u);
  EXPECT_EQ(value(CrsCounter::kNewLead), 0u);
}

TEST_F(LeadDetection, a_lead_without_identity_is_unknown) {
  forget_lead();
  G_lead_msg_nodeid = 0x040506;
  receive(ping(9, {}, kOther));
  EXPECT_EQ(lead_text(), "unknown");
  EXPECT_EQ(G_lead_msg_nodeid, 0x040506u) << "left alone";
  EXPECT_TRUE(logs::contains("New Lead Node ip '127.0.0.9' (unknown) pid '200' on ctrl mcast\n"));
}

TEST_F(LeadDetection, an_identity_that_did_not_travel_is_none) {
  forget_lead();
  const CodecResidue residue;
  receive(ping(9, {}, kOther));
  EXPECT_EQ(lead_text(), "unknown");
}

TEST_F(LeadDetection, a_lead_without_process_keeps_the_process_known_before) {
  G_lead_uc_addr = 0;
  receive(ping(9, {}, {.address = kOtherAddress, .pid = 0}));
  EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
  EXPECT_EQ(G_lead_pid, 100u);
  EXPECT_EQ(value(CrsCounter::kNewPid), 0u);
}

TEST_F(LeadDetection, an_identity_that_cannot_be_made_is_logged) {
  forget_lead();
  faults::fail(Call::kNodeidCreate, 1, ENOMEM);
  receive(ping(9, {}, {.address = kOtherAddress, .pid = 1, .node_id = 7}));
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_hdr: ctrl nodeid create failed: 12\n"));
  EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
  EXPECT_EQ(G_lead_msg_nodeid, 7u);
  EXPECT_EQ(answers(), (Words{"REPLY 9"}));
}

TEST_F(LeadDetection, an_identity_without_text_is_logged) {
  forget_lead();
  faults::fail(Call::kNodeidToStr, 1, EINVAL);
  receive(ping(9, {}, {.address = kOtherAddress, .pid = 1, .node_id = 7}));
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_process_hdr: ctrl nodeid to str failed: 22\n"));
  EXPECT_NE(G_lead_nodeid, nullptr);
}

// --- Sequences of a new lead ---

TEST_F(LeadDetection, a_ping_starts_the_sequences_at_its_own_and_asks_for_nothing_before) {
  forget_lead();
  G_ctrl_uc_last_sequence = 77;
  receive(ping(100));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 100u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 100u);
  EXPECT_EQ(G_ctrl_uc_last_sequence, 0u);
  EXPECT_EQ(answers(), (Words{"REPLY 100"}));
}

TEST_F(LeadDetection, a_control_message_is_itself_next_in_order) {
  forget_lead();
  receive(control({.sequence = 100}));
  EXPECT_EQ(answers(), (Words{"MC ACK 100 point 99"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 100u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 100u);
  EXPECT_EQ(value(CrtCounter::kMcOutOfSeqRecv), 0u);
}

TEST_F(LeadDetection, a_first_sequence_of_0_is_next_in_order_too) {
  forget_lead();
  receive(control({.sequence = 0}));
  EXPECT_EQ(answers(), (Words{"MC ACK 0 point 4294967295"}));
  EXPECT_EQ(G_ctrl_mc_last_sequence, 0u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 0u);
}

TEST_F(LeadDetection, a_unicast_message_of_a_new_lead_sets_the_multicast_counters_as_well) {
  forget_lead();
  receive(control({.sequence = 50}), true);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 49u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 49u);
  EXPECT_EQ(G_ctrl_uc_last_sequence, 50u);
  EXPECT_EQ(answers(), (Words{"UC ACK 50"}));
}

TEST_F(LeadDetection, entries_of_the_old_lead_stay_and_age) {
  pkgdist::rx_msg_add(3, false);
  silence();
  receive(ping(100, {}, kOther));
  EXPECT_NE(pkgdist::rx_msg_find(3, false), nullptr);
}

// --- The known lead ---

TEST_F(LeadDetection, every_datagram_of_the_lead_restarts_the_clock_of_silence) {
  clock::advance(7 * kSecond);
  receive(ping(0));
  EXPECT_EQ(G_ctrl_last_lead_msg, clock::now());
  clock::advance(kSecond);
  receive(control({.sequence = 1}), true);
  EXPECT_EQ(G_ctrl_last_lead_msg, clock::now());
  EXPECT_EQ(value(CrsCounter::kNewLead), 0u);
}

TEST_F(LeadDetection, a_datagram_without_address_is_taken_and_restarts_nothing) {
  const uint64_t heard = G_ctrl_last_lead_msg;
  clock::advance(kSecond);
  receive(control({.sequence = 1, .from = {.address = 0}}));
  EXPECT_EQ(G_ctrl_last_lead_msg, heard);
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress);
  EXPECT_EQ(answers(), (Words{"MC ACK 1 point 0"}));
}

TEST_F(LeadDetection, an_identity_that_changes_is_rebuilt_without_a_new_lead) {
  receive(ping(0, {}, {.node_id = 0x0A0B0C}));
  EXPECT_EQ(G_lead_msg_nodeid, 0x0A0B0Cu);
  EXPECT_EQ(lead_text(), "10/11/12");
  const nodeid_handle_t first = G_lead_nodeid;
  receive(ping(0, {}, {.node_id = 0x0A0B0C}));
  EXPECT_EQ(G_lead_nodeid, first) << "the same identity is not rebuilt";
  receive(ping(0, {}, {.node_id = 0x0A0B0D}));
  EXPECT_NE(G_lead_nodeid, first);
  EXPECT_EQ(value(CrsCounter::kNewLead), 0u);
}

TEST_F(LeadDetection, a_message_without_identity_leaves_the_text_of_the_known_lead) {
  receive(ping(0, {}, {.node_id = 0x0A0B0C}));
  receive(ping(0));
  EXPECT_EQ(lead_text(), "10/11/12");
}

TEST_F(LeadDetection, only_the_low_three_bytes_of_an_identity_are_its_components) {
  receive(ping(0, {}, {.node_id = 0xFF010203}));
  EXPECT_EQ(G_lead_msg_nodeid, 0xFF010203u);
  EXPECT_EQ(lead_text(), "1/2/3");
}

// --- A new process of the lead ---

TEST_F(LeadDetection, a_new_process_starts_the_sequences_anew) {
  set_multicast_point(40);
  G_ctrl_uc_last_sequence = 7;
  receive(control({.sequence = 3, .from = {.pid = 101}}));
  EXPECT_EQ(G_lead_pid, 101u);
  EXPECT_EQ(value(CrsCounter::kNewPid), 1u);
  EXPECT_EQ(value(CrsCounter::kNewLead), 0u);
  EXPECT_TRUE(logs::contains("New Lead pid '101' on ctrl mcast for ip '127.0.0.1' (9/8/7)\n"));
  EXPECT_EQ(answers(), (Words{"MC ACK 3 point 2"}));
  EXPECT_EQ(G_ctrl_uc_last_sequence, 0u);
}

TEST_F(LeadDetection, a_datagram_without_process_is_no_new_process) {
  receive(ping(0, {}, {.pid = 0}));
  EXPECT_EQ(G_lead_pid, 100u);
  EXPECT_EQ(value(CrsCounter::kNewPid), 0u);
}

TEST_F(LeadDetection, a_new_lead_and_process_are_counted_as_a_new_lead_only) {
  silence();
  receive(ping(1, {}, kOther));
  EXPECT_EQ(value(CrsCounter::kNewLead), 1u);
  EXPECT_EQ(value(CrsCounter::kNewPid), 0u);
  EXPECT_EQ(G_lead_pid, 200u);
}

TEST_F(LeadDetection, a_new_process_without_address_is_one_of_the_known_lead) {
  set_multicast_point(40);
  receive(ping(7, {}, {.address = 0, .pid = 102}));
  EXPECT_EQ(G_lead_pid, 102u);
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress);
  EXPECT_TRUE(logs::contains("New Lead pid '102' on ctrl mcast for ip '127.0.0.1' (9/8/7)\n"));
  EXPECT_EQ(answers(), (Words{"REPLY 7"}));
}

// --- A second lead ---

TEST_F(LeadDetection, a_second_lead_is_dropped_while_the_first_is_heard) {
  clock::advance(G_ctrl_rto.lead_silence_timeout - 1);
  receive(ping(9, {}, kOther));
  receive(control({.sequence = 1, .from = kOther}));
  receive(control({.sequence = 1, .from = kOther}), true);
  EXPECT_EQ(value(CrtCounter::kMcLeadFailoverDrop), 3u);
  EXPECT_EQ(value(CrtCounter::kMcPingRecv), 0u);
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 0u);
  EXPECT_TRUE(answers().empty());
}

TEST_F(LeadDetection, nothing_that_a_second_lead_says_of_itself_is_kept) {
  receive(ping(9, {}, {.address = kOtherAddress, .pid = 200, .node_id = 0x010203}));
  EXPECT_EQ(G_lead_pid, 100u);
  EXPECT_EQ(G_lead_msg_nodeid, 0u);
  EXPECT_EQ(lead_text(), "9/8/7");
  EXPECT_EQ(value(CrsCounter::kNewPid), 0u);
}

TEST_F(LeadDetection, a_second_lead_does_not_restart_the_clock_of_silence) {
  const uint64_t heard = G_ctrl_last_lead_msg;
  clock::advance(kSecond);
  receive(ping(9, {}, kOther));
  EXPECT_EQ(G_ctrl_last_lead_msg, heard);
}

TEST_F(LeadDetection, after_the_silence_another_takes_over) {
  silence();
  receive(control({.sequence = 30, .from = kOther}));
  EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
  EXPECT_EQ(G_lead_pid, 200u);
  EXPECT_EQ(value(CrsCounter::kNewLead), 1u);
  EXPECT_EQ(value(CrtCounter::kMcLeadFailoverDrop), 0u);
  EXPECT_EQ(answers(), (Words{"MC ACK 30 point 29"})) << "answered to the new lead";
}

TEST_F(LeadDetection, the_old_lead_is_a_second_one_after_the_takeover) {
  silence();
  receive(ping(1, {}, kOther));
  receive(ping(1));
  EXPECT_EQ(G_lead_uc_addr, kOtherAddress);
  EXPECT_EQ(value(CrtCounter::kMcLeadFailoverDrop), 1u);
}

TEST_F(LeadDetection, the_1st_11th_and_21st_datagram_of_a_second_lead_are_logged) {
  // A takeover starts the count anew.
  silence();
  receive(ping(1, {}, kOther));
  for (int i = 0; i < 25; ++i) receive(ping(1, {}, {.pid = 66}));
  EXPECT_EQ(logs::count("Second Lead Node"), 3u);
  for (const char* number : {"1", "11", "21"})
    EXPECT_TRUE(logs::contains(std::string("Second Lead Node ip '127.0.0.1' pid '66' cnt ") +
                               number + " on ctrl mcast\n"));
  silence();
  receive(ping(1, {}, {.pid = 66}));
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress);
  receive(ping(1, {}, kOther));
  EXPECT_EQ(logs::count("cnt 1 on ctrl mcast"), 2u) << "counted from 1 again";
}

TEST_F(LeadDetection, a_last_message_stamped_later_than_now_counts_as_just_heard) {
  G_ctrl_last_lead_msg = clock::now() + kSecond;
  receive(ping(9, {}, kOther));
  EXPECT_EQ(G_lead_uc_addr, kLeadAddress);
}

// --- Who is told ---

TEST_F(LeadDetection, the_data_side_asks_a_new_lead_for_its_files) {
  add_wanted_file();
  silence();
  receive(ping(1, {}, kOther));
  EXPECT_EQ(file_requests(), 1u);
  receive(ping(1, {}, {.address = kOtherAddress, .pid = 201}));
  EXPECT_EQ(file_requests(), 1u) << "and a new process";
  receive(ping(1, {}, {.address = kOtherAddress, .pid = 201}));
  EXPECT_EQ(file_requests(), 0u);
}

TEST_F(LeadDetection, the_client_hears_of_first_lead_new_process_and_failover) {
  forget_lead();
  register_lead_change();
  receive(ping(1, {}, {.pid = 5}));
  receive(ping(1, {}, {.pid = 6}));
  silence();
  receive(ping(1, {}, kOther));
  run();
  EXPECT_EQ(lead_changes(),
            (std::vector<LeadChange>{
                {kLeadAddress, 5, false}, {kLeadAddress, 6, false}, {kOtherAddress, 200, true}}));
}

// Both see the new lead with its sequences: files are asked for first, then the client is told.
TEST_F(LeadDetection, the_data_side_hears_of_a_new_lead_before_the_client) {
  add_wanted_file();
  register_lead_change();
  silence();
  std::vector<const char*> order;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    const bool data_side = mutex == &G_file_recv_db.mutex;
    if (!data_side && mutex != &G_ctrl_recv_ctx_db.mutex) return;
    if (G_lead_uc_addr != kOtherAddress) return;  // it is about to be stored
    const char* const who = data_side ? "data side" : "client";
    if (order.empty() || order.back() != std::string(who)) order.push_back(who);
    EXPECT_EQ(G_ctrl_mc_last_sequence, 30u);
    EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 30u);
  });
  EXPECT_FALSE(pkgdist_ctrl_recv_process_hdr(
      ctrl_header(ping(30, {}, {.address = kOtherAddress, .pid = 200})), true));
  faults::clear();
  EXPECT_EQ(order, (std::vector<const char*>{"data side", "client"}));
}

// Another codec may leave anything in a field that is absent.
TEST_F(LeadDetection, a_node_id_that_is_absent_is_not_looked_at) {
  pkgdist_ctrl_msg_hdr header = ctrl_header(ping(30));
  header.node_id = 0x040506;
  EXPECT_FALSE(pkgdist_ctrl_recv_process_hdr(header, true));
  EXPECT_EQ(G_lead_msg_nodeid, 0u);
  silence();
  header = ctrl_header(ping(30, {}, kOther));
  header.node_id = 0x040506;
  EXPECT_FALSE(pkgdist_ctrl_recv_process_hdr(header, true));
  EXPECT_EQ(G_lead_msg_nodeid, 0u);
  EXPECT_STREQ(pkgdist::lead_node_text().text, "unknown");
}

TEST_F(LeadDetection, nobody_is_told_while_nobody_is_registered) {
  silence();
  receive(ping(1, {}, kOther));
  EXPECT_EQ(logs::count("Lead Change"), 0u);
  EXPECT_EQ(logs::count("ctrl lead chg ctx not found"), 0u);
}

}  // namespace
