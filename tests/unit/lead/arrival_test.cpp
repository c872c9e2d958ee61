// What the owner of a push learns of what has arrived on its nodes.
#include <gtest/gtest.h>

#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;
using lead::PushNodeReport;
using lead::PushReport;

constexpr size_t kFileBytes = 10'000'000;

class Arrival : public testing::Test {
 protected:
  Arrival() : cluster(settings()) { cluster.store.add("file", pattern(kFileBytes, 1)); }

  static lead::Settings settings() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 20'000'000;  // 4 s for the file
    return settings;
  }
  void begin(size_t nodes) {
    cluster.add_hosts(nodes);
    ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
    ASSERT_TRUE(cluster.run_until([&] { return arrived(0) > 0; }, 10 * kSecond));
  }
  PushNodeReport report(size_t host) {
    for (const PushNodeReport& node : cluster.lead().push_progress().nodes)
      if (node.address == cluster.host(host).address) return node;
    return {};
  }
  uint64_t arrived(size_t host) { return report(host).bytes_in_transfer; }

  LeadCluster cluster;
};

TEST_F(Arrival, follows_the_stream_closely) {
  begin(2);
  for (int i = 0; i < 10; ++i) {
    cluster.run_for(200 * kMillisecond);
    for (size_t host = 0; host < 2; ++host) {
      EXPECT_LE(arrived(host), report(host).bytes_sent);
      EXPECT_GT(arrived(host) + 300'000, report(host).bytes_sent) << "a window and a poll behind";
    }
  }
}

TEST_F(Arrival, stands_still_for_a_node_that_the_stream_does_not_reach) {
  begin(2);
  cluster.run_for(kSecond);
  cluster.host(1).filtered.insert(LeadCluster::Port::kDataGroup);
  cluster.run_for(100 * kMillisecond);
  const uint64_t before = arrived(1);
  EXPECT_GT(before, 0u);
  cluster.run_for(kSecond);
  EXPECT_NEAR(static_cast<double>(arrived(1)), static_cast<double>(before), 10'000)
      << "polls take a part of the stream, which is not always the same";
  EXPECT_GT(report(1).bytes_sent, before + 1'000'000);
  EXPECT_GT(arrived(0), before + 1'000'000);
}

TEST_F(Arrival, leaves_out_what_a_node_asks_for_again) {
  cluster.set_loss(0, 0, 1);
  begin(2);
  cluster.host(1).down.with<RandomLoss>(0.3, 7u);
  uint64_t behind = 0;
  for (int i = 0; i < 100; ++i) {
    cluster.run_for(20 * kMillisecond);
    behind += arrived(0) > arrived(1);
    EXPECT_LT(arrived(1), kFileBytes);
  }
  EXPECT_GT(behind, 90u);
}

// More nodes than are polled at a time.
TEST_F(Arrival, is_known_of_each_of_many_nodes) {
  constexpr size_t kNodes = 40;
  begin(kNodes);
  cluster.run_for(1500 * kMillisecond);
  cluster.host(25).filtered.insert(LeadCluster::Port::kDataGroup);
  cluster.run_for(100 * kMillisecond);
  const uint64_t sent_before = report(25).bytes_sent;
  cluster.run_for(kSecond);
  for (size_t host = 0; host < kNodes; ++host) {
    if (host == 25)
      EXPECT_LE(arrived(host), sent_before);
    else
      EXPECT_GT(arrived(host) + 1'500'000, report(host).bytes_sent)
          << host << ": half a second behind";
  }
}

TEST_F(Arrival, of_a_node_that_comes_late_begins_with_its_coming) {
  begin(1);
  cluster.run_for(2 * kSecond);
  const size_t late = cluster.add_host();
  ASSERT_TRUE(
      cluster.run_until([&] { return report(late).heard && arrived(late) > 0; }, 5 * kSecond));
  EXPECT_LT(arrived(late), arrived(0) / 2);
}

TEST_F(Arrival, tells_when_a_node_was_heard_last) {
  begin(2);
  cluster.stop_node(1);
  const lead::Time stopped = cluster.now();
  cluster.run_for(1500 * kMillisecond);
  EXPECT_LE(report(1).last_heard, stopped + 50 * kMillisecond);
  EXPECT_GT(report(1).last_heard + 500 * kMillisecond, stopped);
  EXPECT_GT(report(0).last_heard + 500 * kMillisecond, cluster.now());
  EXPECT_FALSE(report(1).silent) << "before the node time-out";
}

}  // namespace
}  // namespace pkgdist::test
