// Framing shared by both channels: a 4-byte big-endian length of the encoded header, the header,
// the body. One builder and one reader for every kind of datagram, without an allocation of their
// own.
#pragma once

#include <cstring>
#include <span>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {

inline constexpr size_t kFrameLengthSize = 4;

inline void store_u32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

inline uint32_t load_u32(const uint8_t* at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

// Bytes used, 0 when the header does not fit or cannot be encoded.
template <class Header>
size_t frame(std::span<uint8_t> out, const Header& header) {
  if (out.size() < kFrameLengthSize) return 0;
  const size_t room = out.size() - kFrameLengthSize;
  const ssize_t length = qidl::encode(header, out.data() + kFrameLengthSize, room);
  if (length < 0 || static_cast<size_t>(length) > room) return 0;
  store_u32(out.data(), static_cast<uint32_t>(length));
  return kFrameLengthSize + static_cast<size_t>(length);
}

template <class Header, class Body>
size_t frame(std::span<uint8_t> out, const Header& header, const Body& body) {
  const size_t used = frame(out, header);
  if (used == 0) return 0;
  const ssize_t length = qidl::encode(body, out.data() + used, out.size() - used);
  if (length < 0 || static_cast<size_t>(length) > out.size() - used) return 0;
  return used + static_cast<size_t>(length);
}

struct Frame {
  std::span<const uint8_t> header;
  std::span<const uint8_t> body;
};

// False when the datagram is shorter than it says.
inline bool split_frame(std::span<const uint8_t> bytes, Frame& out) {
  if (bytes.size() < kFrameLengthSize) return false;
  const size_t length = load_u32(bytes.data());
  const auto rest = bytes.subspan(kFrameLengthSize);
  if (length > rest.size()) return false;
  out = {rest.first(length), rest.subspan(length)};
  return true;
}

// A decoded structure; releases what it owns. Tells by operator bool whether decoding succeeded.
template <class T>
class Decoded {
 public:
  explicit Decoded(std::span<const uint8_t> bytes)
      : ok_(qidl::decode(bytes.data(), bytes.size(), value_, nullptr) == 0) {}
  ~Decoded() {
    if (ok_) qidl::release(value_, nullptr);
  }
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;

  explicit operator bool() const { return ok_; }
  const T& operator*() const { return value_; }
  const T* operator->() const { return &value_; }

 private:
  T value_{};
  bool ok_;
};

}  // namespace pkgdist::lead
