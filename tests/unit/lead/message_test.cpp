// Messages of the lead's owner to nodes.
#include <gtest/gtest.h>

#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::Audience;
using lead::kSecond;

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

}  // namespace
}  // namespace pkgdist::test
