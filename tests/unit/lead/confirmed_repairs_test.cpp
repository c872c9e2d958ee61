#include "confirmed_repairs.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

using Batch = ConfirmedRepairs::Batch;

constexpr Time kAnswerTime = 10 * kMillisecond;

TEST(ConfirmedRepairs, a_batch_is_due_until_it_is_sent_and_again_without_an_answer) {
  ConfirmedRepairs repairs;
  repairs.add(80, {80, 81}, {0});
  Batch* batch = repairs.next_due(kSecond);
  ASSERT_NE(batch, nullptr);
  EXPECT_EQ(batch->segments, (std::vector<uint32_t>{80, 81}));
  ConfirmedRepairs::sent(*batch, 0, 7, kSecond, kAnswerTime);
  EXPECT_EQ(repairs.next_due(kSecond + kAnswerTime - 1), nullptr);
  EXPECT_EQ(repairs.due(), kSecond + kAnswerTime);
  EXPECT_EQ(repairs.next_due(kSecond + kAnswerTime), batch);
}

TEST(ConfirmedRepairs, the_answer_to_the_question_behind_it_confirms_a_batch) {
  ConfirmedRepairs repairs;
  ConfirmedRepairs::sent(repairs.add(80, {80}, {3}), 0, 7, kSecond, kAnswerTime);
  EXPECT_EQ(repairs.answered(7, 3, kSecond + kMillisecond), kMillisecond + 1);
  EXPECT_TRUE(repairs.empty());
  EXPECT_EQ(repairs.due(), kNever);
}

TEST(ConfirmedRepairs, a_question_before_it_has_to_be_answered_as_well) {
  for (const bool before_first : {true, false}) {
    ConfirmedRepairs repairs;
    ConfirmedRepairs::sent(repairs.add(80, {80}, {3}), 6, 7, kSecond, kAnswerTime);
    repairs.answered(before_first ? 6 : 7, 3, kSecond);
    EXPECT_FALSE(repairs.empty());
    repairs.answered(before_first ? 7 : 6, 3, kSecond);
    EXPECT_TRUE(repairs.empty());
  }
}

TEST(ConfirmedRepairs, answers_about_an_earlier_copy_count_no_more) {
  ConfirmedRepairs repairs;
  Batch& batch = repairs.add(80, {80}, {3});
  ConfirmedRepairs::sent(batch, 6, 7, kSecond, kAnswerTime);
  repairs.answered(6, 3, kSecond);
  ConfirmedRepairs::sent(batch, 8, 9, kSecond + kAnswerTime, kAnswerTime);
  EXPECT_EQ(repairs.answered(7, 3, kSecond + kAnswerTime), 0u);
  repairs.answered(9, 3, kSecond + kAnswerTime);
  EXPECT_FALSE(repairs.empty());
}

TEST(ConfirmedRepairs, all_who_asked_have_to_answer) {
  ConfirmedRepairs repairs;
  Batch& batch = repairs.add(80, {80}, {3});
  EXPECT_TRUE(repairs.join(80, 5));
  EXPECT_TRUE(repairs.join(80, 5));
  EXPECT_FALSE(repairs.join(120, 5));
  ConfirmedRepairs::sent(batch, 0, 7, kSecond, kAnswerTime);
  repairs.answered(7, 3, kSecond);
  repairs.answered(7, 3, kSecond);
  ASSERT_FALSE(repairs.empty());
  repairs.answered(7, 5, kSecond);
  EXPECT_TRUE(repairs.empty());
}

TEST(ConfirmedRepairs, nobody_waits_for_a_node_that_is_gone) {
  ConfirmedRepairs repairs;
  repairs.add(80, {80}, {3, 5});
  repairs.add(120, {120}, {3});
  repairs.drop_node(3);
  Batch* batch = repairs.next_due(kSecond);
  ASSERT_NE(batch, nullptr);
  EXPECT_EQ(batch->place, 80u);
  repairs.drop_node(5);
  EXPECT_TRUE(repairs.empty());
}

TEST(ConfirmedRepairs, the_oldest_goes_first) {
  ConfirmedRepairs repairs;
  ConfirmedRepairs::sent(repairs.add(80, {80}, {3}), 0, 7, kSecond, kAnswerTime);
  repairs.add(120, {120}, {3});
  EXPECT_EQ(repairs.next_due(kSecond)->place, 120u);
  EXPECT_EQ(repairs.next_due(kSecond + kAnswerTime)->place, 80u);
}

TEST(ConfirmedRepairs, a_batch_that_nobody_confirms_is_given_up) {
  ConfirmedRepairs repairs;
  repairs.add(80, {80}, {3});
  unsigned sent = 0;
  Time now = kSecond;
  for (; Batch* batch = repairs.next_due(now); now += kAnswerTime, ++sent)
    ConfirmedRepairs::sent(*batch, 0, 7 + sent, now, kAnswerTime);
  EXPECT_EQ(sent, 6u);
  EXPECT_TRUE(repairs.empty());
}

TEST(ConfirmedRepairs, a_stranger_s_number_is_no_answer) {
  ConfirmedRepairs repairs;
  repairs.add(80, {80}, {3});
  EXPECT_EQ(repairs.answered(0, 3, kSecond), 0u);
  EXPECT_EQ(repairs.answered(9, 3, kSecond), 0u);
  EXPECT_FALSE(repairs.empty());
}

TEST(ConfirmedRepairs, no_more_than_a_bounded_number_is_waited_for) {
  ConfirmedRepairs repairs;
  uint32_t place = 0;
  for (; !repairs.full(); place += 40) repairs.add(place, {place}, {3});
  EXPECT_EQ(place / 40, 256u);
}

}  // namespace
}  // namespace pkgdist::lead
