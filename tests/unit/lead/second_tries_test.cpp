#include "push/second_tries.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

constexpr uint64_t kGaveUp = PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT);
constexpr uint64_t kNoDirectory = PKGDIST_STATUS_FROM_ERRNO(ENOENT);

Transfer transfer_of(uint32_t file, bool symlink = false) {
  FileAttributes attributes;
  attributes.symlink = symlink;
  Transfer transfer(1, {1, "name"}, attributes, 1);
  transfer.tag = file;
  return transfer;
}

TEST(SecondTries, a_node_that_gave_up_waiting_gets_a_file_twice_more) {
  SecondTries tries;
  EXPECT_TRUE(tries.after_end(3, transfer_of(5), kGaveUp));
  EXPECT_TRUE(tries.after_end(3, transfer_of(5), kGaveUp));
  EXPECT_FALSE(tries.after_end(3, transfer_of(5), kGaveUp));
  EXPECT_TRUE(tries.after_end(3, transfer_of(6), kGaveUp));
  EXPECT_TRUE(tries.after_end(4, transfer_of(5), kGaveUp));
}

TEST(SecondTries, what_another_try_cannot_cure_is_not_tried_again) {
  SecondTries tries;
  EXPECT_FALSE(tries.after_end(3, transfer_of(5), 0));
  EXPECT_FALSE(tries.after_end(3, transfer_of(5), PKGDIST_STATUS_FROM_ERRNO(ENOSPC)));
}

TEST(SecondTries, a_link_that_came_before_its_directory_is_tried_again_and_a_file_is_not) {
  SecondTries tries;
  EXPECT_TRUE(tries.after_end(3, transfer_of(5, true), kNoDirectory));
  EXPECT_FALSE(tries.after_end(3, transfer_of(6, false), kNoDirectory));
}

TEST(SecondTries, ignorance_ends_a_file_only_when_it_is_frequent_and_lasting) {
  SecondTries often;
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(often.after_ignorance(1, 1, kSecond));
  EXPECT_FALSE(often.after_ignorance(1, 1, 11 * kSecond));
  SecondTries seldom;
  for (Time at = 1; at <= 8; ++at) EXPECT_TRUE(seldom.after_ignorance(1, 1, at * 5 * kSecond));
  EXPECT_FALSE(seldom.after_ignorance(1, 1, 45 * kSecond));
}

}  // namespace
}  // namespace pkgdist::lead
