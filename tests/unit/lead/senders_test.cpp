// Whose name a datagram may bear.
#include <gtest/gtest.h>

#include "forged.h"
#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;

constexpr uint32_t kStranger = 0x0A0000FE;

constexpr uint32_t kVictim = 0x0B000001;

class Senders : public testing::Test {
 protected:
  void start(bool multi_homed) {
    lead::Settings settings = LeadCluster::default_settings();
    settings.multi_homed = multi_homed;
    cluster_ = std::make_unique<LeadCluster>(settings);
    cluster_->on_sent = [this](Channel, uint32_t to, std::span<const uint8_t>) { sent_[to]++; };
    cluster_->run_for(kSecond);
  }
  void say(const Bytes& bytes, uint32_t from, Channel channel = Channel::kControl) {
    cluster_->lead().on_datagram(channel, bytes, from, cluster_->now());
    cluster_->run_for(kSecond);
  }
  std::unique_ptr<LeadCluster> cluster_;
  std::map<uint32_t, size_t> sent_;  // datagrams, by destination
};

TEST_F(Senders, a_datagram_that_names_another_address_than_it_came_from_is_dropped) {
  start(false);
  say(message_of(kVictim, 7), kStranger);
  say(file_request(kVictim, "file"), kStranger, Channel::kData);
  EXPECT_EQ(sent_[kVictim], 0u);
  EXPECT_EQ(sent_[kStranger], 0u);
  EXPECT_EQ(cluster_->lead().node_counts().heard, 0u);
  EXPECT_EQ(cluster_->lead().counters().misaddressed, 2u);
}

TEST_F(Senders, of_a_host_with_several_addresses_is_known_by_the_one_that_it_names_when_told_so) {
  start(true);
  say(message_of(kVictim, 7), kStranger);
  EXPECT_EQ(sent_[kVictim], 1u);
  EXPECT_EQ(cluster_->lead().counters().misaddressed, 0u);
}

TEST_F(Senders, on_the_leads_own_host_may_have_any_address_of_it) {
  start(false);
  say(message_of(kVictim, 7), kLeadAddress);
  EXPECT_EQ(sent_[kVictim], 1u);
}

TEST_F(Senders, without_a_name_are_known_by_where_they_are) {
  start(false);
  say(message_of(0, 7), kStranger);
  EXPECT_EQ(sent_[kStranger], 1u);
}

TEST_F(Senders, of_pings_in_the_name_of_another_lead_are_not_heard) {
  start(false);
  pkgdist_ctrl_msg_hdr ping{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(ping, PKGDIST_CTRL_MSG_PING);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(ping, 1u);
  say(framed(ping), kStranger, Channel::kOverheard);
  EXPECT_EQ(cluster_->lead().counters().other_lead_heard, 0u);
  EXPECT_EQ(cluster_->lead().role(), lead::Role::kLeading);
  say(framed(ping), 1, Channel::kOverheard);
  EXPECT_EQ(cluster_->lead().counters().other_lead_heard, 1u);
}

}  // namespace
}  // namespace pkgdist::test
