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

}  // namespace
}  // namespace pkgdist::test
