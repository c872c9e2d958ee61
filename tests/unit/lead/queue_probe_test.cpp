#include "queue_probe.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

TEST(QueueProbe, an_answer_tells_the_time_since_its_own_question) {
  QueueProbe probe;
  probe.sent(7, 1, 100 * kMillisecond);
  probe.sent(8, 1, 120 * kMillisecond);
  EXPECT_EQ(probe.answered(7, 125 * kMillisecond), 25 * kMillisecond + 1);
  EXPECT_EQ(probe.answered(8, 125 * kMillisecond), 5 * kMillisecond + 1);
}

TEST(QueueProbe, every_node_asked_may_answer) {
  QueueProbe probe;
  probe.sent(7, 1, kSecond);
  EXPECT_NE(probe.answered(7, kSecond + 1), 0u);
  EXPECT_NE(probe.answered(7, kSecond + 2), 0u);
}

TEST(QueueProbe, tells_how_long_nobody_has_answered) {
  QueueProbe probe;
  probe.sent(6, 1, 80 * kMillisecond);
  EXPECT_EQ(probe.unanswered(), 0u);  // nobody ever answered
  probe.sent(7, 1, 100 * kMillisecond);
  probe.sent(8, 1, 120 * kMillisecond);
  probe.sent(9, 1, 140 * kMillisecond);
  probe.answered(7, 141 * kMillisecond);
  EXPECT_EQ(probe.unanswered(), 2u);
  EXPECT_EQ(probe.silence(150 * kMillisecond), 30 * kMillisecond);
  probe.answered(9, 160 * kMillisecond);
  EXPECT_EQ(probe.unanswered(), 0u);
  probe.answered(8, 161 * kMillisecond);
  EXPECT_EQ(probe.unanswered(), 0u);
  EXPECT_EQ(probe.silence(170 * kMillisecond), 0u);
}

TEST(QueueProbe, silence_about_another_file_counts_only_when_that_one_was_answered_for) {
  QueueProbe probe;
  probe.sent(7, 1, 100 * kMillisecond);
  probe.answered(7, 101 * kMillisecond);
  probe.sent(8, 1, 120 * kMillisecond);
  for (TransferId number = 10; number < 20; ++number) probe.sent(number, 2, kSecond);
  probe.answered(8, kSecond);  // of the file before
  EXPECT_EQ(probe.unanswered(), 0u);
  EXPECT_EQ(probe.silence(2 * kSecond), 0u);
  probe.answered(10, kSecond);
  EXPECT_EQ(probe.unanswered(), 9u);
}

TEST(QueueProbe, other_answers_are_none) {
  QueueProbe probe;
  EXPECT_EQ(probe.answered(kNoTransfer, kSecond), 0u);
  probe.sent(7, 1, kSecond);
  EXPECT_EQ(probe.answered(6, 2 * kSecond), 0u);
  for (TransferId number = 100; number < 200; ++number) probe.sent(number, 1, kSecond);
  EXPECT_EQ(probe.answered(7, 2 * kSecond), 0u);
}

}  // namespace
}  // namespace pkgdist::lead
