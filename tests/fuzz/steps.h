// One fuzzer input as a sequence of steps.
//
// A step is a kind (1 byte), the length of its payload (2 bytes, big-endian) and the payload; the
// last payload ends with the input, whatever its length says. So any bytes are a sequence, and a
// part of a sequence remains one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

// A property of the code under test; a broken one ends the run as a crash.
#define FUZZ_CHECK(condition)                                                           \
  do {                                                                                  \
    if (condition) break;                                                               \
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
    std::abort();                                                                       \
  } while (false)

// Takes numbers and texts from the front of some bytes; what is not there is 0 or empty.
class Input {
 public:
  explicit Input(View bytes) : left_(bytes) {}

  uint8_t u8() { return static_cast<uint8_t>(number(1)); }
  uint16_t u16() { return static_cast<uint16_t>(number(2)); }
  uint32_t u32() { return static_cast<uint32_t>(number(4)); }
  uint64_t u64() { return number(8); }
  View take(size_t length) {
    const View taken = left_.first(std::min(length, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  View rest() { return take(left_.size()); }
  // Everything that is left, up to the first zero byte.
  std::string text() {
    const View bytes = rest();
    return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
  }
  bool empty() const { return left_.empty(); }

 private:
  uint64_t number(size_t length) {
    uint64_t value = 0;
    for (const uint8_t byte : take(length)) value = value << 8 | byte;
    return value;
  }

  View left_;
};

struct Step {
  uint8_t kind = 0;
  View payload;
};

inline std::vector<Step> cut_into_steps(View input, size_t limit) {
  std::vector<Step> steps;
  for (Input in(input); !in.empty() && steps.size() < limit;) {
    Step& step = steps.emplace_back();
    step.kind = in.u8();
    const uint16_t length = in.u16();
    step.payload = in.take(length);
  }
  return steps;
}

// The other way round, for makers of inputs.
inline void append_number(Bytes& to, uint64_t value, size_t bytes) {
  while (bytes-- > 0) to.push_back(static_cast<uint8_t>(value >> 8 * bytes));
}
inline void append(Bytes& to, View bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}
inline void append_step(Bytes& to, uint8_t kind, View payload) {
  append_number(to, kind, 1);
  append_number(to, payload.size(), 2);
  append(to, payload);
}

}  // namespace fuzz
