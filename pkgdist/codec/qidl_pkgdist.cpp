// The codec operations of the wire structures. They are shipped in the platform library, which is
// where the receive library and the lead look for them and where another platform puts its own.
#include <cstdlib>

#include "pkgdist/wire_codec.h"
#include "pkgdist/wire_fields.hpp"

extern "C" const qidl_allocator qidl_system_allocator = {
    .allocate = [](size_t size, void*) { return std::malloc(size); },
    .release = [](void* memory, void*) { std::free(memory); },
    .ctx = nullptr};
// Its second name, see platform/symbol_names.h.
extern "C" const qidl_allocator pkgdist_platform_qidl_system_allocator
    __attribute__((alias("qidl_system_allocator")));

QIDL_DEFINE_OPERATIONS(pkgdist_ctrl_msg_hdr)
QIDL_DEFINE_OPERATIONS(pkgdist_ctrl_msg)
QIDL_DEFINE_OPERATIONS(pkgdist_data_msg_hdr)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_req)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_req_single)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_req_done)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_file_info)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_segment)
QIDL_DEFINE_OPERATIONS(pkgdist_data_send_miss_done)
QIDL_DEFINE_OPERATIONS(pkgdist_file_send_ctrl)
