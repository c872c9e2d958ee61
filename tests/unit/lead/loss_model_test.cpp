#include "loss_model.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace pkgdist::test {
namespace {

std::string fates(Path& path, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    const Fate fate = path.next();
    text += fate.dropped ? 'x' : static_cast<char>('0' + fate.copies);
  }
  return text;
}

TEST(LossModel, equal_seeds_lose_the_same_datagrams) {
  Path a, b, c;
  a.with<RandomLoss>(0.5, 1u);
  b.with<RandomLoss>(0.5, 1u);
  c.with<RandomLoss>(0.5, 2u);
  const std::string text = fates(a, 200);
  EXPECT_EQ(text, fates(b, 200));
  EXPECT_NE(text, fates(c, 200));
}

TEST(LossModel, random_loss_keeps_its_rate) {
  Path path;
  path.with<RandomLoss>(0.2, 3u);
  const std::string text = fates(path, 20000);
  EXPECT_NEAR(static_cast<double>(std::count(text.begin(), text.end(), 'x')), 4000, 200);
}

TEST(LossModel, a_range_is_dropped_exactly) {
  Path path;
  path.with<DropRange>(2u, 3u);
  EXPECT_EQ(fates(path, 7), "11xxx11");
}

TEST(LossModel, bursts_have_their_length) {
  Path path;
  path.with<BurstLoss>(0.05, 4, 5u);
  std::string text = fates(path, 1000);
  EXPECT_NE(text.find("xxxx"), std::string::npos);
  EXPECT_EQ(text.find("1xxx1"), std::string::npos);
}

TEST(LossModel, models_compose) {
  Path path;
  path.with<DropRange>(0u, 1u).with<RandomDuplicate>(1.0, 1u);
  EXPECT_EQ(fates(path, 3), "x22");
}

TEST(LossModel, jitter_delays_within_its_bound_and_repeats_with_its_seed) {
  Path a, b;
  a.with<Jitter>(1000u, 1u);
  b.with<Jitter>(1000u, 1u);
  uint64_t least = UINT64_MAX, most = 0;
  for (int i = 0; i < 1000; ++i) {
    const uint64_t delay = a.next().extra_delay_ns;
    EXPECT_EQ(delay, b.next().extra_delay_ns);
    least = std::min(least, delay);
    most = std::max(most, delay);
  }
  EXPECT_LT(least, 50u);
  EXPECT_GT(most, 950u);
  EXPECT_LE(most, 1000u);
}

TEST(LossModel, only_copies_come_late) {
  Path single, twice;
  single.with<LateCopies>(1000u, 1u);
  twice.with<RandomDuplicate>(1.0, 1u).with<LateCopies>(1000u, 1u);
  EXPECT_EQ(single.next().copy_delay_ns, 0u);
  EXPECT_NE(twice.next().copy_delay_ns, 0u);
  EXPECT_EQ(twice.next().extra_delay_ns, 0u);
}

TEST(LossModel, an_outage_drops_while_it_lasts) {
  const auto down = std::make_shared<bool>(false);
  Path path;
  path.with<Outage>(down);
  EXPECT_EQ(fates(path, 1), "1");
  *down = true;
  EXPECT_EQ(fates(path, 2), "xx");
  *down = false;
  EXPECT_EQ(fates(path, 1), "1");
}

TEST(LossModel, a_delay_delays_everything_alike) {
  Path path;
  path.with<Delay>(500u).with<Delay>(7u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(path.next().extra_delay_ns, 507u);
}

constexpr size_t kFull = 1428;

TEST(LossModel, a_socket_of_the_usual_size_holds_92_full_datagrams) {
  Path path;
  const auto socket = path.add<NodeSocket>(NodeSocket::kUsualSize, 1e6);
  for (int i = 0; i < 92; ++i) EXPECT_FALSE(path.next(1000, kFull).dropped) << i;
  EXPECT_TRUE(path.next(1000, kFull).dropped);
  EXPECT_FALSE(path.next(1000, 100).dropped);  // a small one fits in
  EXPECT_EQ(socket->dropped(), 1u);
  EXPECT_EQ(socket->most_used(), 92 * NodeSocket::kFullCharge + NodeSocket::kSmallCharge);
}

TEST(LossModel, a_node_handles_one_datagram_after_the_other_at_its_rate) {
  Path path;
  path.with<NodeSocket>(NodeSocket::kUsualSize, 1e6);  // a microsecond per byte
  EXPECT_EQ(path.next(0, 1000).extra_delay_ns, 1'000'000u);
  EXPECT_EQ(path.next(0, 1000).extra_delay_ns, 2'000'000u);
  EXPECT_EQ(path.next(1'500'000, 1000).extra_delay_ns, 1'500'000u);
  EXPECT_EQ(path.next(9'000'000, 1000).extra_delay_ns, 1'000'000u);
}

TEST(LossModel, a_socket_has_room_again_as_soon_as_a_datagram_was_handled) {
  Path path;
  path.with<NodeSocket>(2 * NodeSocket::kFullCharge, 1e6);
  EXPECT_FALSE(path.next(0, 1000).dropped);
  EXPECT_FALSE(path.next(0, 1000).dropped);
  EXPECT_TRUE(path.next(999'999, 1000).dropped);
  EXPECT_FALSE(path.next(1'000'000, 1000).dropped);
}

TEST(LossModel, a_port_sends_at_its_rate_and_drops_what_its_buffer_does_not_hold) {
  Path path;
  const auto port = path.add<LinkPort>(100'000u, 300e6);
  int held = 0;
  while (!path.next(0, kFull).dropped) ++held;
  EXPECT_EQ(held, static_cast<int>(100'000 / (kFull + 46)));
  EXPECT_EQ(port->dropped(), 1u);
  // At 300 Mbit/s for a second.
  uint64_t passed = 0;
  for (uint64_t at = 1'000'000'000; at < 2'000'000'000; at += 20'000)
    passed += path.next(at, kFull).dropped ? 0 : LinkPort::wire_bytes(kFull);
  EXPECT_NEAR(static_cast<double>(passed), 300e6 / 8 + 100'000, 5'000);
}

TEST(LossModel, what_was_dropped_before_takes_no_room_in_a_queue) {
  Path path;
  path.with<DropRange>(0u, 5u);
  const auto socket = path.add<NodeSocket>(NodeSocket::kFullCharge, 1e6);
  for (int i = 0; i < 5; ++i) path.next(0, kFull);
  EXPECT_FALSE(path.next(0, kFull).dropped);
  EXPECT_EQ(socket->dropped(), 0u);
}

TEST(LossModel, a_queue_behind_a_delay_counts_from_the_arrival) {
  Path path;
  path.with<Delay>(5'000'000u).with<NodeSocket>(NodeSocket::kUsualSize, 1e6);
  EXPECT_EQ(path.next(0, 1000).extra_delay_ns, 6'000'000u);
  EXPECT_EQ(path.next(5'500'000, 1000).extra_delay_ns, 6'000'000u);
}

}  // namespace
}  // namespace pkgdist::test
