// Bytes that are not a message: cut at every length, with bits that mean nothing, with bytes behind
// the end, with counts that promise more than there is. Nothing stays allocated, nothing is read
// beyond the end.
#include "wire_examples.h"

using namespace codec_test;

namespace {

// What a failed decode leaves behind: an empty message, no memory.
template <class T>
void expect_refused(const Bytes& bytes, int error) {
  const CountingAllocator allocator;
  {
    const Decoded<T> message(bytes, allocator.face());
    EXPECT_EQ(message.result(), error);
    EXPECT_EQ(message->presence, 0u);
    EXPECT_EQ(encoded(*message), mask(0));
    EXPECT_EQ(allocator.outstanding(), 0) << "before the message is freed";
  }
  EXPECT_EQ(allocator.outstanding(), 0);
}

// Refused before the allocator was asked for anything.
template <class T>
void expect_refused_without_allocation(const Bytes& bytes, int error) {
  const CountingAllocator allocator;
  const Decoded<T> message(bytes, allocator.face());
  EXPECT_EQ(message.result(), error);
  EXPECT_EQ(allocator.requests(), 0u);
}

template <class T>
class Hostile : public testing::Test {};
TYPED_TEST_SUITE(Hostile, AllStructures);

TYPED_TEST(Hostile, a_message_cut_at_any_length_is_refused) {
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  for (size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE(length);
    expect_refused<TypeParam>(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)),
                              QIDL_ERR_TRUNCATED);
  }
}

TYPED_TEST(Hostile, each_field_alone_cut_at_any_length_is_refused) {
  for (uint32_t bit = 1; bit <= all_fields<TypeParam>(); bit <<= 1) {
    const Bytes whole = example_bytes<TypeParam>(bit);
    for (size_t length = 4; length < whole.size(); ++length) {
      SCOPED_TRACE(testing::Message() << std::hex << bit << std::dec << " " << length);
      expect_refused<TypeParam>(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)),
                                QIDL_ERR_TRUNCATED);
    }
  }
}

TYPED_TEST(Hostile, bytes_behind_the_last_field_are_refused) {
  for (uint32_t presence = 0; presence <= all_fields<TypeParam>(); ++presence) {
    SCOPED_TRACE(presence);
    expect_refused<TypeParam>(joined({example_bytes<TypeParam>(presence), {0}}), QIDL_ERR_TRAILING);
  }
}

TYPED_TEST(Hostile, every_presence_bit_without_a_field_is_refused_both_ways) {
  TypeParam message = Example<TypeParam>::message();
  const uint32_t all = all_fields<TypeParam>();
  for (uint32_t bit = 0x80000000; bit > all; bit >>= 1) {
    SCOPED_TRACE(bit);
    expect_refused<TypeParam>(joined({mask(bit), Bytes(64)}), QIDL_ERR_MASK);
    Bytes whole = example_bytes<TypeParam>(all);
    const Bytes with_bit = mask(all | bit);
    std::copy(with_bit.begin(), with_bit.end(), whole.begin());
    expect_refused<TypeParam>(whole, QIDL_ERR_MASK);
    message.presence = all | bit;
    EXPECT_EQ(encoded_size(message), QIDL_ERR_MASK);
  }
}

TYPED_TEST(Hostile, a_null_buffer_of_no_bytes_is_refused) {
  TypeParam message;
  EXPECT_EQ(Operations<TypeParam>::decode(nullptr, 0, &message, nullptr), QIDL_ERR_TRUNCATED);
  EXPECT_EQ(message.presence, 0u);
}

// --- Counts and lengths beyond what is left: nothing is allocated for them. ---

TEST(HostileCounts, a_byte_string_of_the_largest_length_is_refused) {
  const Bytes one_byte = hex("00 00 00 20 ff ff ff ff 00");
  expect_refused_without_allocation<pkgdist_ctrl_msg>(one_byte, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_byte_string_one_longer_than_the_rest_is_refused) {
  const Bytes three_of_four = hex("00 00 00 08 00 00 00 04 01 02 03");
  expect_refused_without_allocation<pkgdist_data_send_segment>(three_of_four, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_string_of_the_largest_length_is_refused) {
  const Bytes one_byte = hex("00 00 00 08 ff ff 61");
  expect_refused_without_allocation<pkgdist_data_send_req>(one_byte, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_string_one_longer_than_the_rest_is_refused) {
  const Bytes two_of_three = hex("00 00 00 08 00 03 61 62");
  expect_refused_without_allocation<pkgdist_data_send_req>(two_of_three, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_word_array_of_the_largest_count_is_refused) {
  const Bytes one_word = hex("00 00 00 02 ff ff 00 00 00 01");
  expect_refused_without_allocation<pkgdist_ctrl_msg>(one_word, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_word_array_whose_last_word_is_cut_is_refused) {
  const Bytes seven_of_eight = hex("00 00 00 04 00 02 00 00 00 01 00 00 00");
  expect_refused_without_allocation<pkgdist_data_send_miss_done>(seven_of_eight,
                                                                 QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_string_array_of_the_largest_count_is_refused) {
  const Bytes one_string = hex("00 00 00 20 ff ff 00 01 61");
  expect_refused_without_allocation<pkgdist_file_send_ctrl>(one_string, QIDL_ERR_TRUNCATED);
}

TEST(HostileCounts, a_string_array_with_one_string_less_than_counted_is_refused) {
  // Two strings are promised; behind the first, of two bytes, nothing is left.
  expect_refused<pkgdist_file_send_ctrl>(hex("00 00 00 20 00 02 00 02 61 62"), QIDL_ERR_TRUNCATED);
}

// --- Strings with a zero byte ---

TEST(HostileStrings, a_zero_byte_anywhere_in_a_string_is_refused) {
  for (const char* text : {"00 62 63", "61 00 63", "61 62 00"}) {
    SCOPED_TRACE(text);
    expect_refused_without_allocation<pkgdist_data_send_req>(
        joined({hex("00 00 00 08 00 03"), hex(text)}), QIDL_ERR_STRING);
  }
}

TEST(HostileStrings, a_zero_byte_in_a_later_string_releases_the_earlier_ones) {
  expect_refused<pkgdist_file_send_ctrl>(hex("00 00 00 20 00 03 00 01 61 00 02 62 62 00 01 00"),
                                         QIDL_ERR_STRING);
}

TEST(HostileStrings, a_zero_byte_in_data_is_data) {
  const Decoded<pkgdist_data_send_segment> message(hex("00 00 00 08 00 00 00 02 00 00"));
  EXPECT_EQ(message.result(), 0);
  EXPECT_EQ(message->data_size, 2u);
}

}  // namespace
