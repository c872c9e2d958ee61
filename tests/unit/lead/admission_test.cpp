#include "admission.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

TEST(RequestSlots, a_node_has_so_many_and_leaves_others_theirs) {
  RequestSlots slots;
  for (size_t i = 0; i < Slots::kRequestedByNode; ++i) {
    ASSERT_TRUE(slots.free_for(3));
    slots.take(3);
  }
  EXPECT_FALSE(slots.free_for(3));
  EXPECT_TRUE(slots.free_for(4));
  slots.give_back(3);
  EXPECT_TRUE(slots.free_for(3));
}

TEST(RequestSlots, all_nodes_together_have_so_many) {
  RequestSlots slots;
  for (NodeIndex i = 0; i < Slots::kRequested; ++i) slots.take(i % 100);
  EXPECT_FALSE(slots.free_for(5));
  EXPECT_FALSE(slots.free_for(1000));
  slots.give_back(5);
  EXPECT_TRUE(slots.free_for(1000));
}

TEST(AllowanceTest, a_stock_is_used_up_and_fills_again) {
  Allowance allowance(10, 2);
  EXPECT_TRUE(allowance.take(1, 10, kSecond));
  EXPECT_FALSE(allowance.take(1, 1, kSecond));
  EXPECT_FALSE(allowance.take(1, 1, kSecond + 400 * kMillisecond));
  EXPECT_TRUE(allowance.take(1, 1, kSecond + 500 * kMillisecond));
  EXPECT_FALSE(allowance.take(1, 11, 1000 * kSecond));
  EXPECT_TRUE(allowance.take(1, 10, 1000 * kSecond));
}

TEST(AllowanceTest, each_node_has_its_own) {
  Allowance allowance(1, 1);
  EXPECT_TRUE(allowance.take(1, 1, kSecond));
  EXPECT_TRUE(allowance.take(2, 1, kSecond));
  EXPECT_FALSE(allowance.take(1, 1, kSecond));
}

}  // namespace
}  // namespace pkgdist::lead
