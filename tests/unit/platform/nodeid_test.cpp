#include "platform/nodeid.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

struct Destroy {
  void operator()(nodeid* identity) const { nodeid_destroy(identity); }
};
using Identity = std::unique_ptr<nodeid, Destroy>;

Identity make(uint32_t first, uint32_t second, uint32_t third) {
  nodeid_handle_t made = nullptr;
  EXPECT_EQ(0, nodeid_create(first, second, third, &made));
  return Identity(made);
}

TEST(Nodeid, keeps_its_components) {
  const Identity identity = make(1, 2, 3);
  ASSERT_NE(nullptr, identity);
  EXPECT_EQ(1u, identity->first);
  EXPECT_EQ(2u, identity->second);
  EXPECT_EQ(3u, identity->third);
}

TEST(Nodeid, create_needs_a_place_for_the_result) {
  EXPECT_EQ(EINVAL, nodeid_create(1, 2, 3, nullptr));
}

TEST(Nodeid, destroy_ignores_null) {
  nodeid_destroy(nullptr);
}

TEST(Nodeid, text_has_slashes_between_decimal_components) {
  char text[64];
  EXPECT_EQ(0, nodeid_to_str_external(make(1, 2, 3).get(), text, sizeof text));
  EXPECT_STREQ("1/2/3", text);
  EXPECT_EQ(0, nodeid_to_str_external(make(255, 0, 16).get(), text, sizeof text));
  EXPECT_STREQ("255/0/16", text);
}

TEST(Nodeid, text_shows_the_whole_range_unsigned) {
  char text[33];
  const Identity identity = make(UINT32_MAX, UINT32_MAX, UINT32_MAX);
  EXPECT_EQ(0, nodeid_to_str_external(identity.get(), text, sizeof text));
  EXPECT_STREQ("4294967295/4294967295/4294967295", text);
}

TEST(Nodeid, text_is_cut_and_terminated_when_the_buffer_is_short) {
  const Identity identity = make(10, 20, 30);  // 8 characters
  char text[16];
  for (size_t size = 1; size <= 8; ++size) {
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(ENOSPC, nodeid_to_str_external(identity.get(), text, size)) << size;
    EXPECT_EQ(std::string("10/20/30").substr(0, size - 1), text);
    EXPECT_EQ('#', text[size]) << "wrote past " << size;
  }
  EXPECT_EQ(0, nodeid_to_str_external(identity.get(), text, 9));
  EXPECT_STREQ("10/20/30", text);
}

TEST(Nodeid, text_rejects_a_missing_buffer) {
  const Identity identity = make(1, 2, 3);
  char untouched = '#';
  EXPECT_EQ(EINVAL, nodeid_to_str_external(identity.get(), nullptr, 8));
  EXPECT_EQ(EINVAL, nodeid_to_str_external(identity.get(), &untouched, 0));
  EXPECT_EQ('#', untouched);
}

TEST(Nodeid, text_of_no_identity_is_empty) {
  char text[8] = "before";
  EXPECT_EQ(EINVAL, nodeid_to_str_external(nullptr, text, sizeof text));
  EXPECT_STREQ("", text);
}

}  // namespace
