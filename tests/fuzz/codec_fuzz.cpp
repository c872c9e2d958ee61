// The message codec: bytes that are decoded, and messages that are made here and encoded.
//
// Input: which structure (bit 7: made here), which request to the allocator fails (0: none), and
// bytes. There is one encoding of every message, so what was decoded is encoded to the same bytes.
#include <memory>

#include "codec/codec_support.h"
#include "pkgdist/wire_fields.hpp"
#include "steps.h"

namespace {

using namespace fuzz;
using codec_test::CountingAllocator;
using codec_test::Operations;

// Encodes into blocks of exactly the size given, so that a checker of memory sees each byte beyond.
template <class T>
Bytes encoded(const T& message) {
  const ssize_t size = Operations<T>::encode(&message, nullptr, 0);
  FUZZ_CHECK(size >= 4);
  Bytes bytes(static_cast<size_t>(size));
  bytes.shrink_to_fit();
  FUZZ_CHECK(Operations<T>::encode(&message, bytes.data(), bytes.size()) == size);
  const std::unique_ptr<uint8_t[]> half(new uint8_t[bytes.size() / 2]);
  FUZZ_CHECK(Operations<T>::encode(&message, half.get(), bytes.size() / 2) == size);
  return bytes;
}

template <class T>
void expect_cleared(T& message) {
  const Bytes bytes = encoded(message);
  FUZZ_CHECK(bytes == Bytes(4));
}

template <class T>
void decode(View bytes, unsigned failing_request) {
  CountingAllocator allocator(failing_request);
  T message;
  if (Operations<T>::decode(bytes.data(), bytes.size(), &message, allocator.face()) < 0) {
    FUZZ_CHECK(allocator.outstanding() == 0);
    expect_cleared(message);
    return;
  }
  FUZZ_CHECK(failing_request == 0 || allocator.requests() < failing_request);
  const Bytes again = encoded(message);
  FUZZ_CHECK(std::equal(again.begin(), again.end(), bytes.begin(), bytes.end()));
  FUZZ_CHECK(Operations<T>::free(&message, allocator.face()) == 0);
  FUZZ_CHECK(allocator.outstanding() == 0);
  expect_cleared(message);
}

// What made messages point to.
struct Contents {
  std::vector<std::unique_ptr<std::string>> texts;
  std::vector<char*> names;
  std::vector<uint32_t> words;
  Bytes data;

  // Lengths around what a length field holds are as likely as short ones.
  static size_t length(Input& in) {
    const uint8_t kind = in.u8();
    return kind >= 250 ? size_t{65'530} + in.u8() % 12 : kind % 40;
  }
  char* text(Input& in) {
    std::string made(length(in), 'x');
    const View start = in.take(std::min<size_t>(made.size(), 40));
    std::copy(start.begin(), start.end(), made.begin());
    return texts.emplace_back(std::make_unique<std::string>(made))->data();
  }
};

template <class T, class V>
void fill(Input& in, T& message, const qidl::ScalarField<T, V>& field, Contents&) {
  message.*field.key = static_cast<V>(in.u64());
}
template <class T>
void fill(Input& in, T& message, const qidl::StringField<T>& field, Contents& contents) {
  message.*field.key = contents.text(in);
}
template <class T>
void fill(Input& in, T& message, const qidl::BytesField<T>& field, Contents& contents) {
  contents.data.assign(Contents::length(in), in.u8());
  message.*field.key = contents.data.data();
  message.*field.size = contents.data.size();
}
template <class T>
void fill(Input& in, T& message, const qidl::WordArrayField<T>& field, Contents& contents) {
  contents.words.assign(Contents::length(in), in.u32());
  message.*field.key = contents.words.data();
  message.*field.count = static_cast<uint32_t>(contents.words.size());
}
template <class T>
void fill(Input& in, T& message, const qidl::StringArrayField<T>& field, Contents& contents) {
  // Long lists share one short name: what counts is their number.
  static char shared_name[] = "name";
  const size_t count = Contents::length(in);
  for (size_t i = 0; i < count; ++i)
    contents.names.push_back(count < 40 ? contents.text(in) : shared_name);
  message.*field.key = contents.names.data();
  message.*field.count = static_cast<uint32_t>(contents.names.size());
}

template <class T>
void make(View bytes) {
  Input in(bytes);
  Contents contents;
  T message{};
  message.presence = in.u32();
  bool too_long = false;
  qidl::for_each_field<T>([&](const auto& field, uint32_t bit) {
    fill(in, message, field, contents);
    qidl::Writer nothing(nullptr, 0);
    if ((message.presence & bit) != 0) too_long |= field.encode(nothing, message) < 0;
    return 0;
  });
  const ssize_t size = Operations<T>::encode(&message, nullptr, 0);
  if (size < 0) {
    FUZZ_CHECK(size == QIDL_ERR_MASK ? (message.presence & ~qidl::field_mask<T>) != 0 : too_long);
    return;
  }
  decode<T>(encoded(message), 0);
}

template <class T>
void run(bool made_here, unsigned failing_request, View bytes) {
  if (made_here) return make<T>(bytes);
  const std::unique_ptr<uint8_t[]> block(new uint8_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), block.get());
  decode<T>({block.get(), bytes.size()}, failing_request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in({data, size});
  const uint8_t structure = in.u8();
  const unsigned failing_request = in.u8();
  const bool made_here = (structure & 0x80) != 0;
  using Run = void (*)(bool, unsigned, View);
  constexpr Run runs[] = {run<pkgdist_ctrl_msg_hdr>,
                          run<pkgdist_ctrl_msg>,
                          run<pkgdist_data_msg_hdr>,
                          run<pkgdist_data_send_req>,
                          run<struct pkgdist_data_send_req_single>,
                          run<pkgdist_data_send_req_done>,
                          run<pkgdist_data_send_file_info>,
                          run<pkgdist_data_send_segment>,
                          run<pkgdist_data_send_miss_done>,
                          run<pkgdist_file_send_ctrl>};
  runs[(structure & 0x7F) % std::size(runs)](made_here, failing_request, in.rest());
  return 0;
}
