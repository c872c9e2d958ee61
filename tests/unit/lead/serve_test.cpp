// Requests of nodes outside of a push.
#include <gtest/gtest.h>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

class Serve : public testing::Test {
 protected:
  // Until the lead is known to the nodes.
  void settle() { cluster_.run_for(2 * kSecond); }
  bool all_idle() {
    for (size_t i = 0; i < cluster_.hosts(); ++i)
      if (cluster_.node(i).receiving()) return false;
    return true;
  }
  LeadCluster cluster_;
};

TEST_F(Serve, a_requested_file_is_sent) {
  cluster_.store.add("file", pattern(100'000, 1));
  cluster_.add_hosts(2);
  settle();
  cluster_.node(0).get_file("file", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, kSecond));
  EXPECT_EQ(cluster_.host(0).disk, cluster_.store.files());
  EXPECT_TRUE(cluster_.host(1).disk.empty());
  cluster_.run_for(kSecond);
  EXPECT_EQ(cluster_.seen().requested, 1u);
  EXPECT_EQ(cluster_.seen().request_ended, 1u);
}

TEST_F(Serve, a_missing_file_ends_with_its_error) {
  cluster_.add_hosts(1);
  settle();
  cluster_.node(0).get_file("nothing", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, kSecond));
  EXPECT_EQ(cluster_.node(0).ended().at("1:nothing"), PKGDIST_STATUS_FROM_ERRNO(ENOENT));
  EXPECT_EQ(cluster_.seen().last_request_status, PKGDIST_STATUS_FROM_ERRNO(ENOENT));
}

TEST_F(Serve, a_name_that_leaves_the_root_is_refused_without_a_look_at_the_store) {
  cluster_.add_hosts(1);
  settle();
  const size_t opened = cluster_.store.opened();
  cluster_.node(0).get_file("../etc/passwd", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, kSecond));
  EXPECT_EQ(cluster_.node(0).ended().at("1:../etc/passwd"), PKGDIST_STATUS_FROM_ERRNO(EINVAL));
  EXPECT_EQ(cluster_.store.opened(), opened);
}

TEST_F(Serve, several_nodes_share_one_stream) {
  cluster_.store.add("file", pattern(1'000'000, 1));
  cluster_.add_hosts(5);
  settle();
  for (size_t i = 0; i < 5; ++i) cluster_.node(i).get_file("file", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, kSecond));
  EXPECT_TRUE(cluster_.identical());
  EXPECT_EQ(cluster_.lead().counters().segments_sent, (1'000'000u + 1399) / 1400);
}

TEST_F(Serve, a_joiner_in_the_middle_gets_one_whole_turn_and_no_more) {
  constexpr uint64_t kSegments = 5000;
  cluster_.store.add("file", pattern(kSegments * lead::kDefaultSegmentSize, 1));
  cluster_.add_hosts(2);
  settle();
  cluster_.node(0).get_file("file", 1, 1, 2, cluster_.now());
  cluster_.run_for(60 * kMillisecond);
  const uint64_t before = cluster_.lead().counters().segments_sent;
  ASSERT_GT(before, kSegments / 4);
  ASSERT_LT(before, kSegments);
  cluster_.node(1).get_file("file", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, 2 * kSecond));
  EXPECT_TRUE(cluster_.identical());
  EXPECT_LE(cluster_.lead().counters().segments_sent, before + kSegments + 200);
  EXPECT_EQ(cluster_.node(1).counters().time_outs, 0u);
}

TEST_F(Serve, urgent_requests_overtake_others) {
  cluster_.store.add("slow", pattern(10'000'000, 1));
  cluster_.store.add("urgent", pattern(10'000, 2));
  cluster_.add_hosts(1);
  settle();
  cluster_.node(0).get_file("slow", 1, 1, 4, cluster_.now());
  cluster_.run_for(20 * kMillisecond);
  cluster_.node(0).get_file("urgent", 1, 1, 1, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).ended().contains("1:urgent"); },
                                 50 * kMillisecond));
  EXPECT_FALSE(cluster_.node(0).ended().contains("1:slow"));
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, 2 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

TEST_F(Serve, requests_survive_loss) {
  cluster_.store.add("file", pattern(300'000, 1));
  cluster_.add_hosts(3);
  cluster_.set_loss(0.2, 0.2, 5);
  settle();
  for (size_t i = 0; i < 3; ++i) cluster_.node(i).get_file("file", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, 60 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

TEST_F(Serve, nodes_in_the_middle_of_a_file_finish_with_a_new_lead_process) {
  cluster_.store.add("file", pattern(5'000'000, 1));
  cluster_.add_hosts(2);
  settle();
  for (size_t i = 0; i < 2; ++i) cluster_.node(i).get_file("file", 1, 1, 2, cluster_.now());
  cluster_.run_for(30 * kMillisecond);
  lead::Settings settings = LeadCluster::default_settings();
  settings.pid = kLeadPid + 1;
  settings.seed = 99;
  cluster_.restart_lead(settings);
  ASSERT_TRUE(cluster_.run_until([&] { return all_idle(); }, 30 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

TEST_F(Serve, an_idle_lead_only_pings) {
  cluster_.add_hosts(1);
  settle();
  const uint64_t sent = cluster_.sent_to_group();
  cluster_.run_for(10 * kSecond);
  EXPECT_EQ(cluster_.sent_to_group() - sent, 10u);
}

// A node that remembers an earlier transfer of a file answers about that one while it receives the
// next: its lead neither tells it of the file again and again nor leaves it alone.
class EarlierTransfer : public testing::TestWithParam<uint64_t> {
 protected:
  EarlierTransfer() {
    cluster_.store.add("file", pattern(60'000, 1));
    cluster_.add_host();
    EXPECT_TRUE(cluster_.run_push(cluster_.push_all(), 20 * kSecond));
    cluster_.store.add("file", pattern(60'000, 2), 0644, 1'700'000'000);
    cluster_.set_loss(0.2, 0.2, GetParam());
  }
  LeadCluster cluster_;
};

TEST_P(EarlierTransfer, of_a_pushed_file_costs_no_second_list) {
  ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 20 * kSecond));
  EXPECT_TRUE(cluster_.identical());
  EXPECT_EQ(cluster_.node(0).counters().lists, 2u);  // one of each push
}

TEST_P(EarlierTransfer, does_not_keep_a_requested_file_waiting) {
  cluster_.node(0).get_file("file", 1, 1, 2, cluster_.now());
  EXPECT_TRUE(cluster_.run_until([&] { return !cluster_.node(0).receiving(); }, 4 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

INSTANTIATE_TEST_SUITE_P(Loss, EarlierTransfer, testing::Range<uint64_t>(1, 21));

}  // namespace
}  // namespace pkgdist::test
