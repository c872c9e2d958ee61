// Status values, digit by digit: callers and leads of other makes compare them.
#include <gtest/gtest.h>

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

}  // namespace
