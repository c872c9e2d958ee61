// Hostile text on terminals and in JSON lines.
#include "printable.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using pkgdist::cli::json_line;
using pkgdist::cli::printable;

namespace {

TEST(Printable, control_characters_become_question_marks) {
  EXPECT_EQ("a?[31mb??", printable("a\x1b[31mb\n\x7f"));
  EXPECT_EQ("?????", printable(std::string_view("\0\r\t\b\a", 5)));
}

TEST(Printable, letters_of_other_languages_stay) {
  EXPECT_EQ("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
            printable("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"));
}

TEST(Printable, control_characters_of_two_bytes_and_their_bare_bytes_go) {
  EXPECT_EQ("a?31mb", printable("a\xc2\x9b"
                                "31mb"));
  EXPECT_EQ("a?31mb", printable("a\x9b"
                                "31mb"));
}

TEST(Printable, marks_that_reverse_text_and_end_lines_go) {
  EXPECT_EQ("evil?gpj.exe", printable("evil\xe2\x80\xaegpj.exe"));
  EXPECT_EQ("a?b?c", printable("a\xe2\x80\xa8"
                               "b\xe2\x81\xa6"
                               "c"));
}

TEST(Printable, what_is_no_utf8_goes_byte_by_byte) {
  EXPECT_EQ("?", printable("\xc3"));
  EXPECT_EQ("??x", printable("\xe2\x82x"));
  EXPECT_EQ("??", printable("\xc0\xaf")) << "an overlong slash";
  EXPECT_EQ("???", printable("\xed\xa0\x80")) << "half of a pair";
  EXPECT_EQ("????", printable("\xf4\x90\x80\x80")) << "above the last code";
}

TEST(Printable, json_lines_escape_what_acts_and_read_back_the_same) {
  const std::string name = "a\x1b\n\x7f\xc2\x9b\xe2\x80\xae\xc3\xbc";
  const std::string line = json_line({{"name", name}});
  EXPECT_EQ(R"({"name":"a\u001b\n\u007f\u009b\u202e)"
            "\xc3\xbc\"}",
            line);
  EXPECT_EQ(name, nlohmann::json::parse(line)["name"]);
}

TEST(Printable, json_lines_take_bytes_that_are_no_utf8) {
  const std::string line = json_line({{"name",
                                       "a\xff"
                                       "b"}});
  EXPECT_EQ(
      "a\xef\xbf\xbd"
      "b",
      nlohmann::json::parse(line)["name"]);
}

}  // namespace
