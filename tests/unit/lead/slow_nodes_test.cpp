// Whole pushes in which one of three nodes takes a tenth of the others' speed, with each way to
// treat it. Sockets are finite and the lead has no rate.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kSecond;
using lead::SlowNodes;

constexpr double kGigabit = 1e9;
constexpr double kFast = 10e6;  // bytes per second
constexpr double kSlow = kFast / 10;
constexpr size_t kBytes = 80'000'000;
constexpr uint64_t kDropped = PKGDIST_STATUS_FROM_ERRNO(ETIME);

// The push of so many files of one size altogether, and whether one node is slow.
struct Outcome {
  explicit Outcome(size_t files, SlowNodes slow_nodes, bool slow_one = true)
      : cluster(settings(), NodeTimeouts::of_the_node_program()) {
    for (size_t i = 0; i < files; ++i)
      cluster.store.add("file " + std::to_string(i), pattern(kBytes / files, i));
    for (int i = 0; i < 3; ++i) add_host(i == 1 && slow_one ? kSlow : kFast);
    lead::PushRequest request = cluster.push_all();
    request.slow_nodes = slow_nodes;
    ended = cluster.run_push(request, 300 * kSecond);
    report = cluster.lead().push_report();
  }
  static lead::Settings settings() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 0;
    return settings;
  }
  void add_host(double bytes_per_second) {
    Path& down = cluster.host(cluster.add_host()).down;
    down.with<LinkPort>(LinkPort::kUnlimited, kGigabit);
    down.with<NodeSocket>(NodeSocket::kUsualSize, bytes_per_second);
  }
  const lead::PushNodeReport& of(size_t host) const {
    for (const lead::PushNodeReport& node : report.nodes)
      if (node.address == kLeadAddress + 1 + host) return node;
    ADD_FAILURE() << "not heard";
    return report.nodes.front();
  }
  double seconds_of(size_t host) const {
    return static_cast<double>(of(host).finished_at - report.started_at) / 1e9;
  }
  bool has_everything(size_t host) {
    return cluster.host(host).disk == cluster.store.files() && of(host).failed.empty();
  }

  LeadCluster cluster;
  bool ended = false;
  lead::PushReport report;
};

class SlowNodesTest : public testing::TestWithParam<size_t> {
 protected:
  static double seconds_without_the_slow_one() {
    static std::map<size_t, double> measured;
    double& seconds = measured[GetParam()];
    if (seconds != 0) return seconds;
    const Outcome outcome(GetParam(), SlowNodes::kWait, false);
    seconds = std::max(outcome.seconds_of(0), outcome.seconds_of(2));
    return seconds;
  }
  static void expect_others_in_time(const Outcome& outcome) {
    const double alone = seconds_without_the_slow_one();
    for (const size_t host : {0, 2}) {
      RecordProperty("percent of node " + std::to_string(host),
                     static_cast<int>(100 * outcome.seconds_of(host) / alone));
      EXPECT_LT(outcome.seconds_of(host), 1.2 * alone);
    }
  }
};

TEST_P(SlowNodesTest, after_the_others_a_slow_node_gets_everything_and_holds_nobody_up) {
  Outcome outcome(GetParam(), SlowNodes::kAfter);
  ASSERT_TRUE(outcome.ended);
  EXPECT_TRUE(outcome.report.complete());
  expect_others_in_time(outcome);
  for (size_t host = 0; host < 3; ++host) EXPECT_TRUE(outcome.has_everything(host)) << host;
}

TEST_P(SlowNodesTest, dropped_a_slow_node_ends_as_such_and_holds_nobody_up) {
  Outcome outcome(GetParam(), SlowNodes::kDrop);
  ASSERT_TRUE(outcome.ended);
  expect_others_in_time(outcome);
  EXPECT_TRUE(outcome.has_everything(0));
  EXPECT_TRUE(outcome.has_everything(2));
  const lead::PushNodeReport& slow = outcome.of(1);
  EXPECT_EQ(slow.files_left, 0u);
  EXPECT_FALSE(slow.failed.empty());
  EXPECT_EQ(slow.files_done + slow.failed.size(), outcome.report.files);
  for (const auto& [file, status] : slow.failed) EXPECT_EQ(status, kDropped);
  // The push is over on the node, too.
  outcome.cluster.run_for(2 * kSecond);
  EXPECT_FALSE(outcome.cluster.node(1).receiving());
}

TEST_P(SlowNodesTest, waited_for_a_slow_node_sets_the_pace_and_all_get_everything) {
  Outcome outcome(GetParam(), SlowNodes::kWait);
  ASSERT_TRUE(outcome.ended);
  EXPECT_TRUE(outcome.report.complete());
  EXPECT_GT(outcome.seconds_of(1), kBytes / kSlow);
  EXPECT_LT(outcome.seconds_of(1), 1.1 * kBytes / kSlow);
  for (size_t host = 0; host < 3; ++host) EXPECT_TRUE(outcome.has_everything(host)) << host;
}

INSTANTIATE_TEST_SUITE_P(Files, SlowNodesTest, testing::Values(1, 400),
                         [](const auto& files) { return std::to_string(files.param) + "_files"; });

}  // namespace
}  // namespace pkgdist::test
