// Every push ends by itself, whatever does not get through: each port filtered in turn, lists that
// do not arrive, nodes that answer and do not take part. What it reports then is true, and nodes
// work when the trouble is over.
#include <gtest/gtest.h>

#include <cerrno>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kSecond;
using Port = LeadCluster::Port;

constexpr uint64_t kSilent = PKGDIST_STATUS_FROM_ERRNO(ECOMM);
constexpr uint64_t kReceivesNothing = PKGDIST_STATUS_FROM_ERRNO(ENODATA);
constexpr uint64_t kHearsNoLists = PKGDIST_STATUS_FROM_ERRNO(ENOMSG);

// Where nothing but small datagrams gets through.
class NoLargeDatagrams : public LossModel {
 public:
  explicit NoLargeDatagrams(size_t most) : most_(most) {}
  void decide(Fate& fate) override { fate.dropped |= fate.bytes > most_; }

 private:
  size_t most_;
};

class PushEndTest : public testing::Test {
 protected:
  PushEndTest() : cluster_(settings(), NodeTimeouts::of_the_node_program()) {
    for (int i = 0; i < 50; ++i)
      cluster_.store.add("small/" + std::to_string(i), pattern(3000, static_cast<uint64_t>(i)));
    cluster_.store.add("large", pattern(4'000'000, 99));
    cluster_.add_hosts(3);
  }
  static lead::Settings settings() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 0;
    return settings;
  }

  // Seconds of virtual time; fails when the push does not end within them.
  void push(uint64_t seconds) {
    ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), seconds * kSecond));
    report_ = cluster_.lead().push_report();
  }
  // In the middle of it when this returns.
  void begin_push() {
    ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
    ASSERT_TRUE(cluster_.run_until([&] { return cluster_.lead().counters().segments_sent > 1000; },
                                   10 * kSecond));
  }
  const lead::PushNodeReport& of(size_t host) {
    for (const lead::PushNodeReport& node : report_.nodes)
      if (node.address == cluster_.host(host).address) return node;
    ADD_FAILURE() << "not heard";
    return report_.nodes.front();
  }
  // Every file of the host ended with the status.
  void expect_ended(size_t host, uint64_t status) {
    const lead::PushNodeReport& node = of(host);
    EXPECT_EQ(node.files_left, 0u);
    if (status == 0) {
      EXPECT_EQ(node.files_done, report_.files);
      return;
    }
    EXPECT_EQ(node.failed.size(), report_.files);
    for (const auto& [file, reason] : node.failed) EXPECT_EQ(reason, status);
  }
  void expect_works_again() {
    for (size_t i = 0; i < cluster_.hosts(); ++i) cluster_.host(i).filtered.clear();
    cluster_.store.add("another", pattern(100'000, 100));
    push(60);
    EXPECT_TRUE(report_.complete());
    EXPECT_TRUE(cluster_.identical());
  }

  LeadCluster cluster_;
  lead::PushReport report_;
};

TEST_F(PushEndTest, without_the_control_group_a_node_never_appears) {
  cluster_.host(1).filtered = {Port::kControlGroup};
  push(40);
  EXPECT_EQ(report_.nodes.size(), 2u);
  EXPECT_FALSE(report_.complete());
  expect_works_again();
}

TEST_F(PushEndTest, without_the_leads_control_port_a_node_never_appears) {
  cluster_.host(1).filtered = {Port::kLead};
  push(40);
  EXPECT_EQ(report_.nodes.size(), 2u);
  EXPECT_FALSE(report_.complete());
  expect_works_again();
}

TEST_F(PushEndTest, without_the_nodes_own_port_a_push_is_whole) {
  cluster_.host(1).filtered = {Port::kNode};
  push(10);
  EXPECT_TRUE(report_.complete());
}

TEST_F(PushEndTest, a_node_that_the_data_group_does_not_reach_is_left_out) {
  cluster_.host(1).filtered = {Port::kDataGroup};
  push(60);
  expect_ended(0, 0);
  expect_ended(1, kReceivesNothing);
  expect_ended(2, 0);
  expect_works_again();
}

TEST_F(PushEndTest, a_node_whose_reports_do_not_arrive_is_left_out) {
  cluster_.host(1).filtered = {Port::kRequests};
  push(60);
  expect_ended(0, 0);
  expect_ended(1, kSilent);
  expect_ended(2, 0);
  expect_works_again();
}

TEST_F(PushEndTest, a_push_ends_when_no_report_of_any_node_arrives) {
  for (size_t i = 0; i < 3; ++i) cluster_.host(i).filtered = {Port::kRequests};
  push(60);
  for (size_t i = 0; i < 3; ++i) expect_ended(i, kSilent);
  expect_works_again();
}

TEST_F(PushEndTest, a_push_ends_when_the_data_group_reaches_nobody) {
  for (size_t i = 0; i < 3; ++i) cluster_.host(i).filtered = {Port::kDataGroup};
  push(60);
  for (size_t i = 0; i < 3; ++i) expect_ended(i, kReceivesNothing);
  expect_works_again();
}

TEST_F(PushEndTest, a_node_whose_reports_stop_arriving_is_left_out) {
  cluster_.host(1).down.with<Delay>(10'000'000u);  // the push lasts
  begin_push();
  cluster_.host(1).filtered = {Port::kRequests};
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 130 * kSecond));
  report_ = cluster_.lead().push_report();
  expect_ended(0, 0);
  EXPECT_EQ(of(1).files_left, 0u);
  EXPECT_GT(of(1).failed.size(), 0u);
  expect_ended(2, 0);
  expect_works_again();
}

TEST_F(PushEndTest, a_push_that_has_told_its_lists_does_without_the_control_group) {
  begin_push();
  cluster_.host(1).filtered = {Port::kControlGroup};
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 10 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  expect_works_again();
}

// It goes on asking for what it lacks.
TEST_F(PushEndTest, a_node_that_nothing_reaches_any_more_is_left_out) {
  begin_push();
  cluster_.host(1).filtered = {Port::kControlGroup, Port::kDataGroup};
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 130 * kSecond));
  report_ = cluster_.lead().push_report();
  expect_ended(0, 0);
  EXPECT_LT(of(1).files_done, report_.files);
  expect_ended(2, 0);
  expect_works_again();
}

TEST_F(PushEndTest, a_node_that_the_data_group_stops_reaching_is_left_out) {
  begin_push();
  cluster_.host(1).filtered = {Port::kDataGroup};
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 130 * kSecond));
  report_ = cluster_.lead().push_report();
  expect_ended(0, 0);
  EXPECT_LT(of(1).files_done, report_.files);
  EXPECT_EQ(of(1).files_left, 0u);
  expect_ended(2, 0);
  expect_works_again();
}

// Cut off before it has answered anything.
TEST_F(PushEndTest, a_node_that_is_away_is_waited_for_as_long_as_the_push_says) {
  lead::PushRequest request = cluster_.push_all();
  request.node_timeout = 100 * kSecond;
  ASSERT_EQ(cluster_.lead().start_push(request, cluster_.now()), nullptr);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.lead().counters().segments_sent > 0; },
                                 10 * kSecond));
  cluster_.cut(1, 0, true);
  cluster_.run_for(60 * kSecond);
  EXPECT_TRUE(cluster_.lead().push_running());
  cluster_.cut(1, 0, false);
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 60 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  EXPECT_TRUE(cluster_.identical());
}

// A list of many names is made of full datagrams; pings are small.
TEST_F(PushEndTest, a_node_that_never_receives_the_list_of_files_is_left_out) {
  cluster_.host(1).down.with<NoLargeDatagrams>(500u);
  push(60);
  expect_ended(0, 0);
  expect_ended(1, kHearsNoLists);
  expect_ended(2, 0);
  cluster_.host(1).down.clear();
  expect_works_again();
}

// Its acknowledgement point stands still.
TEST_F(PushEndTest, a_host_that_answers_pings_and_acknowledges_nothing_is_left_out) {
  constexpr uint32_t kStranger = 0x0A0000FE;
  using H = pkgdist_ctrl_msg_hdr;
  H reply{};
  qidl::set<&H::msg_id>(reply, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&H::node_ip>(reply, kStranger);
  qidl::set<&H::pid>(reply, 1);
  qidl::set<&H::sequence>(reply, 0);
  cluster_.on_sent = [&](lead::Channel channel, uint32_t, std::span<const uint8_t> bytes) {
    const Message<H> header(parts_of(bytes).header);
    if (channel != lead::Channel::kControl || !header.ok()) return;
    if (header->msg_id == PKGDIST_CTRL_MSG_PING) qidl::set<&H::status>(reply, header->status);
  };
  lead::PushRequest request = cluster_.push_all();
  request.node_count = 4;
  ASSERT_EQ(cluster_.lead().start_push(request, cluster_.now()), nullptr);
  for (int i = 0; i < 600 && cluster_.lead().push_running(); ++i) {
    cluster_.run_for(kSecond / 10);
    cluster_.lead().on_datagram(lead::Channel::kControl, framed(reply), kStranger, cluster_.now());
  }
  ASSERT_FALSE(cluster_.lead().push_running());
  report_ = cluster_.lead().push_report();
  ASSERT_EQ(report_.nodes.size(), 4u);
  EXPECT_EQ(report_.nodes.back().address, kStranger);
  EXPECT_EQ(report_.nodes.back().failed.at(0), kHearsNoLists);
  for (size_t i = 0; i < 3; ++i) expect_ended(i, 0);
}

// It acknowledges the lists and takes nothing from them, for example because it has no such
// location. Without a file to receive it does not listen to the data channel either.
TEST_F(PushEndTest, a_node_that_takes_no_file_of_its_lists_is_left_out) {
  cluster_.node(1).divert_file_lists([](std::span<const uint8_t>) {});
  push(60);
  expect_ended(0, 0);
  expect_ended(1, kSilent);
  expect_ended(2, 0);
}

TEST_F(PushEndTest, files_that_a_node_never_knows_end_on_it_as_unknown) {
  cluster_.node(1).divert_file_lists([](std::span<const uint8_t>) {});
  ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(1).lead() != 0; }, kSecond));
  cluster_.node(1).get_file("large", 1, 1, 4, cluster_.now());  // so it listens
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 60 * kSecond));
  report_ = cluster_.lead().push_report();
  expect_ended(0, 0);
  expect_ended(2, 0);
  EXPECT_EQ(of(1).files_done, 1u);
  EXPECT_EQ(of(1).failed.size(), report_.files - 1);
  for (const auto& [file, status] : of(1).failed) EXPECT_EQ(status, PKGDIST_STATUS_UNKNOWN_FILE);
}

}  // namespace
}  // namespace pkgdist::test
