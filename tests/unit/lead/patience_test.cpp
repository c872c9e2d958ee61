// How long nodes that have to appear are waited for.
#include "pkgdist_lead/patience.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

constexpr Time kLimit = 30 * kSecond;
constexpr Time kStart = 100 * kSecond;

TEST(Patience, ends_when_nobody_comes) {
  const Patience patience(kLimit, kStart);
  EXPECT_FALSE(patience.over(kStart + kLimit - 1));
  EXPECT_TRUE(patience.over(kStart + kLimit));
  EXPECT_EQ(patience.deadline(), kStart + kLimit);
  EXPECT_EQ(patience.since(), kStart);
}

TEST(Patience, begins_anew_with_every_node_that_comes) {
  Patience patience(kLimit, kStart);
  Time now = kStart;
  for (size_t nodes = 1; nodes <= 1000; ++nodes) {
    now += kLimit - 1;
    EXPECT_FALSE(patience.over(now));
    patience.note(nodes, now);
  }
  EXPECT_EQ(patience.since(), now);
  EXPECT_TRUE(patience.over(now + kLimit));
}

TEST(Patience, does_not_begin_anew_with_a_node_that_comes_and_goes) {
  Patience patience(kLimit, kStart);
  patience.note(2, kStart + kSecond);
  patience.note(1, kStart + 2 * kSecond);
  patience.note(2, kStart + 3 * kSecond);
  EXPECT_EQ(patience.deadline(), kStart + kSecond + kLimit);
}

}  // namespace
}  // namespace pkgdist::lead
