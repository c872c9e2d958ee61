// Messages of the lead's owner to nodes, and of nodes to the lead.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::Audience;
using lead::Delivery;
using lead::kMillisecond;
using lead::kSecond;

constexpr size_t kSizes[] = {1, 1390, 1391, 2780, 200'000};

class Messages : public testing::Test {
 protected:
  void start(size_t hosts, double loss = 0) {
    cluster_.add_hosts(hosts);
    cluster_.set_loss(loss, loss, 11);
    cluster_.run_until([&] { return cluster_.seen().appeared == hosts; }, 20 * kSecond);
  }
  uint64_t received(size_t host) { return cluster_.node(host).counters().control_messages; }
  LeadCluster cluster_;
};

TEST_F(Messages, reach_every_node_once_and_say_so) {
  for (double loss : {0.0, 0.05, 0.2}) {
    LeadCluster cluster;
    cluster.add_hosts(3);
    cluster.set_loss(loss, loss, 11);
    ASSERT_TRUE(cluster.run_until([&] { return cluster.seen().appeared == 3; }, 60 * kSecond));
    for (size_t size : {1u, 1390u, 1391u, 2780u, 200'000u})
      EXPECT_NE(cluster.lead().send_message(2, Bytes(size), Audience::everyone(), cluster.now()),
                0u);
    EXPECT_TRUE(cluster.run_until([&] { return cluster.seen().acknowledged == 15; }, 20 * kSecond));
    cluster.run_for(5 * kSecond);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(cluster.node(i).counters().control_messages, 5u);
    EXPECT_EQ(cluster.seen().acknowledged, 15u);
  }
}

TEST_F(Messages, for_listed_nodes_reach_only_these) {
  start(3);
  cluster_.lead().send_message(3, Bytes(10), Audience::only({cluster_.host(1).address}),
                               cluster_.now());
  cluster_.run_for(kSecond);
  EXPECT_EQ(received(0), 0u);
  EXPECT_EQ(received(1), 1u);
  EXPECT_EQ(cluster_.seen().acknowledged, 1u);
}

TEST_F(Messages, for_another_card_class_reach_nobody_and_wait_for_nobody) {
  start(2);  // of class 7
  cluster_.lead().send_message(3, Bytes(10), Audience::of_class(5), cluster_.now());
  cluster_.run_for(kSecond);
  EXPECT_EQ(received(0), 0u);
  EXPECT_EQ(cluster_.seen().acknowledged, 0u);
}

TEST_F(Messages, with_arguments_out_of_range_are_refused) {
  start(1);
  lead::Lead& lead = cluster_.lead();
  const auto everyone = Audience::everyone();
  EXPECT_EQ(lead.send_message(1, Bytes(1), everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.send_message(6, Bytes(1), everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.send_message(2, {}, everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.send_message(2, Bytes(1), Audience::only({}), cluster_.now()), 0u);
  EXPECT_EQ(lead.cancel_transaction(0, everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.delete_files(7, {"a"}, everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.delete_files(1, {"../a"}, everyone, cluster_.now()), 0u);
  EXPECT_EQ(lead.delete_files(1, {}, everyone, cluster_.now()), 0u);
  EXPECT_NE(lead.delete_files(1, {"a"}, everyone, cluster_.now()), 0u);
  EXPECT_NE(lead.cancel_transaction(5, everyone, cluster_.now()), 0u);
}

// Every message of a node that it was told is delivered has arrived, once and in full, and nothing
// arrived that is not one of them.
void expect_true_statuses(LeadCluster& cluster, size_t host,
                          const std::map<uint32_t, Bytes>& sent_messages, size_t may_fail) {
  std::multiset<Bytes> arrived;
  const auto found = cluster.seen().messages.find(cluster.host(host).address);
  if (found != cluster.seen().messages.end())
    arrived.insert(found->second.begin(), found->second.end());
  size_t failed = 0;
  for (const auto& [sequence, bytes] : sent_messages) {
    const bool good =
        cluster.node(host).outcomes().at(sequence) == ModelNode::Outcome::kAcknowledged;
    failed += !good;
    EXPECT_LE(arrived.count(bytes), 1u);
    EXPECT_GE(arrived.count(bytes), good ? 1u : 0u);
    arrived.erase(bytes);
  }
  EXPECT_TRUE(arrived.empty());
  EXPECT_LE(failed, may_fail);
}

TEST_F(Messages, of_a_node_arrive_once_and_whole_and_their_status_is_true) {
  for (double loss : {0.0, 0.05, 0.2}) {
    LeadCluster cluster;
    cluster.add_hosts(1);
    cluster.set_loss(loss, loss, 17);
    ASSERT_TRUE(cluster.run_until([&] { return cluster.seen().appeared == 1; }, 60 * kSecond));
    std::map<uint32_t, Bytes> sent;
    uint64_t seed = 0;
    for (size_t size : kSizes) {
      Bytes bytes = pattern(size, ++seed);
      sent[cluster.node(0).send_message(bytes, cluster.now())] = bytes;
      cluster.run_until([&] { return cluster.node(0).pending_messages() == 0; }, 60 * kSecond);
    }
    EXPECT_EQ(cluster.node(0).pending_messages(), 0u);
    expect_true_statuses(cluster, 0, sent, loss < 0.1 ? 0 : 1);
  }
}

TEST_F(Messages, a_thousand_from_each_of_three_nodes_at_once_arrive) {
  for (double loss : {0.0, 0.05, 0.2}) {
    LeadCluster cluster;
    cluster.add_hosts(3);
    cluster.set_loss(loss, loss, 23);
    ASSERT_TRUE(cluster.run_until([&] { return cluster.seen().appeared == 3; }, 60 * kSecond));
    std::vector<std::map<uint32_t, Bytes>> sent(3);
    for (size_t i = 0; i < 3; ++i)
      for (uint64_t k = 0; k < 1000; ++k) {
        Bytes bytes = pattern(20 + k % 100, 10'000 * (i + 1) + k);
        sent[i][cluster.node(i).send_message(bytes, cluster.now())] = bytes;
      }
    ASSERT_TRUE(cluster.run_until(
        [&] {
          return cluster.node(0).pending_messages() + cluster.node(1).pending_messages() +
                     cluster.node(2).pending_messages() ==
                 0;
        },
        60 * kSecond));
    for (size_t i = 0; i < 3; ++i) expect_true_statuses(cluster, i, sent[i], loss < 0.1 ? 0 : 10);
  }
}

TEST_F(Messages, to_one_node_arrive_there_alone_once_and_whole) {
  for (double loss : {0.0, 0.05, 0.2}) {
    LeadCluster cluster;
    cluster.add_hosts(2);
    cluster.set_loss(loss, loss, 29);
    ASSERT_TRUE(cluster.run_until([&] { return cluster.seen().appeared == 2; }, 60 * kSecond));
    std::vector<Bytes> sent;
    for (size_t size : kSizes) {
      sent.push_back(pattern(size, size));
      EXPECT_NE(cluster.lead().send_message(2, sent.back(), Audience::one(cluster.host(1).address),
                                            cluster.now()),
                0u);
    }
    ASSERT_TRUE(
        cluster.run_until([&] { return cluster.seen().finished.size() == 5; }, 30 * kSecond));
    EXPECT_EQ(cluster.seen().acknowledged, 5u);
    EXPECT_EQ(cluster.node(1).messages(), sent);  // in this order, too
    EXPECT_TRUE(cluster.node(0).messages().empty());
  }
}

TEST_F(Messages, to_one_node_wait_until_it_follows_this_process) {
  start(1);
  lead::Settings again = LeadCluster::default_settings();
  again.pid = 999;
  cluster_.restart_lead(again);
  // The node is heard before it has heard the new process: a unicast message as the first thing
  // would set its position in the multicast stream.
  cluster_.host(0).down.with<DropRange>(0, 1);
  cluster_.node(0).send_message(Bytes(5), cluster_.now());
  size_t unicast = 0;
  cluster_.on_sent = [&](lead::Channel, uint32_t destination, std::span<const uint8_t> bytes) {
    const Message<pkgdist_ctrl_msg_hdr> header(parts_of(bytes).header);
    if (destination != lead::kGroup && header->msg_id == PKGDIST_CTRL_MSG_CTRL) ++unicast;
  };
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.seen().messages.empty(); }, kSecond));
  cluster_.lead().send_message(2, Bytes(7), Audience::one(cluster_.host(0).address),
                               cluster_.now());
  EXPECT_EQ(unicast, 0u);
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.seen().finished.empty(); }, 4 * kSecond));
  EXPECT_EQ(cluster_.seen().acknowledged, 1u);
  EXPECT_EQ(cluster_.node(0).messages().size(), 1u);
  EXPECT_GE(unicast, 1u);
}

TEST_F(Messages, a_node_that_does_not_acknowledge_in_time_is_told) {
  start(2);
  cluster_.host(1).down.with<RandomLoss>(1.0, 1);
  const lead::MessageId id =
      cluster_.lead().send_message(2, Bytes(3), Audience::everyone(), cluster_.now(), 3 * kSecond);
  cluster_.run_for(2900 * kMillisecond);
  EXPECT_FALSE(cluster_.lead().message_report(id).finished);
  cluster_.run_for(200 * kMillisecond);
  const lead::MessageReport report = cluster_.lead().message_report(id);
  ASSERT_TRUE(report.finished);
  EXPECT_FALSE(report.complete());
  EXPECT_EQ(report.nodes[0].delivery, Delivery::kAcknowledged);
  EXPECT_EQ(report.nodes[1].delivery, Delivery::kTimeout);
  EXPECT_EQ(cluster_.seen().missed.size(), 1u);
}

TEST_F(Messages, as_long_as_nodes_acknowledge_the_others_are_waited_for) {
  start(3);
  cluster_.cut(1, 0, true);
  cluster_.cut(2, 0, true);
  const lead::MessageId id =
      cluster_.lead().send_message(2, Bytes(3), Audience::everyone(), cluster_.now(), 3 * kSecond);
  cluster_.run_for(2 * kSecond);
  cluster_.cut(1, 0, false);
  cluster_.run_for(2 * kSecond);
  EXPECT_FALSE(cluster_.lead().message_report(id).finished);
  cluster_.cut(2, 0, false);
  cluster_.run_for(2 * kSecond);
  EXPECT_TRUE(cluster_.lead().message_report(id).complete());
}

TEST_F(Messages, to_one_node_are_given_up_before_its_acknowledgements_become_untrue) {
  start(1);
  cluster_.host(0).down.with<RandomLoss>(1.0, 1);
  const lead::MessageId id = cluster_.lead().send_message(
      2, Bytes(3), Audience::one(cluster_.host(0).address), cluster_.now(), 60 * kSecond);
  cluster_.run_for(5100 * kMillisecond);
  ASSERT_TRUE(cluster_.lead().message_report(id).finished);
  EXPECT_EQ(cluster_.lead().message_report(id).nodes[0].delivery, Delivery::kTimeout);
}

TEST_F(Messages, a_node_that_went_past_a_message_long_ago_is_not_said_to_have_it) {
  start(1);
  const lead::MessageId id = cluster_.lead().send_message(2, Bytes(5000), Audience::everyone(),
                                                          cluster_.now(), 60 * kSecond);
  const uint64_t echo = cluster_.host(0).node->last_ping_status();
  cluster_.stop_node(0);  // nobody answers but the test
  cluster_.run_for(6 * kSecond);
  pkgdist_ctrl_msg_hdr reply{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(reply, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(reply, cluster_.host(0).address);
  qidl::set<&pkgdist_ctrl_msg_hdr::pid>(reply, cluster_.host(0).pid);
  qidl::set<&pkgdist_ctrl_msg_hdr::status>(reply, echo);
  qidl::set<&pkgdist_ctrl_msg_hdr::sequence>(reply, 1);
  cluster_.lead().on_datagram(lead::Channel::kControl, framed(reply), cluster_.host(0).address,
                              cluster_.now());
  cluster_.run_for(kMillisecond);
  ASSERT_TRUE(cluster_.lead().message_report(id).finished);
  EXPECT_EQ(cluster_.lead().message_report(id).nodes[0].delivery, Delivery::kUncertain);
}

TEST_F(Messages, points_that_the_lead_never_sent_acknowledge_nothing) {
  start(1);
  const uint64_t echo = cluster_.host(0).node->last_ping_status();
  cluster_.host(0).down.with<RandomLoss>(1.0, 1);
  const lead::MessageId id =
      cluster_.lead().send_message(2, Bytes(3), Audience::everyone(), cluster_.now(), 60 * kSecond);
  for (uint32_t point : {1000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    pkgdist_ctrl_msg_hdr reply{};
    qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(reply, PKGDIST_CTRL_MSG_PING_REPLY);
    qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(reply, cluster_.host(0).address);
    qidl::set<&pkgdist_ctrl_msg_hdr::pid>(reply, cluster_.host(0).pid);
    qidl::set<&pkgdist_ctrl_msg_hdr::status>(reply, echo);
    qidl::set<&pkgdist_ctrl_msg_hdr::sequence>(reply, point);
    cluster_.lead().on_datagram(lead::Channel::kControl, framed(reply), cluster_.host(0).address,
                                cluster_.now());
  }
  cluster_.run_for(kMillisecond);
  EXPECT_FALSE(cluster_.lead().message_report(id).finished);
}

TEST_F(Messages, replies_to_the_pings_of_another_lead_make_no_node) {
  start(1);
  const uint64_t foreign = cluster_.lead().counters().foreign_datagrams;
  pkgdist_ctrl_msg_hdr reply{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(reply, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(reply, 0x0A0000FD);
  qidl::set<&pkgdist_ctrl_msg_hdr::pid>(reply, 77);
  qidl::set<&pkgdist_ctrl_msg_hdr::sequence>(reply, 1000);
  cluster_.lead().on_datagram(lead::Channel::kControl, framed(reply), 0x0A0000FD, cluster_.now());
  EXPECT_EQ(cluster_.lead().counters().foreign_datagrams, foreign + 1);
}

TEST_F(Messages, nodes_that_are_asked_for_by_address_and_not_heard_are_told_at_once) {
  start(1);
  const lead::MessageId id = cluster_.lead().send_message(
      2, Bytes(3), Audience::only({cluster_.host(0).address, 0x0A0000FE}), cluster_.now());
  cluster_.run_for(kSecond);
  const lead::MessageReport report = cluster_.lead().message_report(id);
  ASSERT_TRUE(report.finished);
  EXPECT_EQ(report.nodes[0].delivery, Delivery::kAcknowledged);
  EXPECT_EQ(report.nodes[1].delivery, Delivery::kNeverHeard);
  EXPECT_FALSE(report.complete());
}

TEST_F(Messages, for_nobody_are_not_complete) {
  const lead::MessageId id = [&] {
    cluster_.run_for(kSecond);
    return cluster_.lead().send_message(2, Bytes(3), Audience::everyone(), cluster_.now());
  }();
  cluster_.run_for(kSecond);
  EXPECT_TRUE(cluster_.lead().message_report(id).finished);
  EXPECT_FALSE(cluster_.lead().message_report(id).complete());
}

TEST_F(Messages, a_node_that_is_restarted_has_missed_them) {
  start(1);
  cluster_.host(0).down.with<DropRange>(0, 4);
  const lead::MessageId id =
      cluster_.lead().send_message(2, Bytes(3), Audience::everyone(), cluster_.now());
  cluster_.stop_node(0);
  cluster_.start_node(0);
  cluster_.run_for(2 * kSecond);
  EXPECT_EQ(cluster_.lead().message_report(id).nodes[0].delivery, Delivery::kRestarted);
}

TEST_F(Messages, a_list_of_more_nodes_than_a_message_holds_is_sent_in_parts) {
  start(60);
  std::vector<uint32_t> addresses;
  for (size_t i = 0; i < 60; ++i) addresses.push_back(cluster_.host(i).address);
  const lead::MessageId id =
      cluster_.lead().send_message(2, Bytes(3), Audience::only(addresses), cluster_.now());
  cluster_.run_for(kSecond);
  EXPECT_TRUE(cluster_.lead().message_report(id).complete());
  for (size_t i = 0; i < 60; ++i) EXPECT_EQ(cluster_.node(i).messages().size(), 1u);
}

// --- Cancel and delete ---

class Lists : public testing::Test {
 protected:
  void push_to_the_middle() {
    cluster_.store.add("a large", pattern(20'000'000, 1));
    cluster_.store.add("b later", pattern(5000, 2));
    cluster_.add_hosts(3);
    ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
    ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).counters().segments > 5000; },
                                   20 * kSecond));
  }
  bool push_ended() { return !cluster_.lead().push_running(); }
  LeadCluster cluster_;
};

TEST_F(Lists, a_cancelled_push_ends_everywhere_as_cancelled) {
  push_to_the_middle();
  const lead::MessageId id = cluster_.lead().cancel_transaction(
      cluster_.lead().push_transaction(), Audience::everyone(), cluster_.now());
  cluster_.run_for(kSecond);
  EXPECT_TRUE(cluster_.lead().message_report(id).complete());
  ASSERT_TRUE(push_ended());
  for (const lead::PushNodeReport& node : cluster_.lead().push_report().nodes) {
    EXPECT_TRUE(node.open.empty());
    ASSERT_EQ(node.failed.size(), 2u);
    EXPECT_EQ(node.failed.at(0), PKGDIST_STATUS_CANCELLED);
  }
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_FALSE(cluster_.node(i).receiving());
    EXPECT_TRUE(cluster_.host(i).disk.empty());
  }
}

TEST_F(Lists, a_cancellation_never_overtakes_the_list_that_it_cancels) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    LeadCluster cluster;
    for (int i = 0; i < 900; ++i)
      cluster.store.add("a rather long name, number " + std::to_string(i), pattern(3000, 1));
    cluster.add_hosts(3);
    cluster.set_loss(0.2, 0.2, seed);
    ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
    ASSERT_TRUE(
        cluster.run_until([&] { return cluster.lead().push_report().started; }, 60 * kSecond));
    cluster.run_for(kMillisecond);  // the list is under way
    cluster.lead().cancel_transaction(cluster.lead().push_transaction(), Audience::everyone(),
                                      cluster.now());
    cluster.run_until([&] { return !cluster.seen().finished.empty(); }, 20 * kSecond);
    ASSERT_EQ(cluster.seen().finished.size(), 1u);
    if (!cluster.seen().finished[0].complete()) continue;
    cluster.run_for(kSecond);
    for (size_t i = 0; i < 3; ++i) EXPECT_FALSE(cluster.node(i).receiving()) << seed;
  }
}

TEST_F(Lists, a_cancel_for_one_node_leaves_the_others_alone) {
  push_to_the_middle();
  cluster_.lead().cancel_transaction(cluster_.lead().push_transaction(),
                                     Audience::only({cluster_.host(0).address}), cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return push_ended(); }, 20 * kSecond));
  EXPECT_TRUE(cluster_.host(0).disk.empty());
  EXPECT_EQ(cluster_.host(1).disk, cluster_.store.files());
  EXPECT_EQ(cluster_.host(2).disk, cluster_.store.files());
  EXPECT_FALSE(cluster_.lead().push_report().complete());
}

TEST_F(Lists, a_deleted_file_ends_as_deleted_and_the_others_arrive) {
  push_to_the_middle();
  cluster_.lead().delete_files(1, {"a large"}, Audience::everyone(), cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return push_ended(); }, 20 * kSecond));
  for (const lead::PushNodeReport& node : cluster_.lead().push_report().nodes)
    EXPECT_EQ(node.failed, (std::map<uint32_t, uint64_t>{{0, PKGDIST_STATUS_DELETED}}));
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_FALSE(cluster_.host(i).disk.contains("1:a large"));
    EXPECT_TRUE(cluster_.host(i).disk.contains("1:b later"));
  }
}

// Nodes remember for a while how a file ended, and files that had not been announced then end
// without a number that would tell one push from another.
class EarlierPush : public testing::Test {
 protected:
  EarlierPush() : cluster_(slow()) {
    for (const std::string& name : names()) cluster_.store.add(name, pattern(200, name.size()));
    cluster_.add_hosts(2);
    EXPECT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
    cluster_.run_until([&] { return cluster_.node(0).receiving(); }, 20 * kSecond);
    EXPECT_LT(cluster_.lead().counters().infos_sent, names().size());
  }
  static std::vector<std::string> names() {
    std::vector<std::string> names;
    for (int i = 0; i < 400; ++i) names.push_back("file " + std::to_string(i));
    return names;
  }
  static lead::Settings slow() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 400'000;
    return settings;
  }
  void expect_the_next_push_to_succeed(uint64_t seed) {
    cluster_.set_loss(0.3, 0.3, seed);
    ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 200 * kSecond));
    EXPECT_TRUE(cluster_.lead().push_report().complete()) << seed;
    EXPECT_TRUE(cluster_.identical()) << seed;
  }
  LeadCluster cluster_;
};
class EarlierPushes : public EarlierPush, public testing::WithParamInterface<uint64_t> {};

TEST_P(EarlierPushes, that_was_cancelled_does_not_end_files_of_the_next) {
  cluster_.lead().cancel_transaction(cluster_.lead().push_transaction(), Audience::everyone(),
                                     cluster_.now());
  cluster_.run_until([&] { return !cluster_.seen().finished.empty(); }, 20 * kSecond);
  expect_the_next_push_to_succeed(GetParam());
}

TEST_P(EarlierPushes, with_files_that_were_deleted_does_not_end_them_in_the_next) {
  cluster_.lead().delete_files(1, names(), Audience::everyone(), cluster_.now());
  cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 60 * kSecond);
  expect_the_next_push_to_succeed(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Loss, EarlierPushes, testing::Range<uint64_t>(1, 11));

// It listens first when it goes on, and only then learns that it has been replaced.
TEST(SuspendedLead, gives_up_push_and_messages_when_another_has_taken_over) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.listen = lead::kDefaultListen;
  LeadCluster cluster(settings);
  settings.address = kLeadAddress + 100;
  settings.standby = true;
  const size_t standby = cluster.add_lead(settings);
  cluster.store.add("file", pattern(1000, 1));
  cluster.add_hosts(1);
  cluster.run_for(3 * kSecond);
  lead::PushRequest push = cluster.push_all();
  push.node_count = 2;  // waits for one more
  ASSERT_EQ(cluster.lead().start_push(push, cluster.now()), nullptr);
  cluster.stop_node(0);
  ASSERT_NE(cluster.lead().send_message(2, Bytes(1), Audience::everyone(), cluster.now()), 0u);

  cluster.suspend_lead(0, true);
  cluster.run_for(12 * kSecond);
  ASSERT_EQ(cluster.lead(standby).role(), lead::Role::kLeading);
  cluster.suspend_lead(0, false);
  cluster.run_for(5 * kSecond);
  EXPECT_EQ(cluster.lead().role(), lead::Role::kStandingBy);
  EXPECT_FALSE(cluster.lead().push_running());
  ASSERT_EQ(cluster.seen().finished.size(), 1u);
  EXPECT_EQ(cluster.seen().finished[0].nodes[0].delivery, Delivery::kSuperseded);
}

}  // namespace
}  // namespace pkgdist::test
