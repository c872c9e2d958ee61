#include "stream/straggler_watch.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

class StragglerWatchTest : public testing::Test {
 protected:
  // The stream stands still because of the node for a part of every ten milliseconds.
  NodeIndex hold(NodeIndex node, Time part, int times) {
    for (int i = 0; i < times; ++i) {
      watch_.held_up_by(node, now_);
      watch_.held_up_by(kNoNode, now_ + part);
      now_ += 10 * kMillisecond;
      if (const NodeIndex found = watch_.take(now_, kPatience); found != kNoNode) return found;
    }
    return kNoNode;
  }
  static constexpr Time kPatience = kSecond;
  StragglerWatch watch_;
  Time now_ = kSecond;
};

TEST_F(StragglerWatchTest, finds_the_node_that_holds_the_others_up_most_of_the_time) {
  EXPECT_EQ(hold(3, 8 * kMillisecond, 200), 3u);
}

TEST_F(StragglerWatchTest, does_not_blame_a_node_before_the_patience_is_over) {
  EXPECT_EQ(hold(3, 9 * kMillisecond, 95), kNoNode);
}

TEST_F(StragglerWatchTest, does_not_blame_a_node_that_is_a_little_slower) {
  EXPECT_EQ(hold(3, 4 * kMillisecond, 1000), kNoNode);
}

TEST_F(StragglerWatchTest, does_not_blame_nodes_that_hold_each_other_up_by_turns) {
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(hold(static_cast<NodeIndex>(i % 2), 9 * kMillisecond, 1), kNoNode);
}

TEST_F(StragglerWatchTest, a_pause_of_the_stream_is_nobodys_fault) {
  for (int i = 0; i < 20; ++i) {
    watch_.held_up_by(3, now_);
    now_ += 2 * kSecond;
    watch_.held_up_by(kNoNode, now_);
    EXPECT_EQ(watch_.take(now_, kPatience), kNoNode);
  }
}

}  // namespace
}  // namespace pkgdist::lead
