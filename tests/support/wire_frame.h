// Framing of datagrams for tests that play one side of the protocol: a 4-byte big-endian length of
// the encoded header, the header, the body.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::test {

using Bytes = std::vector<uint8_t>;

template <class T>
Bytes encoded(const T& message) {
  Bytes bytes(static_cast<size_t>(qidl::encode(message, nullptr, 0)));
  qidl::encode(message, bytes.data(), bytes.size());
  return bytes;
}

template <class Header>
Bytes framed(const Header& header) {
  const Bytes head = encoded(header);
  Bytes bytes;
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes.push_back(static_cast<uint8_t>(head.size() >> shift));
  bytes.insert(bytes.end(), head.begin(), head.end());
  return bytes;
}

template <class Header, class Body>
Bytes framed(const Header& header, const Body& body) {
  Bytes bytes = framed(header);
  const Bytes tail = encoded(body);
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return bytes;
}

// The encoded header and body of a datagram; both empty when it is too short.
struct Parts {
  std::span<const uint8_t> header;
  std::span<const uint8_t> body;
};

inline Parts parts_of(std::span<const uint8_t> bytes) {
  if (bytes.size() < 4) return {};
  const size_t length =
      size_t{bytes[0]} << 24 | size_t{bytes[1]} << 16 | size_t{bytes[2]} << 8 | bytes[3];
  if (length > bytes.size() - 4) return {};
  return {bytes.subspan(4, length), bytes.subspan(4 + length)};
}

// A decoded structure that releases itself; check ok() before use.
template <class T>
class Message {
 public:
  explicit Message(std::span<const uint8_t> bytes)
      : ok_(qidl::decode(bytes.data(), bytes.size(), value_, nullptr) == 0) {}
  ~Message() {
    if (ok_) qidl::release(value_, nullptr);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  bool ok() const { return ok_; }
  const T* operator->() const { return &value_; }
  const T& operator*() const { return value_; }

 private:
  T value_{};
  bool ok_;
};

}  // namespace pkgdist::test
