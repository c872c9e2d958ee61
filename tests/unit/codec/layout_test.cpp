// The byte layout of every wire structure against vectors written by hand: whole messages and every
// subset of their fields.
#include "wire_examples.h"

using namespace codec_test;

namespace {

template <class T>
class Layout : public testing::Test {};
TYPED_TEST_SUITE(Layout, AllStructures);

TYPED_TEST(Layout, every_subset_of_fields_encodes_to_the_mask_and_its_fields_in_order) {
  TypeParam message = Example<TypeParam>::message();
  ASSERT_EQ(message.presence, all_fields<TypeParam>());
  for (uint32_t presence = 0; presence <= all_fields<TypeParam>(); ++presence) {
    message.presence = presence;
    ASSERT_EQ(encoded(message), example_bytes<TypeParam>(presence)) << std::hex << presence;
  }
}

TYPED_TEST(Layout, every_subset_of_fields_decodes_with_the_others_empty) {
  for (uint32_t presence = 0; presence <= all_fields<TypeParam>(); ++presence) {
    const Decoded<TypeParam> message(example_bytes<TypeParam>(presence));
    ASSERT_EQ(message.result(), 0) << std::hex << presence;
    ASSERT_EQ(message->presence, presence);
    ASSERT_TRUE(Example<TypeParam>::same(*message, presence)) << std::hex << presence;
  }
}

TYPED_TEST(Layout, encoding_says_the_full_size_and_writes_nothing_beyond_a_smaller_buffer) {
  const TypeParam message = Example<TypeParam>::message();
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  for (size_t room = 0; room < whole.size(); ++room) {
    Bytes buffer(whole.size() + 8, 0xEE);
    ASSERT_EQ(Operations<TypeParam>::encode(&message, buffer.data(), room),
              static_cast<ssize_t>(whole.size()));
    for (size_t i = room; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xEE) << room << " " << i;
  }
}

TYPED_TEST(Layout, encoding_into_a_larger_buffer_leaves_the_rest_alone) {
  const TypeParam message = Example<TypeParam>::message();
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  Bytes buffer(whole.size() + 8, 0xEE);
  ASSERT_EQ(Operations<TypeParam>::encode(&message, buffer.data(), buffer.size()),
            static_cast<ssize_t>(whole.size()));
  EXPECT_EQ(buffer, joined({whole, Bytes(8, 0xEE)}));
}

TYPED_TEST(Layout, a_null_allocator_is_the_system_one) {
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  const Decoded<TypeParam> by_null(whole, nullptr);
  const Decoded<TypeParam> by_name(whole, &qidl_system_allocator);
  EXPECT_EQ(by_null.result(), 0);
  EXPECT_EQ(by_name.result(), 0);
  EXPECT_EQ(encoded(*by_null), encoded(*by_name));
}

TYPED_TEST(Layout, freeing_clears_the_message_and_may_be_repeated) {
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  TypeParam message;
  ASSERT_EQ(Operations<TypeParam>::decode(whole.data(), whole.size(), &message, nullptr), 0);
  EXPECT_EQ(Operations<TypeParam>::free(&message, nullptr), 0);
  EXPECT_EQ(message.presence, 0u);
  EXPECT_EQ(encoded(message), mask(0));
  EXPECT_EQ(Operations<TypeParam>::free(&message, nullptr), 0);
}

}  // namespace
