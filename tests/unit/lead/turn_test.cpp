#include "stream/turn.h"

#include <gtest/gtest.h>

#include <set>

namespace pkgdist::lead {
namespace {

std::set<uint32_t> behind(const Turn& turn, uint32_t first, uint32_t num, uint64_t on_the_way = 0) {
  std::set<uint32_t> found;
  turn.behind(first, num, on_the_way, [&](uint32_t from, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) EXPECT_TRUE(found.insert(from + i).second);
  });
  return found;
}

void advance(Turn& turn, int steps) {
  for (int i = 0; i < steps; ++i) turn.advance();
}

TEST(Turn, goes_once_through_the_file) {
  Turn turn(3);
  for (uint32_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(turn.active());
    EXPECT_EQ(turn.segment(), i);
    turn.advance();
  }
  EXPECT_FALSE(turn.active());
  EXPECT_EQ(turn.last(), 2u);
}

TEST(Turn, wraps_until_a_joiner_had_one_whole_turn) {
  Turn turn(4);
  advance(turn, 2);
  turn.extend();
  std::string order;
  for (; turn.active(); turn.advance()) order += std::to_string(turn.segment());
  EXPECT_EQ(order, "2301");
  EXPECT_EQ(turn.last(), 1u);
}

TEST(Turn, starts_from_the_front_when_extended_after_its_end) {
  Turn turn(2);
  advance(turn, 2);
  turn.extend();
  EXPECT_EQ(turn.segment(), 0u);
  EXPECT_EQ(turn.ahead(), 2u);
}

TEST(Turn, only_what_the_stream_has_passed_is_behind) {
  Turn turn(10);
  EXPECT_TRUE(behind(turn, 0, 10).empty());
  advance(turn, 4);
  EXPECT_EQ(behind(turn, 0, 10), (std::set<uint32_t>{0, 1, 2, 3}));
  EXPECT_EQ(behind(turn, 2, 5), (std::set<uint32_t>{2, 3}));
  advance(turn, 6);
  EXPECT_EQ(behind(turn, 0, 10).size(), 10u);
}

TEST(Turn, a_run_may_go_round_the_end_of_the_file) {
  Turn turn(10);
  advance(turn, 10);
  EXPECT_EQ(behind(turn, 8, 4), (std::set<uint32_t>{8, 9, 0, 1}));
}

TEST(Turn, what_may_still_be_on_its_way_is_not_behind) {
  Turn turn(10);
  advance(turn, 4);
  EXPECT_EQ(behind(turn, 0, 10, 1), (std::set<uint32_t>{0, 1, 2}));
  EXPECT_TRUE(behind(turn, 0, 10, 5).empty());
  advance(turn, 6);
  EXPECT_EQ(behind(turn, 6, 4, 3), (std::set<uint32_t>{6}));
  turn.extend();
  advance(turn, 2);
  EXPECT_EQ(behind(turn, 0, 10, 1), (std::set<uint32_t>{0}));
}

TEST(Turn, a_run_that_goes_to_the_end_has_the_last_segment) {
  Turn turn(10);
  EXPECT_TRUE(turn.has_last(9, 1));
  EXPECT_TRUE(turn.has_last(8, 4));
  EXPECT_FALSE(turn.has_last(3, 6));
  EXPECT_FALSE(turn.has_last(0, 9));
}

TEST(Turn, nothing_is_behind_while_a_joiner_has_its_turn) {
  Turn turn(10);
  advance(turn, 7);
  turn.extend();
  EXPECT_TRUE(behind(turn, 0, 10).empty());
  advance(turn, 5);  // segments 7, 8, 9, 0, 1
  EXPECT_EQ(behind(turn, 0, 10), (std::set<uint32_t>{7, 8, 9, 0, 1}));
}

}  // namespace
}  // namespace pkgdist::lead
