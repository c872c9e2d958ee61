// The codec operations under one name for all wire structures, and ownership of decoded ones.
#pragma once

#include "pkgdist/wire_codec.h"
#include "pkgdist/wire_fields.hpp"

namespace pkgdist {

#define PKGDIST_CODEC_OVERLOADS(type)                                                  \
  inline ssize_t encode(const struct type& message, uint8_t* buffer, size_t size) {    \
    return qidl_##type##_encode_ext(&message, buffer, size);                           \
  }                                                                                    \
  inline int decode(const uint8_t* buffer, size_t length, struct type& message) {      \
    return qidl_##type##_decode_ext(buffer, length, &message, &qidl_system_allocator); \
  }                                                                                    \
  inline int release(struct type& message) {                                           \
    return qidl_##type##_free_ext(&message, &qidl_system_allocator);                   \
  }
PKGDIST_CODEC_OVERLOADS(pkgdist_ctrl_msg_hdr)
PKGDIST_CODEC_OVERLOADS(pkgdist_ctrl_msg)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_msg_hdr)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_req)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_req_single)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_req_done)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_file_info)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_segment)
PKGDIST_CODEC_OVERLOADS(pkgdist_data_send_miss_done)
PKGDIST_CODEC_OVERLOADS(pkgdist_file_send_ctrl)
#undef PKGDIST_CODEC_OVERLOADS

// A wire structure whose strings and arrays are released at the end of the scope.
template <class Message>
class Owned {
 public:
  Owned() = default;
  ~Owned() { release(message_); }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  Message& operator*() { return message_; }
  Message* operator->() { return &message_; }

 private:
  Message message_{};
};

}  // namespace pkgdist
