// Typed access to fields and their presence bits.
#include "codec_support.h"
#include "pkgdist/wire_fields.hpp"

using namespace codec_test;

namespace {

using Header = pkgdist_ctrl_msg_hdr;
using Body = pkgdist_ctrl_msg;

TEST(Access, bits_follow_the_declared_order) {
  EXPECT_EQ(qidl::bit_of<&Header::msg_id>(), 0x1u);
  EXPECT_EQ(qidl::bit_of<&Header::node_ip>(), 0x2u);
  EXPECT_EQ(qidl::bit_of<&Header::pid>(), 0x4u);
  EXPECT_EQ(qidl::bit_of<&Header::sequence>(), 0x8u);
  EXPECT_EQ(qidl::bit_of<&Header::card_class>(), 0x10u);
  EXPECT_EQ(qidl::bit_of<&Header::segment>(), 0x20u);
  EXPECT_EQ(qidl::bit_of<&Header::unicast>(), 0x40u);
  EXPECT_EQ(qidl::bit_of<&Header::status>(), 0x80u);
  EXPECT_EQ(qidl::bit_of<&Header::node_id>(), 0x100u);
  EXPECT_EQ(qidl::bit_of<&Header::ack_sequence>(), 0x200u);
  EXPECT_EQ(qidl::bit_of<&Body::data>(), 0x20u);
}

TEST(Access, a_member_that_is_no_field_has_no_bit) {
  EXPECT_EQ(qidl::bit_of<&Body::node_list_count>(), 0u);
  EXPECT_EQ(qidl::bit_of<&Body::data_size>(), 0u);
}

TEST(Access, setting_a_field_stores_it_and_marks_it_alone) {
  Header header{};
  qidl::set<&Header::segment>(header, 0);
  EXPECT_EQ(header.presence, 0x20u);
  EXPECT_TRUE(qidl::has<&Header::segment>(header));
  EXPECT_FALSE(qidl::has<&Header::sequence>(header));
  qidl::set<&Header::sequence>(header, 9);
  EXPECT_EQ(header.sequence, 9u);
  EXPECT_EQ(header.presence, 0x28u);
}

TEST(Access, marking_makes_a_stored_array_travel) {
  uint32_t nodes[] = {5};
  Body body{};
  body.node_list = nodes;
  body.node_list_count = 1;
  EXPECT_EQ(encoded(body), hex("00 00 00 00"));
  qidl::mark<&Body::node_list>(body);
  EXPECT_EQ(encoded(body), hex("00 00 00 02 00 01 00 00 00 05"));
}

}  // namespace
