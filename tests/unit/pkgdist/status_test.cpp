// Status values, digit by digit: callers and leads of other makes compare them. And their texts.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "pkgdist_status.h"

namespace {

TEST(Status, errors_carry_the_component_and_the_code) {
  EXPECT_EQ(PKGDIST_ERR_SYSTEM, 0x40101278CA100BE8u);
  EXPECT_EQ(PKGDIST_ERR_NOMEM, 0x40101278CA100BE9u);
  EXPECT_EQ(PKGDIST_ERR_INVALID, 0x40101278CA100BEAu);
  EXPECT_EQ(PKGDIST_ERR_SEND, 0x40101278CA100BEBu);
  EXPECT_EQ(PKGDIST_ERR_NOT_FOUND, 0x40101278CA100BEEu);
  EXPECT_EQ(PKGDIST_ERR_ENCODE, 0x40101278CA100BEFu);
  EXPECT_EQ(PKGDIST_ERR_TIMEOUT, 0x40101278CA100BF1u);
  EXPECT_EQ(PKGDIST_ERR_DECODE, 0x40101278CA100BF2u);
  EXPECT_EQ(PKGDIST_ERR_WRITE, 0x40101278CA100BF3u);
}

TEST(Status, outcomes_have_a_high_word_of_their_own) {
  EXPECT_EQ(PKGDIST_STATUS_CANCELLED, 0x30101278CA100BF5u);
  EXPECT_EQ(PKGDIST_STATUS_DELETED, 0x30101278CA100BF7u);
  EXPECT_EQ(PKGDIST_STATUS_UNKNOWN_FILE, 0x30101278CA100BF8u);
  EXPECT_EQ(PKGDIST_STATUS_IN_PROGRESS, 0x30101278CA100BF9u);
}

TEST(Status, system_errors_carry_eleven_bits_of_the_error_number) {
  EXPECT_EQ(pkgdist_status_from_errno(0), 0x40001278CA100000u);
  EXPECT_EQ(pkgdist_status_from_errno(ENOENT), 0x40001278CA100002u);
  EXPECT_EQ(pkgdist_status_from_errno(ETIMEDOUT), 0x40001278CA10006Eu);
  EXPECT_EQ(pkgdist_status_from_errno(0x7FF), 0x40001278CA1007FFu);
  EXPECT_EQ(pkgdist_status_from_errno(0x800), 0x40001278CA100000u);
}

TEST(Status, any_code_is_built_from_the_component_identifier) {
  EXPECT_EQ(pkgdist_component_id(), 0xCA1u);
  EXPECT_EQ(pkgdist_status_error(0xBEA), 0x40101278CA100BEAu);
  EXPECT_EQ(pkgdist_status_error(0), 0x40101278CA100000u);
}

TEST(Status, every_status_of_the_library_has_a_text_of_its_own) {
  std::set<std::string> texts;
  const PkgdistStatus known[] = {0,
                                 PKGDIST_ERR_SYSTEM,
                                 PKGDIST_ERR_NOMEM,
                                 PKGDIST_ERR_INVALID,
                                 PKGDIST_ERR_SEND,
                                 PKGDIST_ERR_NOT_FOUND,
                                 PKGDIST_ERR_ENCODE,
                                 PKGDIST_ERR_TIMEOUT,
                                 PKGDIST_ERR_DECODE,
                                 PKGDIST_ERR_WRITE,
                                 PKGDIST_STATUS_CANCELLED,
                                 PKGDIST_STATUS_DELETED,
                                 PKGDIST_STATUS_UNKNOWN_FILE,
                                 PKGDIST_STATUS_IN_PROGRESS,
                                 PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT)};
  for (const PkgdistStatus status : known) {
    const std::string text = pkgdist_status_str(status);
    EXPECT_NE(text.substr(0, 9), "status 0x");
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_ERR_INVALID), "an argument was rejected");
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_STATUS_CANCELLED), "cancelled");
}

TEST(Status, a_system_error_has_the_text_of_its_error_number) {
  errno = EINTR;
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_STATUS_FROM_ERRNO(ENOENT)), std::strerror(ENOENT));
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_STATUS_FROM_ERRNO(ENOSPC)), std::strerror(ENOSPC));
  EXPECT_EQ(errno, EINTR);
  EXPECT_STRNE(pkgdist_status_str(PKGDIST_STATUS_FROM_ERRNO(0x7FF)), "");
}

TEST(Status, a_status_that_is_not_known_is_told_by_its_number) {
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_STATUS_FROM_ERRNO(0)), "status 0x40001278ca100000");
  EXPECT_STREQ(pkgdist_status_str(7), "status 0x0000000000000007");
  EXPECT_STREQ(pkgdist_status_str(PKGDIST_ERROR(0xFFF)), "status 0x40101278ca100fff");
  EXPECT_STREQ(pkgdist_status_str(~uint64_t{0}), "status 0xffffffffffffffff");
}

TEST(Status, a_text_stays_while_other_threads_ask_for_theirs) {
  const char* mine = pkgdist_status_str(1);
  std::thread([] { EXPECT_STREQ(pkgdist_status_str(2), "status 0x0000000000000002"); }).join();
  EXPECT_STREQ(mine, "status 0x0000000000000001");
}

}  // namespace
