#include "stream/data_contact.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

constexpr uint64_t kSilent = PKGDIST_STATUS_FROM_ERRNO(ECOMM);
constexpr uint64_t kReceivesNothing = PKGDIST_STATUS_FROM_ERRNO(ENODATA);

class DataContactTest : public testing::Test {
 protected:
  void poll_for(Time duration, Time gap = kSecond) {
    for (const Time end = now_ + duration; now_ < end; now_ += gap) contact_.polled(3, now_);
  }
  uint64_t lost() const { return contact_.lost(3, now_); }

  DataContact contact_;
  Time now_ = kSecond;
};

TEST_F(DataContactTest, a_node_that_never_answered_is_lost_after_45_seconds) {
  poll_for(44 * kSecond);
  EXPECT_EQ(lost(), 0u);
  poll_for(2 * kSecond);
  EXPECT_EQ(lost(), kSilent);
}

TEST_F(DataContactTest, a_node_that_only_asks_for_files_receives_nothing) {
  poll_for(10 * kSecond);
  contact_.asked(3);
  poll_for(36 * kSecond);
  EXPECT_EQ(lost(), kReceivesNothing);
}

TEST_F(DataContactTest, a_node_that_took_part_before_has_two_minutes) {
  contact_.answered(3);
  poll_for(119 * kSecond);
  EXPECT_EQ(lost(), 0u);
  poll_for(2 * kSecond);
  EXPECT_EQ(lost(), kSilent);
}

TEST_F(DataContactTest, an_answer_begins_it_all_anew) {
  poll_for(44 * kSecond);
  contact_.answered(3);
  poll_for(119 * kSecond);
  EXPECT_EQ(lost(), 0u);
}

TEST_F(DataContactTest, a_node_that_was_hardly_polled_is_not_lost) {
  poll_for(46 * kSecond, 6 * kSecond);
  EXPECT_EQ(lost(), 0u);
}

TEST_F(DataContactTest, a_time_without_polls_does_not_count) {
  poll_for(20 * kSecond);
  now_ += 60 * kSecond;
  poll_for(44 * kSecond);
  EXPECT_EQ(lost(), 0u);
}

TEST_F(DataContactTest, nothing_is_known_of_a_node_that_was_not_polled) {
  EXPECT_EQ(lost(), 0u);
}

}  // namespace
}  // namespace pkgdist::lead
