// The control channel end to end: pings, messages of the lead, messages to the lead, lead changes.
#include <algorithm>
#include <optional>
#include <thread>

#include "pkgdist/wire_ctrl.h"
#include "scripted_lead.h"

using support::Bytes;
using Header = pkgdist_ctrl_msg_hdr;

namespace {

class Control : public testing::Test {
 protected:
  void SetUp() override { lead_.start_node(directory_.path()); }

  support::TemporaryDirectory directory_;
  support::ScriptedLead lead_;
  support::Loop loop_;
};

struct Received {
  std::vector<Bytes> messages;
  std::thread::id thread;
};

void on_message(const void* bytes, uint64_t size, void* ctx) {
  auto& received = *static_cast<Received*>(ctx);
  const auto* start = static_cast<const uint8_t*>(bytes);
  received.messages.emplace_back(start, start + size);
  received.thread = std::this_thread::get_id();
}

void on_status(uint64_t status, void* ctx) {
  *static_cast<std::optional<uint64_t>*>(ctx) = status;
}

Bytes pattern(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + i / 251);
  return bytes;
}

TEST_F(Control, ping_is_answered_with_the_acknowledgement_point) {
  lead_.ping(7);
  const Header reply = lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY).header;
  EXPECT_EQ(reply.sequence, 7u);
  EXPECT_EQ(reply.node_ip, support::kNodeUnderTest);
  EXPECT_FALSE(qidl::has<&Header::status>(reply));
}

TEST_F(Control, message_in_two_segments_is_delivered_once_on_the_thread_of_the_loop) {
  Received received;
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_.get(), 3, on_message, &received), 0u);
  const Bytes whole = pattern(1500);
  lead_.message(1, 3, whole, 1000, 1);
  lead_.message(1, 3, whole, 1000, 0);
  const Header ack = lead_.expect_control(PKGDIST_CTRL_MSG_ACK).header;
  EXPECT_EQ(ack.sequence, 1u);
  lead_.message(1, 3, whole, 1000, 0, false, true);
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);  // the retransmission was read before it
  ASSERT_TRUE(loop_.run_until([&] { return !received.messages.empty(); }));
  EXPECT_EQ(levm_run_once(loop_.get(), 0), 0);
  ASSERT_EQ(received.messages.size(), 1u);
  EXPECT_EQ(received.messages[0], whole);
  EXPECT_EQ(received.thread, std::this_thread::get_id());
}

TEST_F(Control, missed_message_is_asked_for_and_delivered_when_it_comes_again) {
  Received received;
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_.get(), 2, on_message, &received), 0u);
  lead_.message(5, 2, {5}, 1000, 0);
  lead_.message(7, 2, {7}, 1000, 0);
  const Header nack = lead_.expect_control(PKGDIST_CTRL_MSG_NACK).header;
  EXPECT_EQ(nack.sequence, 6u);
  EXPECT_EQ(nack.ack_sequence, 5u);
  EXPECT_FALSE(qidl::has<&Header::segment>(nack));
  lead_.message(6, 2, {6}, 1000, 0, false, true);
  ASSERT_TRUE(loop_.run_until([&] { return received.messages.size() == 3; }));
  EXPECT_EQ(received.messages[2], Bytes{6});
}

TEST_F(Control, unicast_duplicate_is_acknowledged_again_and_not_delivered_again) {
  Received received;
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_.get(), 4, on_message, &received), 0u);
  lead_.message(9, 4, {1, 2}, 1000, 0, true);
  EXPECT_EQ(lead_.expect_control(PKGDIST_CTRL_MSG_ACK).header.unicast, 1);
  lead_.message(9, 4, {1, 2}, 1000, 0, true, true);
  const Header again = lead_.expect_control(PKGDIST_CTRL_MSG_ACK).header;
  EXPECT_EQ(again.sequence, 9u);
  EXPECT_EQ(again.unicast, 1);
  ASSERT_TRUE(loop_.run_until([&] { return !received.messages.empty(); }));
  EXPECT_EQ(levm_run_once(loop_.get(), 0), 0);
  EXPECT_EQ(received.messages.size(), 1u);
}

TEST_F(Control, message_to_the_lead_is_repeated_until_it_is_acknowledged) {
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  const Bytes whole = pattern(2000);
  std::optional<uint64_t> status;
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg(whole.data(), whole.size(), 2, loop_.get(),
                                                on_status, &status),
            0u);
  Bytes assembled(whole.size());
  for (int i = 0; i < 2; ++i) {
    const support::ControlArrival arrival = lead_.expect_control(PKGDIST_CTRL_MSG_CTRL);
    pkgdist::Owned<pkgdist_ctrl_msg> body;
    ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *body), 0);
    EXPECT_EQ(body->rxmt, 0u);
    std::copy_n(body->data, body->data_size,
                assembled.begin() + arrival.header.segment * body->segment_size);
  }
  EXPECT_EQ(assembled, whole);
  const support::ControlArrival again = lead_.expect_control(PKGDIST_CTRL_MSG_CTRL);
  pkgdist::Owned<pkgdist_ctrl_msg> body;
  ASSERT_EQ(pkgdist::decode(again.body.data(), again.body.size(), *body), 0);
  EXPECT_EQ(body->rxmt, 1u);
  lead_.acknowledge(again.header.sequence);
  ASSERT_TRUE(loop_.run_until([&] { return status.has_value(); }));
  EXPECT_EQ(*status, 0u);
}

TEST_F(Control, lead_is_reported_when_first_heard_and_when_its_process_changes) {
  struct Change {
    uint32_t lead, pid;
    bool failover;
  };
  std::vector<Change> changes;
  const auto on_change = [](uint32_t lead, uint32_t pid, bool failover, void* ctx) {
    static_cast<std::vector<Change>*>(ctx)->push_back({lead, pid, failover});
  };
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop_.get(), on_change, &changes), 0u);
  lead_.ping(1);
  ASSERT_TRUE(loop_.run_until([&] { return changes.size() == 1; }));
  EXPECT_EQ(changes[0].lead, support::kScriptedLead);
  EXPECT_EQ(changes[0].pid, 100u);
  EXPECT_FALSE(changes[0].failover);
  lead_.pid = 101;
  lead_.ping(50);
  ASSERT_TRUE(loop_.run_until([&] { return changes.size() == 2; }));
  EXPECT_EQ(changes[1].pid, 101u);
  EXPECT_FALSE(changes[1].failover);
}

TEST_F(Control, garbage_on_both_sockets_is_dropped_and_the_node_goes_on) {
  for (const Bytes& garbage : {Bytes{1}, Bytes{0, 0, 0, 0}, Bytes(4, 0xFF), Bytes(1472, 0xFF),
                               Bytes{0, 0, 0, 9, 1, 2, 3}, Bytes(600, 0)}) {
    lead_.raw_control(garbage, false);
    lead_.raw_control(garbage, true);
  }
  lead_.ping(3);
  EXPECT_EQ(lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY).header.sequence, 3u);
}

}  // namespace
