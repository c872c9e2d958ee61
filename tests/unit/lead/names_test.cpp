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

}  // namespace
}  // namespace pkgdist::lead
