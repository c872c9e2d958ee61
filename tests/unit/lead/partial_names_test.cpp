// Files whose name is that of another one's partial file: never on their way to a node at once.
#include <gtest/gtest.h>

#include <set>

#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

// Notes which transfers are on their way at once, by what the lead says on the data channel.
class Traffic {
 public:
  explicit Traffic(LeadCluster& cluster) {
    cluster.on_sent = [this](lead::Channel channel, uint32_t, std::span<const uint8_t> bytes) {
      if (channel == lead::Channel::kData) note(bytes);
    };
  }
  // The names of the files in the order in which their information was sent first.
  const std::vector<std::string>& order() const { return order_; }

 private:
  void note(std::span<const uint8_t> bytes) {
    const Parts parts = parts_of(bytes);
    const Message<pkgdist_data_msg_hdr> header(parts.header);
    if (!header.ok() || header->msg_id != PKGDIST_DATA_MSG_FILE_INFO) return;
    const Message<pkgdist_data_send_file_info> info(parts.body);
    if (info.ok() && seen_.insert(info->name).second) order_.emplace_back(info->name);
  }
  std::set<std::string> seen_;
  std::vector<std::string> order_;
};

void add_pairs(MemoryStore& store) {
  for (int i = 0; i < 8; ++i) {
    const std::string name = "f" + std::to_string(i);
    const auto seed = static_cast<uint64_t>(10 * i);
    store.add(name, pattern(40'000, seed + 1));
    store.add(name + ".tmp", pattern(40'000, seed + 2));
  }
  store.add("chain", pattern(20'000, 101));
  store.add("chain.tmp", pattern(20'000, 102));
  store.add("chain.tmp.tmp", pattern(20'000, 103));
  store.add("tree", pattern(20'000, 104));
  store.add("tree.tmp/file", pattern(20'000, 105));
  store.add("d.tmp/f", pattern(20'000, 106));
  store.add("d.tmp/f.tmp", pattern(20'000, 107));
  store.add("linked", pattern(20'000, 108));
  store.add_link("linked.tmp", "f0");
}

class PartialNames : public testing::TestWithParam<uint64_t> {
 protected:
  PartialNames() { add_pairs(cluster_.store); }
  void expect_whole() {
    EXPECT_TRUE(cluster_.lead().push_report().complete());
    EXPECT_TRUE(cluster_.identical());
  }
  LeadCluster cluster_;
};

INSTANTIATE_TEST_SUITE_P(Seeds, PartialNames, testing::Range<uint64_t>(1, 9));

TEST_P(PartialNames, a_push_of_both_brings_both) {
  cluster_.add_hosts(3);
  cluster_.set_loss(0.03, 0.03, GetParam());
  ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 120 * kSecond));
  expect_whole();
}

TEST_P(PartialNames, new_content_of_both_replaces_both) {
  cluster_.add_hosts(2);
  cluster_.set_loss(0.03, 0.03, GetParam());
  ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 120 * kSecond));
  for (const char* name : {"f1", "f2.tmp", "chain", "chain.tmp"})
    cluster_.store.add(name, pattern(50'000, GetParam()), 0644, 1'700'000'000);
  ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 120 * kSecond));
  expect_whole();
}

TEST_P(PartialNames, a_node_that_comes_while_the_second_is_on_its_way_gets_the_first_before) {
  cluster_.store.add("f1.tmp", pattern(3'000'000, 7));
  cluster_.add_hosts(2);
  cluster_.add_host(false);
  cluster_.set_loss(0.02, 0.02, GetParam());
  lead::PushRequest request = cluster_.push_all();
  request.node_count = 2;
  ASSERT_EQ(cluster_.lead().start_push(request, cluster_.now()), nullptr);
  Traffic traffic(cluster_);
  const auto second_begun = [&] {
    return std::count(traffic.order().begin(), traffic.order().end(), "f1.tmp") != 0;
  };
  ASSERT_TRUE(cluster_.run_until(second_begun, 60 * kSecond));
  cluster_.start_node(2);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.seen().appeared == 3; }, 10 * kSecond));
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 120 * kSecond));
  expect_whole();
}

TEST_P(PartialNames, a_node_that_restarts_on_the_way_gets_both) {
  cluster_.add_hosts(2);
  cluster_.set_loss(0.03, 0.03, GetParam());
  ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
  cluster_.run_for(1100 * kMillisecond + GetParam() * 5 * kMillisecond);
  cluster_.stop_node(0);
  cluster_.run_for(100 * kMillisecond);
  cluster_.start_node(0);
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 120 * kSecond));
  expect_whole();
}

TEST_P(PartialNames, a_node_that_asks_for_one_while_the_other_is_pushed_gets_both) {
  cluster_.store.add("f1", pattern(2'000'000, 3));
  cluster_.add_hosts(2);
  cluster_.set_loss(0.02, 0.02, GetParam());
  cluster_.run_for(1500 * kMillisecond);
  ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
  cluster_.run_for(20 * kMillisecond);
  cluster_.node(0).get_file("f1.tmp", 1, 1, 2, cluster_.now());
  cluster_.node(1).get_file("./f2", 1, 1, 2, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 120 * kSecond));
  cluster_.run_for(5 * kSecond);
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  const Disk& wanted = cluster_.store.files();
  for (const auto& [key, file] : wanted)
    for (size_t i = 0; i < 2; ++i) {
      ASSERT_TRUE(cluster_.host(i).disk.contains(key)) << key;
      EXPECT_EQ(cluster_.host(i).disk.at(key), file) << key;
    }
}

TEST_P(PartialNames, requests_for_both_outside_of_a_push_are_served_one_after_the_other) {
  cluster_.add_hosts(2);
  cluster_.set_loss(0.03, 0.03, GetParam());
  cluster_.run_for(2 * kSecond);
  for (const char* name : {"f1", "f1.tmp", "chain", "chain.tmp", "tree", "tree.tmp/file"})
    for (size_t i = 0; i < 2; ++i) cluster_.node(i).get_file(name, 1, 1, 2, cluster_.now());
  const auto idle = [&] { return !cluster_.node(0).receiving() && !cluster_.node(1).receiving(); };
  ASSERT_TRUE(cluster_.run_until(idle, 30 * kSecond));
  for (size_t i = 0; i < 2; ++i)
    for (const auto& [key, file] : cluster_.host(i).disk)
      EXPECT_EQ(file, cluster_.store.files().at(key)) << key;
  for (size_t i = 0; i < 2; ++i) EXPECT_EQ(cluster_.host(i).disk.size(), 6u);
}

TEST(PartialNamesOrder, the_second_is_sent_when_the_first_has_ended_whatever_the_order_given) {
  LeadCluster cluster;
  add_pairs(cluster.store);
  cluster.add_hosts(2);
  lead::PushRequest request = cluster.push_all();
  std::reverse(request.files.begin(), request.files.end());
  Traffic traffic(cluster);
  ASSERT_TRUE(cluster.run_push(request, 60 * kSecond));
  const auto place = [&](const std::string& name) {
    return std::find(traffic.order().begin(), traffic.order().end(), name);
  };
  for (const char* name : {"f0", "f7", "chain", "chain.tmp", "d.tmp/f", "linked"})
    EXPECT_LT(place(name), place(std::string(name) + ".tmp")) << name;
  EXPECT_LT(place("tree"), place("tree.tmp/file"));
  EXPECT_TRUE(cluster.identical());
}

TEST(PartialNamesOrder, the_report_names_files_by_their_place_in_the_request) {
  LeadCluster cluster;
  cluster.store.add("a", pattern(1000, 1));
  cluster.store.add("a.tmp", pattern(1000, 2));
  cluster.add_hosts(1);
  cluster.store.break_open("a", EACCES);
  lead::PushRequest request;
  request.files = {{"a.tmp", 1000}, {"a", 1000}};
  ASSERT_TRUE(cluster.run_push(request, 60 * kSecond));
  const lead::PushReport report = cluster.lead().push_report();
  ASSERT_EQ(report.nodes.at(0).failed.size(), 1u);
  EXPECT_EQ(report.nodes[0].failed.begin()->first, 1u);
}

TEST(PartialNamesOrder, a_node_that_lacks_everything_has_all_of_the_request_open) {
  LeadCluster cluster;
  cluster.store.add("a", pattern(10'000'000, 1));
  cluster.store.add("a.tmp", pattern(1000, 2));
  cluster.add_hosts(1);
  lead::PushRequest request;
  request.files = {{"a.tmp", 1000}, {"a", 10'000'000}};
  request.max_time = 50 * kMillisecond;
  ASSERT_TRUE(cluster.run_push(request, 60 * kSecond));
  std::vector<uint32_t> open = cluster.lead().push_report().nodes.at(0).open;
  std::sort(open.begin(), open.end());
  EXPECT_EQ(open, (std::vector<uint32_t>{0, 1}));
}

// Of one content, not to be told apart by their names alone.
TEST(PartialNamesOrder, two_ways_to_write_one_name_are_sent_one_after_the_other) {
  LeadCluster cluster;
  cluster.store.add("a", pattern(50'000, 1));
  cluster.store.add("./a", pattern(50'000, 1));
  cluster.add_hosts(2);
  ASSERT_TRUE(cluster.run_push(cluster.push_all(), 60 * kSecond));
  EXPECT_TRUE(cluster.lead().push_report().complete());
}

}  // namespace
}  // namespace pkgdist::test
