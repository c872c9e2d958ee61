// Whole distributions: the lead's core and modelled nodes over a network that loses, duplicates and
// reorders, under a virtual clock.
#include <gtest/gtest.h>

#include <cerrno>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

constexpr size_t kSegment = lead::kDefaultSegmentSize;

void add_mixed_tree(MemoryStore& store, uint64_t seed) {
  store.add("empty", {});
  store.add("one", pattern(1, seed));
  store.add("dir/exactly three", pattern(3 * kSegment, seed + 1));
  store.add("dir/three and one", pattern(3 * kSegment + 1, seed + 2), 0755);
  store.add("deep/er/middle", pattern(100'000, seed + 3), 0600, 12345);
  store.add("deep/er/large", pattern(3'000'000, seed + 4));
  store.add_link("link", "dir/one");
  store.add_link("long link", std::string(255, 'x'));
  for (int i = 0; i < 100; ++i)
    store.add("small/" + std::to_string(i),
              pattern(static_cast<size_t>(i) * 50, seed + 10 + static_cast<uint64_t>(i)));
}

struct Loss {
  double down;
  double up;
};

class PushUnderLoss : public testing::TestWithParam<Loss> {};

TEST_P(PushUnderLoss, every_node_gets_an_identical_tree) {
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    LeadCluster cluster;
    add_mixed_tree(cluster.store, seed);
    cluster.add_hosts(3);
    cluster.set_loss(GetParam().down, GetParam().up, seed);
    EXPECT_TRUE(cluster.run_push(cluster.push_all(), 120 * kSecond));
    EXPECT_TRUE(cluster.lead().push_report().complete());
    EXPECT_TRUE(cluster.identical());
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, PushUnderLoss,
                         testing::Values(Loss{0, 0}, Loss{0.01, 0.01}, Loss{0.05, 0.05},
                                         Loss{0.2, 0.05}, Loss{0.2, 0.2}));

// The start and the end of a push cost a few round trips of 0.4 ms; the rest is the rate's.
TEST(Push, without_loss_sends_everything_exactly_once_at_the_given_rate) {
  LeadCluster cluster;
  add_mixed_tree(cluster.store, 1);
  cluster.add_hosts(3);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  const lead::Counters& counters = cluster.lead().counters();
  uint64_t segments = 0;
  for (const auto& [key, file] : cluster.store.files())
    segments += std::max<uint64_t>(1, (file.content.size() + kSegment - 1) / kSegment);
  EXPECT_EQ(counters.segments_sent, segments);
  // One each; more copies until it is known that nothing gets lost, and four on the way through
  // the large file.
  EXPECT_LE(counters.infos_sent, cluster.store.files().size() + 4 + 4);
  EXPECT_EQ(counters.miss_done_sent, 0u);
  const lead::PushReport report = cluster.lead().push_report();
  const double ideal = static_cast<double>(counters.data_bytes_sent) * 8 / 400e6;
  EXPECT_LT(static_cast<double>(report.finished_at - report.started_at) / 1e9, ideal + 0.03);
}

// A node's own requests count up from 1 and must not be taken for the lead's transaction.
TEST(Push, transaction_is_out_of_the_way_of_the_nodes_own_requests) {
  for (const uint64_t seed : {uint64_t{0}, uint64_t{0x7FFFFFFF}, uint64_t{0xFFFFFFFF}}) {
    lead::Settings settings = LeadCluster::default_settings();
    settings.seed = seed;
    LeadCluster cluster(settings);
    cluster.store.add("file", pattern(10, 1));
    cluster.add_hosts(1);
    uint32_t before = 0;
    for (int push = 0; push < 2; ++push) {
      ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
      EXPECT_GE(cluster.lead().push_transaction(), 0x80000000u);
      EXPECT_NE(cluster.lead().push_transaction(), before);
      before = cluster.lead().push_transaction();
    }
  }
}

TEST(Push, survives_duplicates_and_reordering_both_ways) {
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    LeadCluster cluster;
    add_mixed_tree(cluster.store, seed);
    cluster.add_hosts(3);
    for (size_t i = 0; i < 3; ++i) {
      cluster.host(i).down.with<RandomDuplicate>(0.05, seed + i);
      cluster.host(i).down.with<RandomReorder>(0.05, kMillisecond, seed + 10 + i);
      cluster.host(i).up.with<RandomDuplicate>(0.05, seed + 20 + i);
      cluster.host(i).up.with<RandomReorder>(0.05, kMillisecond, seed + 30 + i);
    }
    cluster.set_loss(0.01, 0.01, seed);
    EXPECT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
    EXPECT_TRUE(cluster.identical());
    EXPECT_TRUE(cluster.lead().push_report().complete());
  }
}

TEST(Push, survives_bursts_that_swallow_whole_files) {
  LeadCluster cluster;
  add_mixed_tree(cluster.store, 1);
  cluster.add_hosts(2);
  for (size_t i = 0; i < 2; ++i) cluster.host(i).down.with<BurstLoss>(0.01, 20, 7 + i);
  EXPECT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
}

TEST(Push, a_lost_tail_is_repaired_without_waiting_for_the_nodes_time_outs) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(500 * kSegment, 1));
  cluster.add_hosts(1);
  // Everything from the 450th datagram of the data stream on, for a while.
  uint64_t seen = 0;
  cluster.on_sent = [&](lead::Channel channel, uint32_t, std::span<const uint8_t>) {
    if (channel == lead::Channel::kData && ++seen == 450)
      cluster.host(0).down.with<DropRange>(0u, 60u);
  };
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 30 * kSecond));
  EXPECT_TRUE(cluster.identical());
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_LT(report.finished_at - report.started_at, 500 * kMillisecond);
  EXPECT_EQ(cluster.node(0).counters().time_outs, 0u);
}

TEST(Push, a_second_push_of_the_same_tree_costs_one_information_per_file) {
  LeadCluster cluster;
  add_mixed_tree(cluster.store, 1);
  cluster.add_hosts(3);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  const lead::Counters before = cluster.lead().counters();
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  const lead::Counters& after = cluster.lead().counters();
  const uint64_t files = cluster.store.files().size();
  constexpr uint64_t kLinks = 2;  // cannot be recognised by their time
  EXPECT_EQ(after.segments_sent, before.segments_sent + kLinks);
  EXPECT_EQ(after.infos_sent - before.infos_sent, files);
  for (const lead::PushNodeReport& node : cluster.lead().push_report().nodes) {
    EXPECT_EQ(node.files_done, files);
    EXPECT_EQ(node.files_skipped, files - kLinks);
  }
}

TEST(Push, a_changed_file_is_pushed_again_though_the_node_remembers_the_old_one) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(10'000, 1));
  cluster.add_hosts(2);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  cluster.store.add("file", pattern(12'000, 2), 0644, 1'700'000'000);
  cluster.set_loss(0.2, 0.2, 3);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
}

// Nodes answer questions about the new content with the end of the old one for a while: that is no
// silence for which the rate would have to fall.
TEST(Push, a_changed_large_file_is_pushed_again_at_full_rate) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.rate_bits = 0;
  LeadCluster cluster(settings);
  cluster.add_hosts(2);
  std::array<uint64_t, 2> took{};
  for (uint32_t round = 0; round < 2; ++round) {
    cluster.store.add("large", pattern(100'000'000, round), 0644, 1'700'000'000 + round);
    ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
    EXPECT_TRUE(cluster.identical());
    const lead::PushReport report = cluster.lead().push_report();
    took[round] = report.finished_at - report.started_at;
  }
  EXPECT_LT(took[1], took[0] + took[0] / 2);
}

TEST(Push, a_node_restarted_in_the_middle_gets_everything) {
  for (double loss : {0.0, 0.05}) {
    LeadCluster cluster;
    add_mixed_tree(cluster.store, 1);
    cluster.add_hosts(3);
    cluster.set_loss(loss, loss, 1);
    ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
    cluster.run_for(40 * kMillisecond);
    cluster.stop_node(1);
    cluster.run_for(200 * kMillisecond);
    cluster.start_node(1);
    ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 60 * kSecond));
    EXPECT_TRUE(cluster.identical());
    EXPECT_TRUE(cluster.lead().push_report().complete());
    EXPECT_EQ(cluster.seen().restarted, 1u);
  }
}

TEST(Push, a_node_that_appears_late_gets_everything) {
  for (double loss : {0.0, 0.05}) {
    LeadCluster cluster;
    add_mixed_tree(cluster.store, 1);
    cluster.store.add("long", pattern(40'000'000, 9));
    cluster.add_hosts(2);
    const lead::PushRequest request = cluster.push_all();
    cluster.add_host(false);
    cluster.set_loss(loss, loss, 2);
    ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
    cluster.run_for(200 * kMillisecond);
    cluster.start_node(2);
    ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 60 * kSecond));
    EXPECT_TRUE(cluster.identical());
    EXPECT_EQ(cluster.lead().push_report().nodes.size(), 3u);
  }
}

// Hears nothing while a time lasts.
class DeafUntil : public LossModel {
 public:
  DeafUntil(const LeadCluster& cluster, uint64_t time) : cluster_(cluster), time_(time) {}
  void decide(Fate& fate) override { fate.dropped |= cluster_.now() < time_; }

 private:
  const LeadCluster& cluster_;
  uint64_t time_;
};

// The stream takes 0.4 s. A node that waits for one of its time-outs takes two seconds more.
TEST(Push, a_node_that_missed_the_beginning_of_a_file_gets_that_at_once) {
  for (const uint64_t deaf : {30, 100, 200, 390, 450}) {
    SCOPED_TRACE("deaf for " + std::to_string(deaf) + " ms");
    LeadCluster cluster;
    cluster.store.add("long", pattern(20'000'000, 9));
    cluster.add_hosts(2);
    const lead::PushRequest request = cluster.push_all();
    ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
    ASSERT_TRUE(
        cluster.run_until([&] { return cluster.lead().counters().infos_sent > 0; }, kSecond));
    cluster.host(1).down.with<DeafUntil>(cluster, cluster.now() + deaf * kMillisecond);
    const uint64_t started = cluster.now();
    ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 60 * kSecond));
    EXPECT_TRUE(cluster.identical());
    EXPECT_LT(cluster.now() - started, kSecond * 3 / 2);
    const uint64_t segments = 20'000'000 / kSegment + 1;
    EXPECT_LT(cluster.lead().counters().segments_sent, segments * (450 + deaf) / 400);
  }
}

TEST(Push, only_the_nodes_asked_for_get_the_files) {
  LeadCluster cluster;
  add_mixed_tree(cluster.store, 1);
  cluster.add_hosts(3);
  lead::PushRequest request = cluster.push_all();
  request.nodes = {cluster.host(0).address, cluster.host(2).address};
  ASSERT_TRUE(cluster.run_push(request, 10 * kSecond));
  EXPECT_TRUE(cluster.lead().push_report().complete());
  EXPECT_EQ(cluster.host(0).disk, cluster.store.files());
  EXPECT_EQ(cluster.host(2).disk, cluster.store.files());
  EXPECT_TRUE(cluster.host(1).disk.empty());
}

TEST(Push, waits_for_the_number_of_nodes) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1000, 1));
  cluster.add_hosts(2);
  cluster.add_host(false);
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  cluster.run_for(5 * kSecond);
  EXPECT_TRUE(cluster.host(0).disk.empty());
  cluster.start_node(2);
  ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 5 * kSecond));
  EXPECT_TRUE(cluster.identical());
}

TEST(Push, serves_the_present_nodes_and_reports_the_absent_one) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1000, 1));
  cluster.add_hosts(1);
  cluster.add_host(false);
  lead::PushRequest request = cluster.push_all();
  request.nodes = {cluster.host(0).address, cluster.host(1).address};
  request.node_timeout = 3 * kSecond;
  ASSERT_TRUE(cluster.run_push(request, 10 * kSecond));
  EXPECT_EQ(cluster.host(0).disk, cluster.store.files());
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_FALSE(report.complete());
  ASSERT_EQ(report.nodes.size(), 2u);
  EXPECT_FALSE(report.nodes[1].heard);
}

TEST(Push, waits_for_nodes_that_come_one_after_the_other_for_as_long_as_they_do) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1000, 1));
  for (int i = 0; i < 5; ++i) cluster.add_host(false);
  lead::PushRequest request = cluster.push_all();
  request.nodes.clear();
  for (size_t i = 0; i < 5; ++i) request.nodes.push_back(cluster.host(i).address);
  request.node_timeout = 4 * kSecond;
  ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
  for (size_t i = 0; i < 4; ++i) {
    cluster.run_for(3 * kSecond);
    EXPECT_FALSE(cluster.lead().push_progress().started);
    cluster.start_node(i);
  }
  cluster.run_for(3 * kSecond);
  EXPECT_FALSE(cluster.lead().push_progress().started) << "15 s after the begin";
  ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 2 * kSecond));
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(cluster.host(i).disk, cluster.store.files());
  EXPECT_FALSE(cluster.lead().push_report().nodes[4].heard);
}

TEST(Push, gives_up_on_a_node_that_falls_silent_and_finishes_the_others) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(5'000'000, 1));
  cluster.add_hosts(2);
  lead::PushRequest request = cluster.push_all();
  request.node_timeout = 4 * kSecond;
  ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
  cluster.run_for(30 * kMillisecond);
  cluster.stop_node(1);
  ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 10 * kSecond));
  EXPECT_EQ(cluster.host(0).disk, cluster.store.files());
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_FALSE(report.complete());
  EXPECT_TRUE(report.nodes[1].silent);
  EXPECT_EQ(report.nodes[1].open.size(), 1u);
}

TEST(Push, an_unreadable_file_fails_everywhere_and_stops_nothing_else) {
  for (double loss : {0.0, 0.2}) {
    LeadCluster cluster;
    cluster.store.add("a", pattern(1000, 1));
    cluster.store.add("b", pattern(1000, 2));
    cluster.store.add("c", pattern(1000, 3));
    cluster.store.break_open("b", EACCES);
    cluster.add_hosts(2);
    cluster.set_loss(loss, loss, 1);
    ASSERT_TRUE(cluster.run_push(cluster.push_all(), 30 * kSecond));
    const lead::PushReport report = cluster.lead().push_report();
    EXPECT_FALSE(report.complete());
    for (const lead::PushNodeReport& node : report.nodes) {
      EXPECT_EQ(node.files_done, 2u);
      ASSERT_EQ(node.failed.size(), 1u);
      EXPECT_EQ(node.failed.at(1), PKGDIST_STATUS_FROM_ERRNO(EACCES));
    }
    EXPECT_EQ(cluster.node(0).ended().at("1:b"), PKGDIST_STATUS_FROM_ERRNO(EACCES));
  }
}

TEST(Push, a_file_that_breaks_off_fails_and_is_never_completed) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1'000'000, 1));
  cluster.store.break_read("file", 700'000);
  cluster.add_hosts(2);
  cluster.set_loss(0.05, 0.05, 1);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 30 * kSecond));
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_TRUE(cluster.host(i).disk.empty());
    EXPECT_EQ(cluster.node(i).ended().at("1:file"), PKGDIST_STATUS_FROM_ERRNO(EIO));
  }
}

TEST(Push, too_large_files_and_link_targets_are_reported_instead_of_cut) {
  LeadCluster cluster;
  cluster.store.add_link("link", std::string(256, 'x'));
  cluster.add_hosts(1);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  EXPECT_EQ(cluster.lead().push_report().nodes[0].failed.at(0),
            PKGDIST_STATUS_FROM_ERRNO(ENAMETOOLONG));
}

TEST(Push, stopping_reports_what_is_left_and_goes_quiet) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(10'000'000, 1));
  cluster.add_hosts(1);
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  cluster.run_for(50 * kMillisecond);
  cluster.lead().stop_push(cluster.now());
  EXPECT_FALSE(cluster.lead().push_running());
  EXPECT_EQ(cluster.lead().push_report().nodes[0].open.size(), 1u);
  const uint64_t segments = cluster.lead().counters().segments_sent;
  cluster.run_for(100 * kMillisecond);
  EXPECT_EQ(cluster.lead().counters().segments_sent, segments);
}

TEST(Push, a_stopped_push_is_completed_by_the_next) {
  LeadCluster cluster;
  add_mixed_tree(cluster.store, 1);
  cluster.add_hosts(2);
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  cluster.run_for(40 * kMillisecond);
  cluster.lead().stop_push(cluster.now());
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
}

// A push of 20 small files and a large one, that ends in the middle of the large one; then a lead
// that has just begun, whom the nodes ask for what they lack.
void interrupt_push(LeadCluster& cluster, const lead::Settings& settings) {
  for (int i = 0; i < 20; ++i)
    cluster.store.add("a/" + std::to_string(i), pattern(3000, static_cast<uint64_t>(i)));
  cluster.store.add("large", pattern(2000 * kSegment, 99));
  cluster.store.add("later", pattern(10 * kSegment, 98));
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  ASSERT_TRUE(cluster.run_until([&] { return cluster.lead().counters().segments_sent > 1000; },
                                10 * kSecond));
  cluster.stop_lead();
  cluster.run_for(kSecond);
  cluster.restart_lead(settings);
}

lead::Settings next_lead() {
  lead::Settings settings = LeadCluster::default_settings();
  settings.pid = kLeadPid + 1;
  settings.seed = 2;
  return settings;
}

TEST(Push, what_an_interrupted_push_had_begun_is_sent_once_by_the_next_lead) {
  LeadCluster cluster;
  cluster.add_hosts(3);
  interrupt_push(cluster, next_lead());
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_TRUE(report.complete());
  for (const lead::PushNodeReport& node : report.nodes) {
    EXPECT_EQ(node.files_skipped, 20u);
    EXPECT_EQ(node.bytes_done - node.bytes_skipped, 2010 * kSegment);
  }
  EXPECT_EQ(cluster.lead().counters().segments_sent, 2010u);
  EXPECT_EQ(cluster.seen().requested, 0u);
}

// While the push waits for a node that is late, the others get what they ask for; when it begins
// they have a part of it, and it need not begin again.
TEST(Push, what_nodes_are_being_sent_when_the_push_begins_is_not_sent_again) {
  LeadCluster cluster;
  cluster.add_hosts(3);
  lead::Settings settings = next_lead();
  settings.rate_bits = 20'000'000;
  interrupt_push(cluster, settings);
  cluster.stop_node(2);
  cluster.host(2).disk = cluster.store.files();
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  ASSERT_TRUE(cluster.run_until([&] { return cluster.lead().counters().segments_sent > 500; },
                                10 * kSecond));
  EXPECT_GT(cluster.seen().requested, 0u);
  EXPECT_FALSE(cluster.lead().push_report().started);
  cluster.start_node(2);
  ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
  EXPECT_TRUE(cluster.lead().push_report().complete());
  EXPECT_EQ(cluster.seen().request_ended, 0u) << "it became the push's";
  EXPECT_LT(cluster.lead().counters().segments_sent, 2100u);
}

TEST(Push, a_file_that_changed_since_nodes_asked_for_it_is_sent_as_it_is_now) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.rate_bits = 20'000'000;
  LeadCluster cluster(settings);
  cluster.store.add("file", pattern(500 * kSegment, 1));
  cluster.add_hosts(2);
  cluster.run_for(100 * kMillisecond);
  cluster.node(0).get_file("file", 1, 1, 2, cluster.now());
  ASSERT_TRUE(cluster.run_until([&] { return cluster.lead().counters().segments_sent > 100; },
                                10 * kSecond));
  cluster.store.add("file", pattern(300 * kSegment, 2), 0644, 99);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.lead().push_report().complete());
  EXPECT_TRUE(cluster.identical());
}

TEST(Push, a_node_that_is_not_of_the_push_is_served_while_the_push_gathers) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(10'000, 1));
  cluster.add_hosts(1);
  lead::PushRequest request = cluster.push_all();
  request.nodes = {kLeadAddress + 77};
  ASSERT_EQ(cluster.lead().start_push(request, cluster.now()), nullptr);
  cluster.run_for(100 * kMillisecond);
  cluster.node(0).get_file("file", 1, 1, 2, cluster.now());
  cluster.run_for(500 * kMillisecond);
  EXPECT_TRUE(cluster.identical());
}

TEST(Push, arguments_out_of_range_are_refused) {
  LeadCluster cluster;
  cluster.store.add("file", {});
  const auto refused = [&](auto change) {
    lead::PushRequest request = cluster.push_all();
    change(request);
    return cluster.lead().start_push(request, cluster.now()) != nullptr;
  };
  EXPECT_TRUE(refused([](auto& r) { r.location = 7; }));
  EXPECT_TRUE(refused([](auto& r) { r.location = 0; }));
  EXPECT_TRUE(refused([](auto& r) { r.type = 12; }));
  EXPECT_TRUE(refused([](auto& r) { r.priority = 5; }));
  EXPECT_TRUE(refused([](auto& r) { r.files.clear(); }));
  EXPECT_TRUE(refused([](auto& r) { r.files[0].name = "a/../../b"; }));
  EXPECT_FALSE(refused([](auto&) {}));
  EXPECT_TRUE(refused([](auto&) {})) << "one push at a time";
}

TEST(Push, thousands_of_small_files_flow_back_to_back) {
  LeadCluster cluster;
  for (int i = 0; i < 3000; ++i)
    cluster.store.add("d/" + std::to_string(i), pattern(3000, static_cast<uint64_t>(i)));
  cluster.add_hosts(2);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.identical());
  const lead::PushReport report = cluster.lead().push_report();
  const double ideal = static_cast<double>(cluster.lead().counters().data_bytes_sent) * 8 / 400e6;
  EXPECT_LT(static_cast<double>(report.finished_at - report.started_at) / 1e9, ideal * 1.25 + 0.05);
}

TEST(Push, a_new_lead_process_on_the_same_address_can_push_at_once) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(5000, 1));
  cluster.add_hosts(2);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
  cluster.store.add("other", pattern(5000, 2));
  lead::Settings settings = LeadCluster::default_settings();
  settings.seed = 2;
  // Also when the new process happens to have the same number: nodes then do not notice.
  for (uint32_t pid : {kLeadPid + 1, kLeadPid + 1}) {
    settings.pid = pid;
    ++settings.seed;
    cluster.restart_lead(settings);
    cluster.store.add("other" + std::to_string(settings.seed), pattern(5000, settings.seed));
    ASSERT_TRUE(cluster.run_push(cluster.push_all(), 10 * kSecond));
    EXPECT_TRUE(cluster.identical());
  }
}

// Such a node does not even hear the question how it stands.
TEST(PushTest, ends_when_a_node_has_forgotten_a_file_whose_report_was_lost) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.rate_bits = 400'000;
  LeadCluster cluster(settings);
  cluster.store.add("file", pattern(100'000, 1));
  cluster.add_hosts(2);
  const auto cut = std::make_shared<bool>(false);
  cluster.host(0).up.with<Outage>(cut);
  lead::PushRequest push = cluster.push_all();
  push.node_timeout = 300 * kSecond;
  ASSERT_EQ(cluster.lead().start_push(push, cluster.now()), nullptr);
  ASSERT_TRUE(
      cluster.run_until([&] { return cluster.node(0).counters().segments > 5; }, 10 * kSecond));
  *cut = true;
  cluster.run_for(50 * kSecond);
  ASSERT_TRUE(cluster.identical());
  *cut = false;
  EXPECT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 60 * kSecond));
  EXPECT_TRUE(cluster.lead().push_report().complete());
}

// --- A push always ends ---

// Loses datagrams that are longer than the path takes.
class NarrowPath : public LossModel {
 public:
  NarrowPath(std::shared_ptr<const size_t> length, size_t most)
      : length_(std::move(length)), most_(most) {}
  void decide(Fate& fate) override { fate.dropped |= *length_ > most_; }

 private:
  std::shared_ptr<const size_t> length_;
  size_t most_;
};

TEST(PushEnds, when_small_datagrams_arrive_and_segments_do_not) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(100'000, 1));
  cluster.add_hosts(2);
  const auto length = std::make_shared<size_t>(0);
  cluster.on_sent = [length](lead::Channel, uint32_t, std::span<const uint8_t> bytes) {
    *length = bytes.size();
  };
  cluster.host(1).down.with<NarrowPath>(length, 1000);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_EQ(report.nodes[0].files_done, 1u);
  ASSERT_EQ(report.nodes[1].failed.size(), 1u);
  EXPECT_EQ(report.nodes[1].failed.at(0), PKGDIST_STATUS_FROM_ERRNO(EMSGSIZE));
}

TEST(PushEnds, for_a_node_whose_process_restarts_again_and_again) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(50'000'000, 1));
  cluster.add_hosts(2);
  ASSERT_EQ(cluster.lead().start_push(cluster.push_all(), cluster.now()), nullptr);
  for (size_t restarts = 1; restarts <= 4; ++restarts) {
    ASSERT_TRUE(
        cluster.run_until([&] { return cluster.node(0).counters().segments > 100; }, 20 * kSecond));
    EXPECT_TRUE(cluster.lead().push_report().nodes[0].failed.empty());
    cluster.start_node(0);
    ASSERT_TRUE(
        cluster.run_until([&] { return cluster.seen().restarted == restarts; }, 20 * kSecond));
  }
  ASSERT_TRUE(cluster.run_until([&] { return !cluster.lead().push_running(); }, 20 * kSecond));
  const lead::PushReport report = cluster.lead().push_report();
  ASSERT_EQ(report.nodes[0].failed.size(), 1u);
  EXPECT_EQ(report.nodes[0].failed.at(0), PKGDIST_STATUS_FROM_ERRNO(ECONNRESET));
  EXPECT_EQ(report.nodes[1].files_done, 1u);
}

// Its path is too long there, or the node has no such location.
TEST(PushEnds, on_a_node_that_refuses_a_name_with_the_rest_received) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(10'000, 1));
  cluster.store.add("long name", pattern(10'000, 2));
  cluster.add_hosts(2);
  cluster.set_loss(0.05, 0.05, 1);
  cluster.node(0).limit_names(5);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 20 * kSecond));
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_FALSE(report.complete());
  ASSERT_EQ(report.nodes[0].failed.size(), 1u);
  EXPECT_EQ(report.nodes[0].failed.at(1), PKGDIST_STATUS_UNKNOWN_FILE);
  EXPECT_EQ(report.nodes[0].files_done, 1u);
  EXPECT_EQ(report.nodes[1].files_done, 2u);
  EXPECT_EQ(cluster.host(1).disk, cluster.store.files());
}

// What is no directory goes before any file of the push is announced.
class PushWithDirectories : public testing::TestWithParam<uint64_t> {
 protected:
  PushWithDirectories() {
    cluster_.store.add("lib/a.so", pattern(20'000, 1));
    cluster_.store.add("lib/b.so", pattern(20'000, 2));
    cluster_.add_hosts(3);
    cluster_.set_loss(0.1, 0.1, GetParam());
    for (size_t i = 0; i < 3; ++i) cluster_.host(i).disk["1:lib"] = {{'x'}, 0777, 0, true};
    request_ = cluster_.push_all();
    request_.directories = {"lib"};
    // Where the link still stands when the file is begun, the file goes through it.
    cluster_.on_node_sent = [this](size_t, lead::Channel, const Bytes&) { look(); };
  }
  void look() {
    for (size_t i = 0; i < cluster_.hosts(); ++i)
      if (cluster_.host(i).disk.contains("1:lib") && cluster_.host(i).node &&
          cluster_.node(i).receiving())
        too_early_ = true;
  }
  static lead::Settings slow() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 50'000'000;
    return settings;
  }
  LeadCluster cluster_{slow()};
  lead::PushRequest request_;
  bool too_early_ = false;
};

INSTANTIATE_TEST_SUITE_P(Seeds, PushWithDirectories, testing::Range<uint64_t>(1, 9));

TEST_P(PushWithDirectories, makes_room_for_them_on_every_node_first) {
  ASSERT_TRUE(cluster_.run_push(request_, 60 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  EXPECT_TRUE(cluster_.identical());
  EXPECT_FALSE(too_early_);
}

TEST_P(PushWithDirectories, makes_room_on_a_node_that_comes_late_or_again) {
  cluster_.store.add("lib/large", pattern(3'000'000, 3));
  request_.files.push_back({"lib/large", 3'000'000});
  cluster_.add_host(false);
  cluster_.host(3).disk["1:lib"] = {{'x'}, 0777, 0, true};
  ASSERT_EQ(cluster_.lead().start_push(request_, cluster_.now()), nullptr);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).receiving(); }, 30 * kSecond));
  cluster_.start_node(3);
  cluster_.stop_node(0);
  cluster_.run_for(50 * kMillisecond);
  cluster_.start_node(0);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.seen().appeared == 4; }, 30 * kSecond));
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 60 * kSecond));
  EXPECT_TRUE(cluster_.identical());
  EXPECT_FALSE(too_early_);
}

TEST(PushToASharedAddress, says_that_two_hosts_have_it_and_reports_no_restarts) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(3'000'000, 1));
  cluster.add_host();
  cluster.add_host(false);
  cluster.host(1).address = cluster.host(0).address;
  cluster.start_node(1);
  lead::PushRequest request = cluster.push_all();
  request.node_count = 1;
  ASSERT_TRUE(cluster.run_push(request, 60 * kSecond));
  cluster.run_for(5 * kSecond);
  EXPECT_EQ(cluster.seen().shared, 1u);
  EXPECT_EQ(cluster.seen().restarted, 0u);
}

TEST(PushEnds, when_its_time_is_over) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(100'000'000, 1));
  cluster.add_hosts(1);
  lead::PushRequest request = cluster.push_all();
  request.max_time = 500 * kMillisecond;
  const uint64_t started = cluster.now();
  ASSERT_TRUE(cluster.run_push(request, 20 * kSecond));
  EXPECT_LT(cluster.now() - started, 510 * kMillisecond);
  const lead::PushReport report = cluster.lead().push_report();
  EXPECT_FALSE(report.complete());
  EXPECT_EQ(report.nodes[0].open.size(), 1u);
}

TEST(PushEnds, when_its_time_is_over_before_any_node_came) {
  LeadCluster cluster;
  cluster.store.add("file", pattern(1000, 1));
  cluster.add_host(false);
  lead::PushRequest request = cluster.push_all();
  request.max_time = 500 * kMillisecond;
  const uint64_t started = cluster.now();
  ASSERT_TRUE(cluster.run_push(request, 20 * kSecond));
  EXPECT_LT(cluster.now() - started, 510 * kMillisecond);
  EXPECT_FALSE(cluster.lead().push_report().complete());
}

}  // namespace
}  // namespace pkgdist::test
