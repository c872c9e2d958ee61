// Whole pushes over networks whose queues are finite: a node's socket, a switch, a long way. The
// lead has no rate: what nodes and network handle is for it to find out.
#include <gtest/gtest.h>

#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

constexpr double kGigabit = 1e9;
constexpr double kMegabyte = 1e6;  // per second

class OverrunTest : public testing::Test {
 protected:
  static lead::Settings settings() {
    lead::Settings settings = LeadCluster::default_settings();
    settings.rate_bits = 0;
    return settings;
  }

  // A host behind the lead's own link, which holds the lead up and drops nothing.
  Path& add_host() {
    const size_t index = cluster_.add_host();
    Path& down = cluster_.host(index).down;
    down.with<LinkPort>(LinkPort::kUnlimited, kGigabit);
    return down;
  }
  void push(size_t bytes) {
    cluster_.store.add("file", pattern(bytes, 1));
    ASSERT_TRUE(cluster_.run_push(cluster_.push_all(), 60 * kSecond));
    ASSERT_TRUE(cluster_.identical());
    const lead::PushReport report = cluster_.lead().push_report();
    seconds_ = static_cast<double>(report.finished_at - report.started_at) / 1e9;
    RecordProperty("milliseconds", static_cast<int>(seconds_ * 1000));
  }
  uint64_t segments_sent() { return cluster_.lead().counters().segments_sent; }
  static uint64_t segments_of(size_t bytes) {
    return (bytes + lead::kDefaultSegmentSize - 1) / lead::kDefaultSegmentSize;
  }
  // What the file's segments, each of them once, take on a link.
  static double link_seconds(size_t bytes, double bits_per_second) {
    constexpr size_t kSegmentHeader = 29;
    const double wire =
        static_cast<double>(segments_of(bytes)) *
        static_cast<double>(LinkPort::wire_bytes(lead::kDefaultSegmentSize + kSegmentHeader));
    return wire * 8 / bits_per_second;
  }

  LeadCluster cluster_{settings(), NodeTimeouts::of_the_node_program()};
  double seconds_ = 0;
};

TEST_F(OverrunTest, a_fast_node_with_a_socket_of_the_usual_size_loses_nothing) {
  const auto socket = add_host().add<NodeSocket>(NodeSocket::kUsualSize, 100 * kMegabyte);
  push(20'000'000);
  EXPECT_EQ(socket->dropped(), 0u);
  EXPECT_EQ(segments_sent(), segments_of(20'000'000));
  EXPECT_LT(seconds_, 0.2 * 1.1 + 0.05);
}

TEST_F(OverrunTest, a_slow_node_with_a_socket_of_the_usual_size_loses_nothing) {
  const auto socket = add_host().add<NodeSocket>(NodeSocket::kUsualSize, 10 * kMegabyte);
  push(20'000'000);
  EXPECT_EQ(socket->dropped(), 0u);
  EXPECT_LT(segments_sent(), segments_of(20'000'000) * 101 / 100);
  EXPECT_LT(seconds_, 2.0 * 1.1 + 0.05);
}

TEST_F(OverrunTest, one_slow_node_of_eight_sets_the_pace_and_nobody_loses_anything) {
  std::vector<std::shared_ptr<NodeSocket>> sockets;
  for (int node = 0; node < 8; ++node)
    sockets.push_back(
        add_host().add<NodeSocket>(NodeSocket::kUsualSize, (node == 5 ? 10 : 100) * kMegabyte));
  push(20'000'000);
  for (const auto& socket : sockets) EXPECT_EQ(socket->dropped(), 0u);
  EXPECT_LT(seconds_, 2.0 * 1.1 + 0.05);
}

TEST_F(OverrunTest, a_slow_switch_with_a_small_buffer_loses_little_and_stays_busy) {
  constexpr double kRate = 300e6;
  constexpr size_t kBytes = 60'000'000;
  const auto port = add_host().add<LinkPort>(100'000u, kRate);
  push(kBytes);
  RecordProperty("dropped", static_cast<int>(port->dropped()));
  EXPECT_LT(port->dropped(), segments_of(kBytes) / 100);
  EXPECT_LE(seconds_, 1.05 * link_seconds(kBytes, kRate) + 0.05);
}

TEST_F(OverrunTest, a_long_way_is_filled_within_a_second) {
  constexpr size_t kBytes = 60'000'000;
  constexpr uint64_t kOneWay = 20 * kMillisecond;
  add_host().with<Delay>(kOneWay);
  cluster_.host(0).up.with<Delay>(kOneWay);
  push(kBytes);
  EXPECT_LE(seconds_, 1.3 * link_seconds(kBytes, kGigabit) + 1.0);
}

}  // namespace
}  // namespace pkgdist::test
