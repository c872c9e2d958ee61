#include "shell/offload_switch.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

TEST(OffloadSwitch, is_on_from_the_start) {
  EXPECT_TRUE(OffloadSwitch().on(0));
}

TEST(OffloadSwitch, stays_on_after_errors_that_say_nothing_about_it) {
  for (const int error : {ENOBUFS, EPERM, ENETUNREACH, ENETDOWN, EHOSTUNREACH, ENOMEM, EAGAIN}) {
    OffloadSwitch offload;
    EXPECT_FALSE(offload.refused(error, kSecond)) << error;
    EXPECT_TRUE(offload.on(kSecond)) << error;
  }
}

TEST(OffloadSwitch, is_off_for_a_minute_after_a_refusal) {
  for (const int error : {EINVAL, EOPNOTSUPP, EMSGSIZE, EIO}) {
    OffloadSwitch offload;
    EXPECT_TRUE(offload.refused(error, kSecond)) << error;
    EXPECT_FALSE(offload.on(kSecond));
    EXPECT_FALSE(offload.on(61 * kSecond - 1));
    EXPECT_TRUE(offload.on(61 * kSecond));
  }
}

}  // namespace
}  // namespace pkgdist::lead
