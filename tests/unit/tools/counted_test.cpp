// Numbers with words.
#include "counted.h"

#include <gtest/gtest.h>

namespace pkgdist::cli {
namespace {

TEST(Counted, a_number_and_its_word_agree) {
  EXPECT_EQ(counted(0, "file"), "0 files");
  EXPECT_EQ(counted(1, "file"), "1 file");
  EXPECT_EQ(counted(2, "file"), "2 files");
  EXPECT_EQ(counted(1, "entry", "entries"), "1 entry");
  EXPECT_EQ(counted(21, "entry", "entries"), "21 entries");
}

}  // namespace
}  // namespace pkgdist::cli
