// Sending messages to the lead: arguments, segments, the first transmission, and what is left when
// something fails on the way.
#include <limits>

#include "ctrl_support.h"

using namespace support;

namespace {

class LeadSend : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    logs::records().clear();
  }
  PkgdistStatus send(const std::string& data, uint32_t msg_class = 1) {
    return instcomm_pkgdist_ctrl_send_lead_msg(data.data(), data.size(), msg_class, loop(),
                                               on_status, this);
  }
  static PkgdistStatus send_silently(const std::string& data) {
    return instcomm_pkgdist_ctrl_send_lead_msg(data.data(), data.size(), 1, nullptr, nullptr,
                                               nullptr);
  }
  static bool nothing_left() {
    return G_ctrl_recv_msg_db.empty() && G_ctrl_recv_ctx_db.empty() && G_ctrl_recv_qitc_db.empty();
  }
  static bool unlocked() {
    for (pthread_mutex_t* mutex :
         {&G_ctrl_recv_msg_db.mutex, &G_ctrl_recv_ctx_db.mutex, &G_ctrl_recv_qitc_db.mutex}) {
      if (pthread_mutex_trylock(mutex) != 0) return false;
      pthread_mutex_unlock(mutex);
    }
    return true;
  }
  static std::string error(const std::string& words) {
    return "ERR:instcomm_pkgdist_ctrl_send_lead_msg: " + words + "\n";
  }
};

// --- Arguments ---

TEST_F(LeadSend, refuses_missing_data) {
  EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg(nullptr, 5, 1, loop(), on_status, this),
            PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains(error("ctrl pkt passed is NULL")));
  EXPECT_TRUE(nothing_left());
}

TEST_F(LeadSend, refuses_sizes_that_make_no_message) {
  for (const size_t size : {size_t{0}, size_t{1} << 32, std::numeric_limits<size_t>::max()}) {
    EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", size, 1, loop(), on_status, this),
              PKGDIST_ERR_INVALID);
    EXPECT_TRUE(logs::contains(error("ctrl pkt size '" + std::to_string(size) + "' is invalid")));
  }
  EXPECT_TRUE(nothing_left());
}

TEST_F(LeadSend, takes_classes_1_to_5_and_no_other) {
  for (uint32_t msg_class = 1; msg_class <= 5; ++msg_class)
    EXPECT_EQ(send("x", msg_class), 0u) << msg_class;
  for (const uint32_t msg_class : {0u, 6u, 0xFFFFFFFFu})
    EXPECT_EQ(send("x", msg_class), PKGDIST_ERR_INVALID) << msg_class;
  EXPECT_TRUE(logs::contains(error("msg class '0' is invalid")));
  EXPECT_TRUE(logs::contains(error("msg class '6' is invalid")));
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 5u);
}

TEST_F(LeadSend, refuses_a_callback_without_a_loop) {
  EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, nullptr, on_status, this),
            PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains(error("levm cannot be NULL to specify cb_func")));
  EXPECT_TRUE(nothing_left());
}

TEST_F(LeadSend, data_size_class_and_loop_are_checked_in_this_order) {
  const auto refused = [this](const void* data, size_t size, uint32_t msg_class) {
    logs::records().clear();
    EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg(data, size, msg_class, nullptr, on_status, this),
              PKGDIST_ERR_INVALID);
    EXPECT_EQ(logs::records().size(), 1u);
    return logs::records()[0].text;
  };
  EXPECT_EQ(refused(nullptr, 0, 0), error("ctrl pkt passed is NULL"));
  EXPECT_EQ(refused("x", 0, 0), error("ctrl pkt size '0' is invalid"));
  EXPECT_EQ(refused("x", 1, 0), error("msg class '0' is invalid"));
  EXPECT_EQ(refused("x", 1, 1), error("levm cannot be NULL to specify cb_func"));
}

TEST_F(LeadSend, logs_the_lead_and_the_message) {
  ASSERT_EQ(send_silently("hello"), 0u);
  EXPECT_EQ(logs::count("CTRL Lead Send - Node 127.0.0.1 (9/8/7) Msg Class '1' Size '5' cb_func '"),
            1u);
}

// --- Segments ---

TEST_F(LeadSend, cuts_at_1390_bytes) {
  struct Case {
    size_t size;
    Words sent;
  };
  const Case cases[] = {
      {1, {"MSG 1 segment 0 size 1/1"}},
      {1389, {"MSG 1 segment 0 size 1389/1389"}},
      {1390, {"MSG 1 segment 0 size 1390/1390"}},
      {1391, {"MSG 1 segment 0 size 1390/1391", "MSG 1 segment 1 size 1/1391"}},
      {2780, {"MSG 1 segment 0 size 1390/2780", "MSG 1 segment 1 size 1390/2780"}},
      {2781,
       {"MSG 1 segment 0 size 1390/2781", "MSG 1 segment 1 size 1390/2781",
        "MSG 1 segment 2 size 1/2781"}}};
  for (const Case& at : cases) {
    reset_library();
    ASSERT_EQ(send_silently(std::string(at.size, 'x')), 0u);
    EXPECT_EQ(answers(), at.sent) << at.size;
    EXPECT_EQ(value(CrtCounter::kUcMsgSent), at.sent.size());
    EXPECT_EQ(samples(CrtHistogram::kUcSendTime), at.sent.size());
    EXPECT_EQ(logs::count("CTRL Lead Msg Add - Sequence 1 Segment Size 1390 Nnm " +
                          std::to_string(at.sent.size()) + "\n"),
              1u);
  }
}

TEST_F(LeadSend, each_segment_carries_its_part_of_the_bytes) {
  std::string data;
  for (int i = 0; i < 3000; ++i) data += static_cast<char>(i % 251);
  ASSERT_EQ(send_silently(data), 0u);
  std::string joined;
  for (const Sent& sent : wire::take()) {
    const Decoded<pkgdist_ctrl_msg> body(sent.bytes);
    EXPECT_EQ(body->msg_class, 1u);
    EXPECT_LE(sent.bytes.size(), 1472u);
    joined.append(reinterpret_cast<const char*>(body->data), body->data_size);
  }
  EXPECT_EQ(joined, data);
}

TEST_F(LeadSend, a_segments_bytes_are_those_of_the_wire_format) {
  ASSERT_EQ(send_silently("ab"), 0u);
  const Bytes bytes = wire::take()[0].bytes;
  const size_t body_at = 4 + 32;
  ASSERT_EQ(bytes[3], 32);
  EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.begin() + 8), (Bytes{0, 0, 0x01, 0x3F}));
  EXPECT_EQ(Bytes(bytes.begin() + body_at, bytes.end()),
            (Bytes{0, 0, 0, 0x2D, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0x05, 0x6E, 0, 0, 0, 2, 'a', 'b'}));
}

TEST_F(LeadSend, the_bytes_are_copied) {
  std::string data = "before";
  ASSERT_EQ(send_silently(data), 0u);
  data = "after.";
  wire::take();
  receive(lead_nack(1), true);
  const Bytes again = wire::take()[0].bytes;
  const Decoded<pkgdist_ctrl_msg> body(again);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(body->data), body->data_size), "before");
}

TEST_F(LeadSend, sequences_grow_by_one_and_outlive_the_lead) {
  ASSERT_EQ(send_silently("a"), 0u);
  ASSERT_EQ(send_silently("b"), 0u);
  clock::advance(G_ctrl_rto.lead_silence_timeout);
  receive(ping(1, {}, {.address = kOtherAddress}));
  wire::take();
  ASSERT_EQ(send_silently("c"), 0u);
  EXPECT_EQ(answers(), (Words{"MSG 3 segment 0 size 1/1"}));
  EXPECT_EQ(G_ctrl_uc_sequence, 4u);
}

TEST_F(LeadSend, an_entry_knows_its_message) {
  clock::advance(kSecond);
  ASSERT_EQ(send("hello", 4), 0u);
  const LeadMessage& entry = *G_ctrl_recv_msg_db.head;
  EXPECT_EQ(entry.id, 10u);
  EXPECT_EQ(entry.msg_class, 4u);
  EXPECT_TRUE(entry.has_callback);
  EXPECT_EQ(entry.sequence, 1u);
  EXPECT_EQ(entry.segment_count, 1u);
  EXPECT_EQ(entry.retransmits[0].count, 0u);
  EXPECT_EQ(entry.last_send, clock::now());
  EXPECT_EQ(entry.first_send, clock::now());
  EXPECT_EQ(value(CrsCounter::kUcAddMsg), 1u);
}

TEST_F(LeadSend, the_first_send_is_stamped_only_for_a_registered_histogram) {
  pkgdist_crt_ship_histogram_hdl = nullptr;
  ASSERT_EQ(send_silently("x"), 0u);
  EXPECT_EQ(G_ctrl_recv_msg_db.head->first_send, 0u);
}

TEST_F(LeadSend, identifiers_come_from_the_contexts_with_and_without_callback) {
  ASSERT_EQ(send_silently("x"), 0u);
  ASSERT_EQ(send("y"), 0u);
  ASSERT_EQ(send_silently("z"), 0u);
  EXPECT_EQ(G_ctrl_recv_msg_db.head->id, 10u);
  EXPECT_EQ(G_ctrl_recv_msg_db.head->next->id, 11u);
  EXPECT_EQ(G_ctrl_recv_msg_db.tail->id, 12u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 1u);
}

// --- Failures ---

TEST_F(LeadSend, each_allocation_that_fails_is_named_and_leaves_nothing) {
  struct Case {
    Call call;
    unsigned nth;
    std::string words;
  };
  // calloc: channel, context, entry, segments, retransmits. malloc: the data of each segment.
  const Case cases[] = {
      {Call::kCalloc, 1,
       "pkgdist_ctrl_recv_alloc_ctx: malloc() " + std::to_string(sizeof(ControlCallbackChannel)) +
           " bytes for CTRL_RECV_QITC_CL failed"},
      {Call::kCalloc, 2,
       "pkgdist_ctrl_recv_alloc_ctx: malloc() " + std::to_string(sizeof(ControlClientContext)) +
           " bytes for CTRL_RECV_CTX_CL failed"},
      {Call::kCalloc, 3,
       "pkgdist_ctrl_recv_msg_add: malloc() " + std::to_string(sizeof(LeadMessage)) +
           " bytes for CTRL_RECV_DB failed"},
      {Call::kCalloc, 4,
       "pkgdist_ctrl_recv_msg_add: malloc() " + std::to_string(2 * sizeof(pkgdist_ctrl_msg)) +
           " bytes for CTRL_RECV_MSG_ARRAY failed"},
      {Call::kCalloc, 5,
       "pkgdist_ctrl_recv_msg_add: malloc() " + std::to_string(2 * sizeof(RetransmitRecord)) +
           " bytes for CTRL_RECV_MSG_RXMT failed"},
      {Call::kMalloc, 1,
       "pkgdist_ctrl_recv_msg_add: malloc() 1390 bytes for CTRL_RECV_MSG_DATA failed"},
      {Call::kMalloc, 2,
       "pkgdist_ctrl_recv_msg_add: malloc() 10 bytes for CTRL_RECV_MSG_DATA failed"}};
  const std::string data(1400, 'x');
  for (const Case& at : cases) {
    reset_library();
    faults::fail(at.call, at.nth, ENOMEM);
    EXPECT_EQ(send(data), PKGDIST_ERR_NOMEM) << at.words;
    EXPECT_TRUE(logs::contains("ERR:" + at.words + "\n")) << at.words;
    EXPECT_TRUE(nothing_left()) << at.words;
    EXPECT_TRUE(unlocked());
    EXPECT_EQ(G_ctrl_uc_sequence, 1u) << "no sequence is spent";
    EXPECT_EQ(value(CrsCounter::kUcAddMsg), 0u);
    EXPECT_TRUE(answers().empty());
  }
}

TEST_F(LeadSend, without_memory_for_the_datagram_the_message_is_taken_out_again) {
  faults::fail(Call::kCalloc, 6, ENOMEM);
  EXPECT_EQ(send("x"), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_msg_send: malloc() 1472 bytes for RCTRL_MSG_PKT failed\n"));
  EXPECT_TRUE(nothing_left());
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 1u);
  EXPECT_EQ(G_ctrl_uc_sequence, 2u);
}

// Between the failure and the removal CTRL_RX gets the lock: for the scan, and for an answer.
TEST_F(LeadSend, a_message_whose_first_transmission_failed_is_nobody_elses) {
  const uint32_t sequence = G_ctrl_uc_sequence;
  unsigned locks = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex != &G_ctrl_recv_msg_db.mutex || ++locks != 2) return;
    wire::take();
    clock::advance(10 * G_ctrl_rto.lead_ack_timeout);
    pkgdist_ctrl_recv_chk_timeout();
    receive(lead_nack(sequence), true);
    receive(lead_ack(sequence), true);
  });
  faults::fail(Call::kSendto, 1, ENETUNREACH);
  EXPECT_EQ(send("data"), PKGDIST_ERR_SEND);
  faults::clear();
  ASSERT_GE(locks, 2u);
  run();
  EXPECT_TRUE(statuses().empty());
  EXPECT_TRUE(wire::sent().empty());
  EXPECT_TRUE(nothing_left());
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 1u);
  EXPECT_EQ(value(CrtCounter::kUcAckTimeout), 0u);
}

TEST_F(LeadSend, a_first_transmission_that_fails_returns_its_status_without_a_callback) {
  faults::fail(Call::kSendto, 2, ENETUNREACH);
  EXPECT_EQ(send(std::string(4000, 'x')), PKGDIST_ERR_SEND);
  EXPECT_EQ(answers(), (Words{"MSG 1 segment 0 size 1390/4000"})) << "the third is not tried";
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_msg_send: ctrl msg ucast sendto of 1446 bytes failed, rc=-1, "
      "errno=101(" +
      std::string(std::strerror(ENETUNREACH)) + ")\n"));
  EXPECT_TRUE(nothing_left());
  EXPECT_TRUE(unlocked());
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 1u);
  EXPECT_EQ(value(CrtCounter::kUcMsgSent), 1u);
  run();
  EXPECT_TRUE(statuses().empty());
}

TEST_F(LeadSend, a_channel_that_cannot_be_made_refuses_the_message) {
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(send("x"), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(nothing_left());
}

TEST_F(LeadSend, a_body_that_does_not_fit_the_datagram_is_an_encode_error) {
  const Bytes data(1500);
  pkgdist_ctrl_msg body{};
  body.data = data.data();
  body.data_size = data.size();
  qidl::mark<&pkgdist_ctrl_msg::data>(body);
  EXPECT_EQ(pkgdist_ctrl_recv_msg_send(body, 1, 0), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_msg_send: ctrl msg encode size '1544' exceeds alloc size '1472'\n"));
  body.presence = 0x80000000;
  EXPECT_EQ(pkgdist_ctrl_recv_msg_send(body, 1, 0), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(answers().empty());
}

TEST_F(LeadSend, an_unknown_message_is_not_found) {
  EXPECT_EQ(pkgdist_ctrl_recv_msg_id_send(99, false), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_msg_id_send: ctrl recv msg id 99 not found\n"));
  pkgdist_ctrl_recv_msg_remove(99);
  EXPECT_EQ(value(CrsCounter::kUcDeleteMsg), 0u);
}

}  // namespace
