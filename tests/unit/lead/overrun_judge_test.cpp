#include "stream/overrun_judge.h"

#include <gtest/gtest.h>

#include <random>

namespace pkgdist::lead {
namespace {

using Verdict = OverrunJudge::Verdict;

// Sends segments of which a share is lost in runs; the first verdict, and after how many segments.
struct Course {
  Verdict verdict = Verdict::kNone;
  uint32_t segments = 0;
};

Course run(OverrunJudge& judge, double share, uint32_t run_length, uint32_t most, uint64_t seed) {
  std::mt19937_64 random(seed);
  std::bernoulli_distribution begins(share / run_length);
  Course course;
  while (course.segments < most && course.verdict == Verdict::kNone) {
    judge.sent(1);
    ++course.segments;
    if (begins(random)) judge.lost(0, run_length);
    course.verdict = judge.judge();
  }
  return course;
}

TEST(OverrunJudge, does_not_suspect_a_stream_without_loss) {
  OverrunJudge judge;
  EXPECT_EQ(run(judge, 0, 1, 100'000, 1).verdict, Verdict::kNone);
}

TEST(OverrunJudge, does_not_suspect_a_percent_lost_one_by_one_or_batch_by_batch) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    OverrunJudge singles, batches;
    EXPECT_EQ(run(singles, 0.01, 1, 100'000, seed).verdict, Verdict::kNone);
    EXPECT_EQ(run(batches, 0.005, 42, 100'000, seed).verdict, Verdict::kNone) << seed;
  }
}

TEST(OverrunJudge, suspects_much_loss_within_a_thousand_segments) {
  OverrunJudge judge;
  const Course course = run(judge, 0.3, 20, 100'000, 1);
  EXPECT_EQ(course.verdict, Verdict::kSuspected);
  EXPECT_LT(course.segments, 1000u);
}

TEST(OverrunJudge, loss_that_falls_on_trial_was_the_streams) {
  OverrunJudge judge;
  ASSERT_EQ(run(judge, 0.3, 20, 10'000, 1).verdict, Verdict::kSuspected);
  const Course course = run(judge, 0.01, 1, 10'000, 2);
  EXPECT_EQ(course.verdict, Verdict::kCured);
  EXPECT_LT(course.segments, 1000u);
}

TEST(OverrunJudge, loss_that_stays_is_granted_and_not_suspected_again) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    OverrunJudge judge;
    ASSERT_EQ(run(judge, 0.08, 1, 100'000, seed).verdict, Verdict::kSuspected);
    ASSERT_EQ(run(judge, 0.08, 1, 100'000, seed + 100).verdict, Verdict::kGranted);
    EXPECT_NEAR(judge.granted(), 0.08, 0.03);
    EXPECT_EQ(run(judge, 0.08, 1, 100'000, seed + 200).verdict, Verdict::kNone);
  }
}

TEST(OverrunJudge, more_than_what_is_granted_is_suspected_again) {
  OverrunJudge judge;
  run(judge, 0.08, 1, 100'000, 1);
  ASSERT_EQ(run(judge, 0.08, 1, 100'000, 2).verdict, Verdict::kGranted);
  EXPECT_EQ(run(judge, 0.4, 20, 100'000, 3).verdict, Verdict::kSuspected);
}

TEST(OverrunJudge, the_node_that_loses_most_decides) {
  OverrunJudge judge;
  judge.sent(1000);
  for (NodeIndex node = 0; node < 50; ++node) judge.lost(node, 10);
  EXPECT_EQ(judge.judge(), Verdict::kNone);
  judge.lost(7, 200);
  EXPECT_EQ(judge.judge(), Verdict::kSuspected);
}

}  // namespace
}  // namespace pkgdist::lead
