// The one builder and sender of datagrams to the lead.
//
// A datagram is a 4-byte big-endian header length, the encoded header and, for some kinds, an
// encoded body behind it, in a zeroed buffer of a fixed size per kind. A sender reads:
//
//   Datagram datagram(kBufferBytes);
//   if (!datagram) ...            out of memory
//   datagram.put_header(header);
//   datagram.put_body(body);
//   if (datagram.encode_error() != 0) ...   the codec refused the message
//   if (!datagram.fits()) ...     larger than the buffer; nothing was written past its end
//   ssize_t sent = datagram.send_to_lead(socket, port);
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "pkgdist_codec.h"

namespace pkgdist {

inline constexpr size_t kHeaderLengthBytes = 4;

// Big-endian length at the start of every datagram. `data` holds at least 4 bytes.
uint32_t header_length(const uint8_t* data);

struct Freer {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Malloced = std::unique_ptr<T, Freer>;

class Datagram {
 public:
  explicit Datagram(size_t capacity)
      : buffer_(static_cast<uint8_t*>(std::calloc(1, capacity))), capacity_(capacity) {}

  explicit operator bool() const { return buffer_ != nullptr; }

  template <class Header>
  void put_header(const Header& header) {
    put(header, kHeaderLengthBytes);
    if (error_ != 0) return;
    store_header_length(static_cast<uint32_t>(total_ - kHeaderLengthBytes));
  }

  template <class Body>
  void put_body(const Body& body) {
    if (error_ == 0) put(body, total_);
  }

  // 0, or the codec's negative result.
  ssize_t encode_error() const { return error_; }
  bool fits() const { return total_ <= capacity_; }
  size_t capacity() const { return capacity_; }
  size_t total() const { return total_; }

  // Sends the whole datagram to the current lead's address at `port` (host byte order). Returns
  // what sendto() returned, with errno.
  ssize_t send_to_lead(int socket, uint16_t port) const;

  // Whether a result of send_to_lead() says that everything left.
  bool sent_whole(ssize_t result) const {
    return result >= 0 && static_cast<size_t>(result) == total_;
  }

 private:
  template <class Message>
  void put(const Message& message, size_t offset) {
    const size_t room = offset < capacity_ ? capacity_ - offset : 0;
    const ssize_t encoded = encode(message, room != 0 ? buffer_.get() + offset : nullptr, room);
    if (encoded < 0)
      error_ = encoded;
    else
      total_ = offset + static_cast<size_t>(encoded);
  }
  void store_header_length(uint32_t length);

  Malloced<uint8_t> buffer_;
  size_t capacity_;
  size_t total_ = 0;
  ssize_t error_ = 0;
};

}  // namespace pkgdist
