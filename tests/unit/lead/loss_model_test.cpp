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

}  // namespace
}  // namespace pkgdist::test
