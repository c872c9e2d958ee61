#include "stream/repair_queue.h"

#include <gtest/gtest.h>

#include <bit>

namespace pkgdist::lead {
namespace {

constexpr uint64_t kAll = UINT64_MAX;  // parts

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

TEST(RepairQueue, gathers_what_nodes_ask_for_one_after_the_other) {
  RepairQueue queue(100);
  EXPECT_EQ(queue.ready_at(), 0);
  queue.gather(true);
  queue.request(5, 1, kSecond);
  EXPECT_EQ(queue.ready_at(), kSecond + 2 * kMillisecond);
  queue.request(5, 1, kSecond + kMillisecond);
  EXPECT_EQ(queue.ready_at(), kSecond + 3 * kMillisecond);
  queue.gather(false);
  EXPECT_EQ(queue.ready_at(), 0);
}

TEST(RepairQueue, gathers_for_a_turn_of_the_nodes_timers_at_most) {
  RepairQueue queue(100);
  queue.gather(true);
  for (Time at = 0; at < 40 * kMillisecond; at += kMillisecond) queue.request(5, 1, kSecond + at);
  EXPECT_EQ(queue.ready_at(), kSecond + 20 * kMillisecond);
  queue.take(2 * kSecond);
  queue.request(7, 1, 2 * kSecond);
  EXPECT_EQ(queue.ready_at(), 2 * kSecond + 2 * kMillisecond) << "the next ones begin anew";
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

TEST(RepairQueue, a_request_after_a_silence_replaces_what_was_asked_for) {
  RepairQueue queue(100);
  queue.request(1, 2, kSecond);
  queue.request(7, 1, kSecond + 40 * kMillisecond);
  EXPECT_EQ(queue.asked(kAll), 3u);
  queue.request(2, 1, kSecond + 100 * kMillisecond);
  EXPECT_EQ(queue.asked(kAll), 1u);
  EXPECT_TRUE(queue.was_asked(2));
}

TEST(RepairQueue, repeats_what_was_asked_for_until_it_is_forgotten) {
  RepairQueue queue(100);
  queue.request(1, 2, kSecond);
  queue.take(kSecond);
  queue.take(kSecond);
  queue.repeat_asked(kAll);
  EXPECT_EQ(queue.take(2 * kSecond), 1u);
  EXPECT_EQ(queue.take(2 * kSecond), 2u);
  queue.forget_asked();
  queue.repeat_asked(kAll);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, repeats_what_one_node_asked_for) {
  RepairQueue queue(12);
  queue.request(1, 2, kSecond);
  queue.request(11, 1, kSecond);
  while (!queue.empty()) queue.take(kSecond);
  const uint64_t parts = queue.parts_of(11, 1);
  EXPECT_EQ(queue.asked(parts), 1u);
  queue.repeat_asked(parts);
  EXPECT_EQ(queue.take(2 * kSecond), 11u);
  EXPECT_TRUE(queue.empty());
}

TEST(RepairQueue, parts_of_a_small_file_are_its_segments) {
  const RepairQueue queue(64);
  for (uint32_t segment = 0; segment < 64; ++segment)
    EXPECT_EQ(queue.parts_of(segment, 1), uint64_t{1} << segment);
  EXPECT_EQ(queue.parts_of(0, 64), kAll);
}

TEST(RepairQueue, parts_of_a_large_file_hold_every_segment_of_a_run) {
  const RepairQueue queue(1000);
  for (uint32_t first = 0; first < 1000; first += 37) {
    for (uint32_t num = 1; first + num <= 1000; num += 61) {
      const uint64_t parts = queue.parts_of(first, num);
      for (uint32_t at = first; at < first + num; ++at)
        ASSERT_NE(parts & queue.part_of(at), 0u) << first << ' ' << num;
      EXPECT_LE(std::popcount(parts), static_cast<int>(num / 16 + 2));
    }
  }
}

}  // namespace
}  // namespace pkgdist::lead
