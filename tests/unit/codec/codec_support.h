// One face for the C operations of every wire structure, byte vectors written by hand, and an
// allocator that counts and fails on demand.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "pkgdist/wire_codec.h"

namespace codec_test {

using Bytes = std::vector<uint8_t>;

// "00 1f ff" as bytes; blanks are free.
inline Bytes hex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  for (const char c : text) {
    if (c == ' ') continue;
    const int digit = c <= '9' ? c - '0' : c - 'a' + 10;
    EXPECT_TRUE(digit >= 0 && digit < 16) << text;
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  EXPECT_EQ(high, -1) << "an odd digit: " << text;
  return bytes;
}

inline Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes bytes;
  for (const Bytes& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
  return bytes;
}

inline Bytes mask(uint32_t presence) {
  return {static_cast<uint8_t>(presence >> 24), static_cast<uint8_t>(presence >> 16),
          static_cast<uint8_t>(presence >> 8), static_cast<uint8_t>(presence)};
}

// Counts what is handed out and not returned; the n-th request (from 1) fails.
class CountingAllocator {
 public:
  explicit CountingAllocator(unsigned failing_request = 0) : failing_(failing_request) {}
  CountingAllocator(const CountingAllocator&) = delete;
  CountingAllocator& operator=(const CountingAllocator&) = delete;
  const qidl_allocator* face() const { return &face_; }
  unsigned requests() const { return requests_; }
  int outstanding() const { return outstanding_; }

 private:
  static void* allocate(size_t size, void* self) {
    auto& own = *static_cast<CountingAllocator*>(self);
    if (++own.requests_ == own.failing_) return nullptr;
    ++own.outstanding_;
    return std::malloc(size);
  }
  static void release(void* memory, void* self) {
    --static_cast<CountingAllocator*>(self)->outstanding_;
    std::free(memory);
  }

  unsigned failing_;
  unsigned requests_ = 0;
  int outstanding_ = 0;
  qidl_allocator face_{allocate, release, this};
};

// The operations by type instead of by name.
template <class T>
struct Operations;
#define CODEC_TEST_OPERATIONS(type)                          \
  template <>                                                \
  struct Operations<struct type> {                           \
    static constexpr auto encode = qidl_##type##_encode_ext; \
    static constexpr auto decode = qidl_##type##_decode_ext; \
    static constexpr auto free = qidl_##type##_free_ext;     \
  };
CODEC_TEST_OPERATIONS(pkgdist_ctrl_msg_hdr)
CODEC_TEST_OPERATIONS(pkgdist_ctrl_msg)
CODEC_TEST_OPERATIONS(pkgdist_data_msg_hdr)
CODEC_TEST_OPERATIONS(pkgdist_data_send_req)
CODEC_TEST_OPERATIONS(pkgdist_data_send_req_single)
CODEC_TEST_OPERATIONS(pkgdist_data_send_req_done)
CODEC_TEST_OPERATIONS(pkgdist_data_send_file_info)
CODEC_TEST_OPERATIONS(pkgdist_data_send_segment)
CODEC_TEST_OPERATIONS(pkgdist_data_send_miss_done)
CODEC_TEST_OPERATIONS(pkgdist_file_send_ctrl)
#undef CODEC_TEST_OPERATIONS

template <class T>
ssize_t encoded_size(const T& message) {
  return Operations<T>::encode(&message, nullptr, 0);
}

template <class T>
Bytes encoded(const T& message) {
  const ssize_t size = encoded_size(message);
  EXPECT_GE(size, 0);
  if (size < 0) return {};
  Bytes bytes(static_cast<size_t>(size));
  EXPECT_EQ(Operations<T>::encode(&message, bytes.data(), bytes.size()), size);
  return bytes;
}

// A decoded message, released at the end of the scope. The bytes are decoded from a block of
// exactly their size, so that a checker of memory sees any read beyond it.
template <class T>
class Decoded {
 public:
  explicit Decoded(const Bytes& bytes, const qidl_allocator* allocator = nullptr)
      : allocator_(allocator), bytes_(bytes) {
    bytes_.shrink_to_fit();
    result_ = Operations<T>::decode(bytes_.data(), bytes_.size(), &message_, allocator);
  }
  ~Decoded() { EXPECT_EQ(Operations<T>::free(&message_, allocator_), 0); }
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;

  int result() const { return result_; }
  const uint8_t* buffer() const { return bytes_.data(); }
  const T* operator->() const { return &message_; }
  const T& operator*() const { return message_; }

 private:
  const qidl_allocator* allocator_;
  Bytes bytes_;
  T message_;
  int result_;
};

}  // namespace codec_test
