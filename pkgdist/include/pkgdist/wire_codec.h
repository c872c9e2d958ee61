/* Encode, decode and free operations of the wire structures; platform/qidl.h says what they do. */
#ifndef PKGDIST_WIRE_CODEC_H
#define PKGDIST_WIRE_CODEC_H

#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"
#include "platform/qidl.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PKGDIST_DECLARE_CODEC(type)                                                           \
  ssize_t qidl_##type##_encode_ext(const struct type* message, uint8_t* buffer, size_t size); \
  int qidl_##type##_decode_ext(const uint8_t* buffer, size_t length, struct type* message,    \
                               const qidl_allocator* allocator);                              \
  int qidl_##type##_free_ext(struct type* message, const qidl_allocator* allocator)

PKGDIST_DECLARE_CODEC(pkgdist_ctrl_msg_hdr);
PKGDIST_DECLARE_CODEC(pkgdist_ctrl_msg);
PKGDIST_DECLARE_CODEC(pkgdist_data_msg_hdr);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_req);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_req_single);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_req_done);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_file_info);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_segment);
PKGDIST_DECLARE_CODEC(pkgdist_data_send_miss_done);
PKGDIST_DECLARE_CODEC(pkgdist_file_send_ctrl);

#undef PKGDIST_DECLARE_CODEC

#ifdef __cplusplus
}
#endif

#endif
