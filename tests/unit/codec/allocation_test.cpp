// Every allocation of a decode fails once: the result says so and nothing is left over.
#include "wire_examples.h"

using namespace codec_test;

namespace {

template <class T>
class Allocation : public testing::Test {};
TYPED_TEST_SUITE(Allocation, AllStructures);

TYPED_TEST(Allocation, each_failing_request_refuses_the_message_and_leaves_nothing) {
  const Bytes whole = example_bytes<TypeParam>(all_fields<TypeParam>());
  const CountingAllocator plain;
  unsigned requests = 0;
  {
    const Decoded<TypeParam> message(whole, plain.face());
    ASSERT_EQ(message.result(), 0);
    requests = plain.requests();
    EXPECT_EQ(plain.outstanding(), static_cast<int>(requests));
  }
  EXPECT_EQ(plain.outstanding(), 0) << "freed with the message";

  for (unsigned nth = 1; nth <= requests; ++nth) {
    const CountingAllocator failing(nth);
    const Decoded<TypeParam> message(whole, failing.face());
    EXPECT_EQ(message.result(), QIDL_ERR_NOMEM) << nth;
    EXPECT_EQ(failing.requests(), nth) << "it ends at the first failure";
    EXPECT_EQ(failing.outstanding(), 0);
    EXPECT_EQ(message->presence, 0u);
  }
}

TEST(AllocationOf, strings_and_arrays_and_nothing_else_take_memory) {
  const CountingAllocator allocator;
  const Decoded<pkgdist_file_send_ctrl> list(example_bytes<pkgdist_file_send_ctrl>(0x3F),
                                             allocator.face());
  EXPECT_EQ(allocator.requests(), 3u) << "the array and its two strings that are not empty";
  const CountingAllocator other;
  const Decoded<pkgdist_ctrl_msg> message(example_bytes<pkgdist_ctrl_msg>(0x3F), other.face());
  EXPECT_EQ(other.requests(), 1u) << "the node list";
}

}  // namespace
