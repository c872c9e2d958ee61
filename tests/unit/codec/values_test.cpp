// Values at the ends of their ranges, empty and largest strings and arrays, and who owns what.
#include <limits>
#include <string>

#include "codec_support.h"

using namespace codec_test;

namespace {

pkgdist_ctrl_msg_hdr header_with_unicast(int32_t value) {
  pkgdist_ctrl_msg_hdr header{};
  header.presence = 0x40;
  header.unicast = value;
  return header;
}

TEST(Values, signed_words_are_twos_complement) {
  const std::pair<int32_t, Bytes> cases[] = {
      {1, hex("00 00 00 01")},
      {-1, hex("ff ff ff ff")},
      {std::numeric_limits<int32_t>::min(), hex("80 00 00 00")},
      {std::numeric_limits<int32_t>::max(), hex("7f ff ff ff")}};
  for (const auto& [value, bytes] : cases) {
    const Bytes whole = joined({mask(0x40), bytes});
    EXPECT_EQ(encoded(header_with_unicast(value)), whole);
    EXPECT_EQ(Decoded<pkgdist_ctrl_msg_hdr>(whole)->unicast, value);
  }
}

TEST(Values, double_words_are_big_endian_over_eight_bytes) {
  for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{0x0102030405060708},
                               std::numeric_limits<uint64_t>::max()}) {
    pkgdist_ctrl_msg_hdr header{};
    header.presence = 0x80;
    header.status = value;
    const Bytes bytes = encoded(header);
    ASSERT_EQ(bytes.size(), 12u);
    for (unsigned i = 0; i < 8; ++i)
      EXPECT_EQ(bytes[4 + i], static_cast<uint8_t>(value >> (56 - 8 * i)));
    EXPECT_EQ(Decoded<pkgdist_ctrl_msg_hdr>(bytes)->status, value);
  }
}

TEST(Values, single_bytes_keep_all_eight_bits) {
  for (const uint8_t value : {uint8_t{0}, uint8_t{1}, uint8_t{0x80}, uint8_t{0xFF}}) {
    pkgdist_data_send_segment segment{};
    segment.presence = 4;
    segment.repair = value;
    EXPECT_EQ(encoded(segment), joined({mask(4), {value}}));
    EXPECT_EQ(Decoded<pkgdist_data_send_segment>(encoded(segment))->repair, value);
  }
}

TEST(Values, a_present_zero_differs_from_an_absent_field) {
  const Decoded<pkgdist_ctrl_msg_hdr> zero(hex("00 00 00 20 00 00 00 00"));
  EXPECT_EQ(zero->segment, 0u);
  EXPECT_EQ(zero->presence, 0x20u);
  const Decoded<pkgdist_ctrl_msg_hdr> absent(hex("00 00 00 00"));
  EXPECT_EQ(absent->segment, 0u);
  EXPECT_EQ(absent->presence, 0u);
}

// --- Strings ---

TEST(Values, a_null_string_travels_as_an_empty_one) {
  pkgdist_data_send_req request{};
  request.presence = 8;
  EXPECT_EQ(encoded(request), hex("00 00 00 08 00 00"));
}

TEST(Values, present_and_absent_empty_strings_decode_to_the_empty_string_without_memory) {
  for (const Bytes& bytes : {hex("00 00 00 08 00 00"), hex("00 00 00 00")}) {
    const CountingAllocator allocator;
    const Decoded<pkgdist_data_send_req> request(bytes, allocator.face());
    EXPECT_EQ(request.result(), 0);
    EXPECT_STREQ(request->name, "");
    EXPECT_EQ(allocator.requests(), 0u);
  }
}

TEST(Values, a_string_of_65535_bytes_travels_and_one_more_does_not) {
  std::string text(65'535, 'x');
  pkgdist_data_send_req request{};
  request.presence = 8;
  request.name = text.data();
  const Bytes bytes = encoded(request);
  ASSERT_EQ(bytes.size(), 4u + 2u + 65'535u);
  EXPECT_EQ(bytes[4], 0xFF);
  EXPECT_EQ(bytes[5], 0xFF);
  EXPECT_EQ(Decoded<pkgdist_data_send_req>(bytes)->name, text);
  text += 'x';
  request.name = text.data();
  EXPECT_EQ(encoded_size(request), QIDL_ERR_TOO_LONG);
}

TEST(Values, bytes_of_any_value_but_zero_are_text) {
  std::string text;
  for (int c = 1; c <= 255; ++c) text += static_cast<char>(c);
  pkgdist_data_send_req request{};
  request.presence = 8;
  request.name = text.data();
  EXPECT_EQ(Decoded<pkgdist_data_send_req>(encoded(request))->name, text);
}

// --- Arrays ---

TEST(Values, an_empty_array_travels_as_its_count) {
  pkgdist_data_send_miss_done message{};
  message.presence = 4;
  EXPECT_EQ(encoded(message), hex("00 00 00 04 00 00"));
  const CountingAllocator allocator;
  const Decoded<pkgdist_data_send_miss_done> decoded(encoded(message), allocator.face());
  EXPECT_EQ(decoded.result(), 0);
  EXPECT_EQ(decoded->presence, 4u);
  EXPECT_EQ(decoded->node_list, nullptr);
  EXPECT_EQ(allocator.requests(), 0u);
}

TEST(Values, an_array_of_65535_words_travels_and_one_more_does_not) {
  std::vector<uint32_t> nodes(65'536, 0x01020304);
  pkgdist_ctrl_msg message{};
  message.presence = 2;
  message.node_list = nodes.data();
  message.node_list_count = 65'535;
  const Decoded<pkgdist_ctrl_msg> decoded(encoded(message));
  ASSERT_EQ(decoded->node_list_count, 65'535u);
  EXPECT_EQ(decoded->node_list[65'534], 0x01020304u);
  message.node_list_count = 65'536;
  EXPECT_EQ(encoded_size(message), QIDL_ERR_TOO_LONG);
}

TEST(Values, an_array_of_65535_strings_travels_and_one_more_does_not) {
  char name[] = "n";
  std::vector<char*> names(65'536, name);
  pkgdist_file_send_ctrl list{};
  list.presence = 0x20;
  list.names = names.data();
  list.names_count = 65'535;
  const Decoded<pkgdist_file_send_ctrl> decoded(encoded(list));
  ASSERT_EQ(decoded->names_count, 65'535u);
  EXPECT_STREQ(decoded->names[65'534], "n");
  list.names_count = 65'536;
  EXPECT_EQ(encoded_size(list), QIDL_ERR_TOO_LONG);
}

TEST(Values, a_too_long_string_inside_an_array_refuses_the_message) {
  std::string text(65'536, 'x');
  char* names[] = {text.data()};
  pkgdist_file_send_ctrl list{};
  list.presence = 0x20;
  list.names = names;
  list.names_count = 1;
  EXPECT_EQ(encoded_size(list), QIDL_ERR_TOO_LONG);
}

// --- Byte strings ---

TEST(Values, data_is_decoded_as_a_view_into_the_buffer) {
  const CountingAllocator allocator;
  const Decoded<pkgdist_ctrl_msg> message(hex("00 00 00 20 00 00 00 02 aa bb"), allocator.face());
  EXPECT_EQ(message.result(), 0);
  EXPECT_EQ(message->data, message.buffer() + 8);
  EXPECT_EQ(message->data_size, 2u);
  EXPECT_EQ(allocator.requests(), 0u);
}

TEST(Values, empty_data_is_present_with_size_0) {
  const Decoded<pkgdist_ctrl_msg> message(hex("00 00 00 20 00 00 00 00"));
  EXPECT_EQ(message.result(), 0);
  EXPECT_EQ(message->presence, 0x20u);
  EXPECT_EQ(message->data_size, 0u);
}

TEST(Values, data_of_more_than_32_bits_of_length_does_not_travel) {
  const uint8_t byte = 0;
  pkgdist_ctrl_msg message{};
  message.presence = 0x20;
  message.data = &byte;
  message.data_size = uint64_t{1} << 32;
  EXPECT_EQ(encoded_size(message), QIDL_ERR_TOO_LONG);
}

}  // namespace
