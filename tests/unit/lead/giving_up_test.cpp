// When a node is given up: what it says and does not say, round after round.
#include "stream/giving_up.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {
namespace {

constexpr uint32_t kManyRounds = 100;

class GivingUpTest : public testing::Test {
 protected:
  GivingUpTest() : transfer_(7, {1, "file"}, {}, 10) {
    transfer_.set_state(0, TransferNode::State::kOpen);
    transfer_.node(0).hear(kSecond);
  }
  TransferNode& node() { return transfer_.node(0); }
  uint64_t verdict(Time now) const { return giving_up_.verdict(transfer_, 0, now); }
  void idle(uint32_t rounds, Time now) {
    for (uint32_t i = 0; i < rounds; ++i) giving_up_.was_idle(7, 0, now);
  }

  Transfer transfer_;
  GivingUp giving_up_;
};

TEST_F(GivingUpTest, a_silent_node_is_waited_for_as_long_as_it_can_remember_the_file) {
  node().unanswered = GivingUp::kSilentPolls;
  EXPECT_EQ(verdict(kSecond + 34 * kSecond), 0u);
  EXPECT_EQ(verdict(kSecond + 35 * kSecond), PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
}

TEST_F(GivingUpTest, a_node_that_was_hardly_asked_is_not_silent) {
  node().unanswered = GivingUp::kSilentPolls - 1;
  EXPECT_EQ(verdict(1000 * kSecond), 0u);
}

TEST_F(GivingUpTest, a_node_that_asks_for_nothing_and_never_did_gets_no_segments) {
  idle(kManyRounds, kSecond);
  EXPECT_EQ(verdict(15 * kSecond), 0u);
  EXPECT_EQ(verdict(16 * kSecond), PKGDIST_STATUS_FROM_ERRNO(EMSGSIZE));
}

TEST_F(GivingUpTest, a_few_rounds_are_not_enough) {
  idle(3, kSecond);
  EXPECT_EQ(verdict(1000 * kSecond), 0u);
}

TEST_F(GivingUpTest, a_file_of_one_segment_may_have_been_lost_as_often) {
  Transfer small(7, {1, "small"}, {}, 1);
  small.set_state(0, TransferNode::State::kOpen);
  small.node(0).hear(1000 * kSecond);
  idle(kManyRounds, kSecond);
  EXPECT_EQ(giving_up_.verdict(small, 0, 40 * kSecond), 0u);
  EXPECT_EQ(giving_up_.verdict(small, 0, 46 * kSecond), PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
}

TEST_F(GivingUpTest, a_node_that_asks_for_the_same_again_and_again_gets_longer) {
  node().has_info = true;
  Time now = kSecond;
  for (uint32_t i = 0; i < kManyRounds; ++i, now += 200 * kMillisecond)
    giving_up_.has_asked(7, 0, 3, now);
  EXPECT_EQ(verdict(44 * kSecond), 0u);
  EXPECT_EQ(verdict(47 * kSecond), PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
}

TEST_F(GivingUpTest, a_node_that_lacks_less_and_less_is_waited_for) {
  node().has_info = true;
  Time now = kSecond;
  for (uint32_t lacking = 9; lacking > 0; --lacking, now += 30 * kSecond) {
    giving_up_.has_asked(7, 0, lacking, now);
    idle(kManyRounds, now);
    EXPECT_EQ(verdict(now), 0u) << lacking;
  }
}

TEST_F(GivingUpTest, what_is_forgotten_begins_anew) {
  idle(kManyRounds, kSecond);
  giving_up_.forget(7);
  EXPECT_EQ(verdict(100 * kSecond), 0u);
  idle(kManyRounds, 100 * kSecond);
  EXPECT_EQ(verdict(114 * kSecond), 0u);
  giving_up_.forget(7, 0);
  EXPECT_EQ(verdict(1000 * kSecond), 0u);
}

}  // namespace
}  // namespace pkgdist::lead
