#include "stream/segment_set.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

TEST(SegmentSet, counts_each_member_once) {
  SegmentSet set(200);
  set.insert(3);
  set.insert(3);
  set.insert(199);
  EXPECT_EQ(set.count(), 2u);
  set.erase(3);
  set.erase(3);
  EXPECT_EQ(set.count(), 1u);
  EXPECT_FALSE(set.contains(3));
  EXPECT_TRUE(set.contains(199));
}

TEST(SegmentSet, ignores_segments_outside_of_the_file) {
  SegmentSet set(64);
  set.insert(64);
  set.insert(UINT32_MAX);
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(set.insert_run(64, 5), 0u);
  EXPECT_EQ(set.insert_run(60, UINT32_MAX), 4u);
}

TEST(SegmentSet, adds_a_run_across_words_and_reports_what_was_new) {
  SegmentSet set(300);
  set.insert(70);
  EXPECT_EQ(set.insert_run(60, 140), 139u);
  EXPECT_EQ(set.count(), 140u);
  EXPECT_FALSE(set.contains(59));
  EXPECT_TRUE(set.contains(60));
  EXPECT_TRUE(set.contains(199));
  EXPECT_FALSE(set.contains(200));
}

TEST(SegmentSet, leaves_out_members_of_the_other_sets) {
  SegmentSet set(100), a(100), b(100);
  a.insert(10);
  b.insert(12);
  EXPECT_EQ(set.insert_run(9, 5, {&a, &b}), 3u);
  EXPECT_FALSE(set.contains(10));
  EXPECT_FALSE(set.contains(12));
}

TEST(SegmentSet, finds_the_next_member_going_round) {
  SegmentSet set(130);
  EXPECT_EQ(set.next(0), 130u);
  set.insert(5);
  set.insert(129);
  EXPECT_EQ(set.next(0), 5u);
  EXPECT_EQ(set.next(6), 129u);
  EXPECT_EQ(set.next(130), 5u);
  set.erase(129);
  EXPECT_EQ(set.next(6), 5u);
}

}  // namespace
}  // namespace pkgdist::lead
