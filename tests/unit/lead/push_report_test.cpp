// What the owner of a push learns of how it stands: counters while it runs, lists of files at the
// end.
#include <gtest/gtest.h>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;
using lead::PushNodeReport;
using lead::PushReport;

constexpr size_t kSegment = lead::kDefaultSegmentSize;

TEST(PushReport, counts_files_and_bytes_of_each_outcome) {
  LeadCluster cluster;
  cluster.store.add("a", pattern(1000, 1));
  cluster.store.add("b", pattern(3 * kSegment, 2));
  cluster.store.add("c", pattern(5000, 3));
  cluster.store.break_open("c", EACCES);
  cluster.add_hosts(2);
  cluster.host(0).disk[disk_key(1, "a")] = cluster.store.files().at(disk_key(1, "a"));
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));

  const PushReport report = cluster.lead().push_report();
  ASSERT_EQ(report.nodes.size(), 2u);
  EXPECT_FALSE(report.complete());
  EXPECT_EQ(report.bytes, 1000 + 3 * kSegment + 5000);
  EXPECT_EQ(report.bytes_received, 1000 + 3 * kSegment) << "each file once";
  for (size_t i = 0; i < 2; ++i) {
    const PushNodeReport& node = report.nodes[i];
    EXPECT_EQ(node.files_done, 2u);
    EXPECT_EQ(node.files_failed, 1u);
    EXPECT_EQ(node.files_left, 0u);
    EXPECT_EQ(node.bytes_left, 0u);
    EXPECT_EQ(node.bytes_done, 1000 + 3 * kSegment);
    EXPECT_EQ(node.bytes_in_transfer, 0u);
    EXPECT_EQ(node.files_skipped, i == 0 ? 1u : 0u);
    EXPECT_EQ(node.bytes_skipped, i == 0 ? 1000u : 0u);
    EXPECT_EQ(node.segments, i == 0 ? 3u : 4u) << "present and unreadable files have none";
  }
}

TEST(PushReport, what_every_node_has_already_counts_as_received_by_none) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(10'000, 1));
  cluster.add_hosts(2);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  EXPECT_EQ(cluster.lead().push_report().bytes_received, 10'000u);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  const PushReport again = cluster.lead().push_report();
  EXPECT_TRUE(again.complete());
  EXPECT_EQ(again.bytes_received, 0u);
  EXPECT_EQ(again.nodes[0].bytes_skipped, 10'000u);
  EXPECT_EQ(again.nodes[0].segments, 0u);
}

TEST(PushReport, segments_count_what_was_sent_once_however_much_is_repaired) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1000 * kSegment, 1));
  cluster.add_hosts(2);
  cluster.host(0).down.with<RandomLoss>(0.1, 3u);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 30 * kSecond));
  const PushReport report = cluster.lead().push_report();
  EXPECT_EQ(report.nodes[0].segments, 1000u);
  EXPECT_EQ(report.nodes[1].segments, 1000u);
  const double ratio = static_cast<double>(report.nodes[0].repairs) / 1000;
  EXPECT_GT(ratio, 0.08);
  EXPECT_LT(ratio, 0.16);
  EXPECT_EQ(report.nodes[1].repairs, 0u);
}

// In the middle of a transfer the two accounts of a node add up to what it has been sent.
TEST(PushReport, progress_grows_with_the_stream_and_never_shrinks) {
  LeadCluster cluster;
  for (int i = 0; i < 40; ++i)
    cluster.store.add("small " + std::to_string(i), pattern(20'000, static_cast<uint64_t>(i)));
  cluster.store.add("large", pattern(4'000'000, 99));
  cluster.add_hosts(2);
  cluster.set_loss(0.05, 0.05, 1);
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  std::vector<uint64_t> bytes(2), segments(2);
  size_t between = 0;
  while (cluster.lead().push_running()) {
    cluster.run_for(5 * kMillisecond);
    const PushReport report = cluster.lead().push_progress();
    for (size_t i = 0; i < report.nodes.size(); ++i) {
      const PushNodeReport& node = report.nodes[i];
      const uint64_t now = node.bytes_done + node.bytes_in_transfer;
      EXPECT_GE(now, bytes[i]);
      EXPECT_LE(now, report.bytes);
      EXPECT_GE(node.segments, segments[i]);
      EXPECT_EQ(node.files_done + node.files_failed + node.files_left, report.files);
      EXPECT_TRUE(node.open.empty() && node.failed.empty());
      between += now > 0 && now < report.bytes;
      bytes[i] = now;
      segments[i] = node.segments;
    }
  }
  EXPECT_GT(between, 10u);
  EXPECT_EQ(bytes[0], cluster.lead().push_report().bytes);
}

TEST(PushReport, lists_what_is_open_and_what_failed_only_in_the_report) {
  LeadCluster cluster;
  cluster.store.add("a", pattern(1000, 1));
  cluster.store.break_open("a", EACCES);
  cluster.store.add("b", pattern(10'000'000, 2));
  cluster.add_hosts(1);
  lead::PushRequest request = cluster.push_all();
  request.nodes = {cluster.host(0).address, kLeadAddress + 77};
  request.node_timeout = kSecond;
  ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
  ASSERT_TRUE(cluster.run_until(
      [&] {
        const PushReport now = cluster.lead().push_progress();
        return !now.nodes.empty() && now.nodes[0].files_failed == 1 &&
               now.nodes[0].bytes_in_transfer > 0;
      },
      10 * kSecond));
  const uint64_t segments = cluster.lead().push_progress().nodes[0].segments;
  EXPECT_GT(segments, 0u);
  cluster.lead().stop_push(cluster.now());
  const PushReport report = cluster.lead().push_report();
  EXPECT_EQ(report.nodes[0].segments, segments);
  ASSERT_EQ(report.nodes.size(), 2u);
  EXPECT_EQ(report.nodes[0].failed.size(), 1u);
  EXPECT_EQ(report.nodes[0].open, std::vector<uint32_t>{1});
  EXPECT_EQ(report.nodes[0].files_left, 1u);
  EXPECT_EQ(report.nodes[0].bytes_left, 10'000'000u);
  EXPECT_FALSE(report.nodes[1].heard);
  EXPECT_EQ(report.nodes[1].files_left, 2u);
  EXPECT_EQ(report.nodes[1].bytes_left, 10'001'000u);
}

TEST(NodeCounts, tell_who_was_heard_and_who_is_silent) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.node_timeout = 3 * kSecond;
  LeadCluster cluster(settings);
  cluster.add_hosts(3);
  cluster.run_for(2 * kSecond);
  EXPECT_EQ(cluster.lead().node_counts().heard, 3u);
  EXPECT_EQ(cluster.lead().node_counts().silent, 0u);
  cluster.stop_node(1);
  cluster.run_for(5 * kSecond);
  EXPECT_EQ(cluster.lead().node_counts().heard, 3u);
  EXPECT_EQ(cluster.lead().node_counts().silent, 1u);
}

}  // namespace
}  // namespace pkgdist::test
