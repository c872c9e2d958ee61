#include "pkgdist_lead/names.h"

#include <gtest/gtest.h>

#include <string>

namespace pkgdist::lead {
namespace {

TEST(NameProblem, accepts_ordinary_names) {
  for (const char* name :
       {"a", "dir/file", "with space", "..hidden", "a..b/c", "x/...", "\xC3\xA4"})
    EXPECT_EQ(name_problem(name), nullptr) << name;
}

TEST(NameProblem, refuses_names_that_leave_the_location) {
  for (const char* name : {"..", "../x", "a/../b", "a/..", "/.."})
    EXPECT_NE(name_problem(name), nullptr) << name;
}

TEST(NameProblem, refuses_what_is_no_file_name) {
  for (const std::string& name : {std::string(), std::string("dir/"), std::string("a\0b", 3)})
    EXPECT_NE(name_problem(name), nullptr);
}

TEST(NameProblem, the_limit_is_240_bytes) {
  EXPECT_EQ(name_problem(std::string(240, 'a')), nullptr);
  EXPECT_NE(name_problem(std::string(241, 'a')), nullptr);
}

TEST(PlainName, leaves_out_what_says_nothing) {
  EXPECT_EQ(plain_name("a/b.c"), "a/b.c");
  EXPECT_EQ(plain_name("/a//./b/."), "a/b");
  EXPECT_EQ(plain_name("./.hidden"), ".hidden");
  EXPECT_EQ(plain_name("./"), "");
}

TEST(OwnersOfPartial, are_the_names_whose_partial_file_stands_there) {
  using Owners = std::vector<std::string_view>;
  EXPECT_EQ(owners_of_partial("a.tmp"), Owners{"a"});
  EXPECT_EQ(owners_of_partial("d/a.tmp.tmp"), Owners{"d/a.tmp"});
  EXPECT_EQ(owners_of_partial("d/a.tmp/f"), Owners{"d/a"});
  EXPECT_EQ(owners_of_partial("a.tmp/b.tmp"), (Owners{"a", "a.tmp/b"}));
  for (const char* name : {"a", "tmp", ".tmp", "d/.tmp/f", "a.tmpx", "a.tmp.gz"})
    EXPECT_TRUE(owners_of_partial(name).empty()) << name;
}

}  // namespace
}  // namespace pkgdist::lead
