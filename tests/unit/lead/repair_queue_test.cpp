#include "repair_queue.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

TEST(RepairQueue, merges_the_requests_of_several_nodes) {
  RepairQueue queue(100);
  EXPECT_EQ(queue.request(10, 3, kSecond), 3u);
  EXPECT_EQ(queue.request(11, 4, kSecond), 2u);
  for (uint32_t segment = 10; segment < 15; ++segment) EXPECT_EQ(queue.take(kSecond), segment);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, does_not_repair_a_segment_again_at_once) {
  RepairQueue queue(100);
  queue.request(5, 1, kSecond);
  queue.take(kSecond);
  EXPECT_EQ(queue.request(5, 1, kSecond + 2 * kMillisecond), 0u);
  EXPECT_EQ(queue.request(5, 1, kSecond + 11 * kMillisecond), 0u);
}

TEST(RepairQueue, repairs_a_segment_again_after_the_holdoff) {
  RepairQueue queue(100);
  queue.request(5, 1, kSecond);
  queue.take(kSecond);
  EXPECT_EQ(queue.request(5, 1, kSecond + 30 * kMillisecond), 1u);
}

TEST(RepairQueue, a_repair_on_a_long_way_is_not_sent_again_before_it_can_have_come) {
  RepairQueue queue(100);
  queue.set_holdoff(100 * kMillisecond);
  queue.request(5, 1, kSecond);
  queue.take(kSecond);
  EXPECT_EQ(queue.request(5, 1, kSecond + 90 * kMillisecond), 0u);
  EXPECT_EQ(queue.request(5, 1, kSecond + 250 * kMillisecond), 1u);
}

TEST(RepairQueue, however_long_the_way_a_node_s_time_out_is_heeded) {
  RepairQueue queue(100);
  queue.set_holdoff(30 * kSecond);
  queue.request(5, 1, kSecond);
  queue.take(kSecond);
  EXPECT_EQ(queue.request(5, 1, 3 * kSecond), 1u);
}

TEST(RepairQueue, goes_on_where_it_stood) {
  RepairQueue queue(100);
  queue.request(50, 1, kSecond);
  EXPECT_EQ(queue.take(kSecond), 50u);
  queue.request(10, 1, kSecond);
  queue.request(60, 1, kSecond);
  EXPECT_EQ(queue.take(kSecond), 60u);
  EXPECT_EQ(queue.take(kSecond), 10u);
}

TEST(RepairQueue, with_patience_repairs_wait_until_nothing_is_asked_for_a_tenth_of_a_second) {
  RepairQueue queue(100);
  queue.set_patient(true);
  EXPECT_FALSE(queue.ripen(kSecond));
  EXPECT_EQ(queue.request(5, 2, kSecond), 2u);
  EXPECT_EQ(queue.request(6, 2, kSecond + 99 * kMillisecond), 1u);
  EXPECT_FALSE(queue.ripen(kSecond + 198 * kMillisecond));
  EXPECT_TRUE(queue.ripen(kSecond + 199 * kMillisecond));
  for (const uint32_t segment : {5u, 6u, 7u})
    EXPECT_EQ(queue.take(kSecond + 200 * kMillisecond), segment);
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(queue.ripen(kSecond + 400 * kMillisecond));
}

TEST(RepairQueue, with_patience_repairs_wait_for_a_second_at_most) {
  RepairQueue queue(100);
  queue.set_patient(true);
  for (uint32_t segment = 0; segment < 20; ++segment) {
    const Time now = kSecond + segment * 50 * kMillisecond;
    queue.request(segment, 1, now);
    EXPECT_FALSE(queue.ripen(now));
  }
  EXPECT_TRUE(queue.ripen(2 * kSecond));
  for (uint32_t segment = 0; segment <= 10; ++segment) EXPECT_EQ(queue.take(2 * kSecond), segment);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, what_waits_is_due_when_the_waiting_ends) {
  RepairQueue queue(100);
  queue.set_patient(true);
  queue.request(5, 1, kSecond);
  queue.request(3, 1, kSecond + 90 * kMillisecond);
  EXPECT_FALSE(queue.ripen(kSecond + 110 * kMillisecond));
  EXPECT_TRUE(queue.empty());
  queue.end_waiting();
  EXPECT_EQ(queue.take(kSecond + 120 * kMillisecond), 3u);
  EXPECT_EQ(queue.take(kSecond + 120 * kMillisecond), 5u);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, what_is_taken_with_an_echo_comes_once_more) {
  RepairQueue queue(100);
  queue.request(1, 1, kSecond);
  queue.take(kSecond);
  queue.set_echo(true);
  queue.request(7, 2, kSecond);
  EXPECT_EQ(queue.take(kSecond), 7u);
  EXPECT_EQ(queue.take(kSecond), 8u);
  ASSERT_FALSE(queue.empty());
  EXPECT_EQ(queue.take(kSecond), 7u);
  EXPECT_EQ(queue.take(kSecond), 8u);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, an_echo_has_none_and_waits_for_what_is_asked_meanwhile) {
  RepairQueue queue(100);
  queue.set_echo(true);
  queue.request(7, 2, kSecond);
  EXPECT_EQ(queue.take(kSecond), 7u);
  EXPECT_EQ(queue.take(kSecond), 8u);
  EXPECT_EQ(queue.take(kSecond), 7u);
  queue.set_echo(true);
  queue.request(50, 1, kSecond);
  EXPECT_EQ(queue.take(kSecond), 50u);
  EXPECT_EQ(queue.take(kSecond), 8u);
  EXPECT_EQ(queue.take(kSecond), 50u);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, repeats_what_was_asked_for_until_it_is_forgotten) {
  RepairQueue queue(100);
  queue.request(1, 2, kSecond);
  queue.take(kSecond);
  queue.take(kSecond);
  queue.repeat_asked();
  EXPECT_EQ(queue.take(2 * kSecond), 1u);
  EXPECT_EQ(queue.take(2 * kSecond), 2u);
  queue.forget_asked();
  queue.repeat_asked();
  EXPECT_TRUE(queue.empty());
}

}  // namespace
}  // namespace pkgdist::lead
