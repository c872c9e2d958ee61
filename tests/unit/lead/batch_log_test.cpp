#include "batch_log.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace pkgdist::lead {

static bool operator==(const BatchLog::Batch& one, const BatchLog::Batch& other) {
  return one.first == other.first && one.end == other.end;
}

namespace {

using Batches = std::vector<BatchLog::Batch>;

// Batches of forty from the first segment on, of which `sent` places are sent.
BatchLog log_of(uint32_t segments, uint32_t sent) {
  BatchLog log(segments);
  for (uint32_t place = 0; place < sent; place += 40) log.begin(place);
  return log;
}

// The same with segments sent ahead from the start.
BatchLog log_with_forerunners(uint32_t segments, uint32_t sent) {
  BatchLog log = log_of(segments, sent);
  for (uint32_t place = 0; place < sent; ++place)
    if (const auto ahead = log.forerunner(place)) log.sent_ahead(*ahead);
  return log;
}

TEST(BatchLog, knows_a_batch_by_a_request_for_all_of_it) {
  const BatchLog log = log_of(10'000, 400);
  EXPECT_TRUE(log.made_of_parts(80, 40, 400));
  EXPECT_EQ(log.lost(80, 40, 400), (Batches{{80, 120}}));
  EXPECT_EQ(log.lost(80, 120, 400), (Batches{{80, 120}, {120, 160}, {160, 200}}));
}

TEST(BatchLog, the_last_batch_ends_where_the_stream_is) {
  const BatchLog log = log_of(10'000, 400);
  EXPECT_EQ(log.lost(360, 25, 385), (Batches{{360, 385}}));
}

TEST(BatchLog, a_request_that_begins_or_ends_in_a_batch_says_nothing_of_that_one) {
  const BatchLog log = log_of(10'000, 400);
  EXPECT_FALSE(log.made_of_parts(81, 39, 400));
  EXPECT_FALSE(log.made_of_parts(80, 39, 400));
  EXPECT_EQ(log.lost(85, 100, 400), (Batches{{120, 160}}));
  EXPECT_EQ(log.lost(85, 1, 400), Batches{});
}

TEST(BatchLog, a_node_that_came_late_has_lost_no_batches) {
  const BatchLog log = log_of(10'000, 4000);
  EXPECT_EQ(log.lost(0, 2000, 4000), Batches{});
  EXPECT_FALSE(log.made_of_parts(0, 2000, 4000));
}

TEST(BatchLog, before_the_first_batch_there_is_none) {
  BatchLog log(10'000);
  EXPECT_EQ(log.lost(0, 10, 0), Batches{});
  EXPECT_FALSE(log.made_of_parts(0, 10, 0));
}

TEST(BatchLog, forerunners_are_far_ahead_and_never_the_last_segment) {
  const BatchLog log(2000);
  EXPECT_EQ(log.forerunner(0), std::nullopt);
  EXPECT_EQ(log.forerunner(1), 500u);
  EXPECT_EQ(log.forerunner(11), 510u);
  EXPECT_EQ(log.forerunner(12), std::nullopt);
  EXPECT_EQ(log.forerunner(1491), 1990u);
  EXPECT_EQ(log.forerunner(1501), std::nullopt);
  EXPECT_EQ(BatchLog(1991).forerunner(1491), std::nullopt);
}

TEST(BatchLog, one_part_of_a_batch_tells_of_all_of_it) {
  const BatchLog log = log_with_forerunners(10'000, 4000);
  // Places 2000, 2010, 2020, 2030 were sent ahead.
  for (const uint32_t part : {2001u, 2011u, 2021u, 2031u}) {
    EXPECT_TRUE(log.made_of_parts(part, 9, 4000));
    EXPECT_EQ(log.lost(part, 9, 4000), (Batches{{2000, 2040}}));
  }
  EXPECT_EQ(log.lost(2012, 8, 4000), Batches{});
  EXPECT_EQ(log.lost(2011, 8, 4000), Batches{});
}

TEST(BatchLog, a_batch_carries_what_went_ahead_in_it_and_not_what_had_gone_before) {
  const BatchLog log = log_with_forerunners(10'000, 4000);
  const std::vector<uint32_t> segments = log.segments_of({2000, 2040});
  EXPECT_EQ(segments.size(), 40u);
  EXPECT_EQ(std::count(segments.begin(), segments.end(), 2010u), 0);
  EXPECT_EQ(std::count(segments.begin(), segments.end(), 2011u), 1);
  EXPECT_EQ(std::count(segments.begin(), segments.end(), 2510u), 1);
  EXPECT_EQ(log.ahead_of({2000, 2040}, 2005, 20), (std::vector<uint32_t>{2010, 2020}));
}

TEST(BatchLog, while_nothing_goes_ahead_a_batch_carries_its_places) {
  const BatchLog log = log_of(10'000, 400);
  const std::vector<uint32_t> segments = log.segments_of({80, 84});
  EXPECT_EQ(segments, (std::vector<uint32_t>{80, 81, 82, 83}));
}

}  // namespace
}  // namespace pkgdist::lead
