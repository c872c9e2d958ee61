#include "platform/quendrel.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

struct Buffer {
  char text[16];
  Buffer() { std::memset(text, '#', sizeof text); }
};

TEST(Quendrel, copy_that_fits_is_whole) {
  Buffer to;
  EXPECT_EQ(3u, quendrel_sstrncpy(to.text, "abc", sizeof to.text));
  EXPECT_STREQ("abc", to.text);
  EXPECT_EQ('#', to.text[4]);
}

TEST(Quendrel, copy_is_cut_terminated_and_tells_the_whole_length) {
  for (size_t size = 1; size <= 6; ++size) {
    Buffer to;
    EXPECT_EQ(6u, quendrel_sstrncpy(to.text, "abcdef", size)) << size;
    EXPECT_EQ(std::string("abcdef").substr(0, size - 1), to.text);
    EXPECT_EQ('#', to.text[size]) << "wrote past " << size;
  }
}

TEST(Quendrel, copy_fills_a_buffer_exactly) {
  Buffer to;
  EXPECT_EQ(6u, quendrel_sstrncpy(to.text, "abcdef", 7));
  EXPECT_STREQ("abcdef", to.text);
  EXPECT_EQ('#', to.text[7]);
}

TEST(Quendrel, copy_into_size_0_writes_nothing) {
  Buffer to;
  EXPECT_EQ(3u, quendrel_sstrncpy(to.text, "abc", 0));
  EXPECT_EQ('#', to.text[0]);
}

TEST(Quendrel, copy_of_the_empty_string_terminates) {
  Buffer to;
  EXPECT_EQ(0u, quendrel_sstrncpy(to.text, "", 1));
  EXPECT_STREQ("", to.text);
}

TEST(Quendrel, append_that_fits_is_whole) {
  Buffer to;
  quendrel_sstrncpy(to.text, "/a", sizeof to.text);
  EXPECT_EQ(6u, quendrel_sstrncat(to.text, ".tmp", sizeof to.text));
  EXPECT_STREQ("/a.tmp", to.text);
  EXPECT_EQ('#', to.text[7]);
}

TEST(Quendrel, append_is_cut_terminated_and_tells_the_whole_length) {
  for (size_t size = 3; size <= 6; ++size) {
    Buffer to;
    quendrel_sstrncpy(to.text, "/a", size);
    EXPECT_EQ(6u, quendrel_sstrncat(to.text, ".tmp", size)) << size;
    EXPECT_EQ(std::string("/a.tmp").substr(0, size - 1), to.text);
    EXPECT_EQ('#', to.text[size]) << "wrote past " << size;
  }
}

TEST(Quendrel, append_to_a_full_buffer_changes_nothing) {
  Buffer to;
  quendrel_sstrncpy(to.text, "abc", 4);
  EXPECT_EQ(5u, quendrel_sstrncat(to.text, "de", 4));
  EXPECT_STREQ("abc", to.text);
}

TEST(Quendrel, append_to_an_unterminated_buffer_writes_nothing) {
  Buffer to;
  EXPECT_EQ(6u, quendrel_sstrncat(to.text, "de", 4));
  EXPECT_EQ("#####", std::string(to.text, 5));
}

TEST(Quendrel, append_into_size_0_writes_nothing) {
  Buffer to;
  EXPECT_EQ(2u, quendrel_sstrncat(to.text, "de", 0));
  EXPECT_EQ('#', to.text[0]);
}

}  // namespace
