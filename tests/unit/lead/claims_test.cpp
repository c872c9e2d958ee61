// What a datagram may claim, in a node's name or a stranger's.
#include <gtest/gtest.h>

#include "forged.h"
#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;

constexpr uint32_t kStranger = 0x0A0000FE;

class Claims : public testing::Test {
 protected:
  Claims() {
    cluster_.on_sent = [this](Channel channel, uint32_t, std::span<const uint8_t> bytes) {
      const Message<pkgdist_ctrl_msg_hdr> header(parts_of(bytes).header);
      if (channel != Channel::kControl || !header.ok()) return;
      if (header->msg_id != PKGDIST_CTRL_MSG_PING) return;
      ping_status_ = header->status;
      highest_ = std::max(highest_, header->sequence);
    };
    cluster_.on_node_sent = [this](size_t, Channel, const Bytes& bytes) {
      const Message<pkgdist_ctrl_msg_hdr> header(parts_of(bytes).header);
      nacks_ += header.ok() && header->msg_id == PKGDIST_CTRL_MSG_NACK;
    };
    cluster_.add_hosts(2);
    cluster_.run_for(2 * kSecond);
  }
  // An answer to the latest ping, in the name of whoever lives at the address.
  void claim(uint32_t address, uint32_t pid, uint32_t point) {
    cluster_.lead().on_datagram(Channel::kControl, ping_reply(address, pid, point, ping_status_),
                                address, cluster_.now());
  }
  bool push_works() {
    cluster_.store.add("file", pattern(100'000, 1));
    return cluster_.run_push(cluster_.push_all(), 30 * kSecond) && cluster_.identical();
  }

  LeadCluster cluster_;
  uint64_t ping_status_ = 0;
  uint32_t highest_ = 0;  // sequence of a ping
  size_t nacks_ = 0;      // of all nodes
};

TEST_F(Claims, of_a_position_far_ahead_make_no_node_ask_for_anything) {
  for (const uint32_t point : {1u, 5000u, 2'000'000'000u, UINT32_MAX}) {
    for (int i = 0; i < 10; ++i) {
      claim(kStranger, 666, point);
      claim(cluster_.host(0).address, cluster_.host(0).pid, point);
      cluster_.run_for(100 * kMillisecond);
    }
  }
  cluster_.run_for(5 * kSecond);
  EXPECT_EQ(highest_, 0u);
  EXPECT_EQ(nacks_, 0u);
  EXPECT_TRUE(push_works());
}

TEST_F(Claims, a_lead_with_the_process_number_of_its_predecessor_takes_another) {
  for (int i = 0; i < 5; ++i)
    cluster_.lead().send_message(2, Bytes(1), lead::Audience::everyone(), cluster_.now());
  cluster_.run_for(kSecond);
  ASSERT_EQ(highest_, 5u);
  cluster_.stop_lead();
  cluster_.run_for(kSecond);
  lead::Settings same = LeadCluster::default_settings();
  same.seed = 2;
  cluster_.restart_lead(same);
  cluster_.run_for(3 * kSecond);
  cluster_.set_loss(0.3, 0.3, 1);
  EXPECT_TRUE(push_works());
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(cluster_.node(i).lead(), kLeadAddress);
    EXPECT_NE(cluster_.node(i).lead_pid(), kLeadPid);
  }
}

TEST_F(Claims, of_another_process_do_not_shut_the_nodes_process_out) {
  const uint32_t address = cluster_.host(0).address;
  const size_t restarted = cluster_.seen().restarted;
  for (int i = 0; i < 20; ++i) {
    claim(address, 666, 0);
    cluster_.lead().on_datagram(Channel::kControl, message_of(address, 667), address,
                                cluster_.now());
    cluster_.run_for(250 * kMillisecond);
  }
  EXPECT_EQ(cluster_.seen().restarted, restarted);
  cluster_.node(0).send_message(Bytes(10, 'm'), cluster_.now());
  cluster_.run_for(200 * kMillisecond);
  EXPECT_EQ(cluster_.seen().messages.at(address).back(), Bytes(10, 'm'));
  EXPECT_TRUE(push_works());
}

TEST_F(Claims, a_message_of_the_nodes_next_process_is_taken_at_once) {
  const uint32_t address = cluster_.host(0).address;
  cluster_.stop_node(0);
  cluster_.lead().on_datagram(Channel::kControl, message_of(address, 667), address, cluster_.now());
  EXPECT_EQ(cluster_.seen().messages.count(address), 1u);
  EXPECT_EQ(cluster_.seen().restarted, 0u);
}

TEST_F(Claims, of_an_old_ping_make_no_node) {
  const uint64_t old = ping_status_;
  cluster_.run_for(11 * kSecond);
  ping_status_ = old;
  const size_t heard = cluster_.lead().node_counts().heard;
  claim(kStranger, 666, 0);
  EXPECT_EQ(cluster_.lead().node_counts().heard, heard);
}

TEST_F(Claims, of_thousands_of_nodes_leave_room_for_others_later_and_for_named_ones_at_once) {
  const auto crowd = [&](uint32_t base) {
    for (uint32_t i = 0; i < 10'000; ++i) claim(base + i, 666, 0);
  };
  crowd(0x0B000000);
  const size_t late = cluster_.add_host();
  cluster_.run_for(2 * kSecond);
  EXPECT_EQ(cluster_.lead().node_counts().heard, 4096u);
  // A push that names the node finds it.
  cluster_.store.add("file", pattern(1000, 1));
  lead::PushRequest request = cluster_.push_all();
  request.nodes = {cluster_.host(late).address};
  ASSERT_TRUE(cluster_.run_push(request, 10 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  // Who is not named waits until the made up ones have been silent for the node time-out.
  const size_t later = cluster_.add_host();
  cluster_.run_for(45 * kSecond);
  cluster_.node(later).send_message(Bytes(10, 'm'), cluster_.now());
  cluster_.run_for(2 * kSecond);
  EXPECT_EQ(cluster_.seen().messages.count(cluster_.host(later).address), 1u);
}

}  // namespace
}  // namespace pkgdist::test
