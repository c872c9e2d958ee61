/* The platform's functions under names of their own in the symbol table.
 *
 * The receive library is built with this header before all others. It calls queue_init(), say, and
 * the linker sees pkgdist_platform_queue_init: a function queue_init() of the program, or of
 * another library in the process, is not taken for the platform's by accident. The platform library
 * has every function under both names.
 *
 * A program that
 *   - has functions of its own under names of platform/ and uses the platform too, or
 *   - replaces a function of the platform on purpose, for the receive library too,
 * includes this header before the others in the files concerned, or builds them with
 * -include platform/symbol_names.h. All other programs do without it, and so does a platform
 * library that takes the place of this one (PKGDIST_PLATFORM=external).
 *
 * The variables of platform/inst_common.h are not here: they belong to the process.
 */
#ifndef PLATFORM_SYMBOL_NAMES_H
#define PLATFORM_SYMBOL_NAMES_H

#define PLATFORM_SYMBOL_PRAGMA(text) _Pragma(#text)
#define PLATFORM_SYMBOL(name) PLATFORM_SYMBOL_PRAGMA(redefine_extname name pkgdist_platform_##name)

/* A variable, whose second name the platform library defines beside it: one made by the linker has
 * no size, which programs need for a copy of their own. */
#define PLATFORM_VARIABLE PLATFORM_SYMBOL

/* The build gives the platform library the second names of functions from these lines. */
/* clang-format off */
PLATFORM_VARIABLE(qidl_system_allocator)
PLATFORM_SYMBOL(fts_get_stamp_fast)
PLATFORM_SYMBOL(inst_symlink)
PLATFORM_SYMBOL(instcomm_create_filepath_dirs)
PLATFORM_SYMBOL(levm_attach_qitc_handle)
PLATFORM_SYMBOL(levm_create)
PLATFORM_SYMBOL(levm_destroy)
PLATFORM_SYMBOL(levm_fd)
PLATFORM_SYMBOL(levm_run)
PLATFORM_SYMBOL(levm_run_once)
PLATFORM_SYMBOL(levm_stop)
PLATFORM_SYMBOL(nodeid_create)
PLATFORM_SYMBOL(nodeid_destroy)
PLATFORM_SYMBOL(nodeid_to_str_external)
PLATFORM_SYMBOL(platform_is_sim_platform)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_hdr_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_hdr_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_ctrl_msg_hdr_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_msg_hdr_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_msg_hdr_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_msg_hdr_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_file_info_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_file_info_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_file_info_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_miss_done_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_miss_done_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_miss_done_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_done_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_done_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_done_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_single_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_single_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_req_single_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_segment_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_segment_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_data_send_segment_free_ext)
PLATFORM_SYMBOL(qidl_pkgdist_file_send_ctrl_decode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_file_send_ctrl_encode_ext)
PLATFORM_SYMBOL(qidl_pkgdist_file_send_ctrl_free_ext)
PLATFORM_SYMBOL(qitc_get)
PLATFORM_SYMBOL(qitc_handle_create)
PLATFORM_SYMBOL(qitc_handle_destroy)
PLATFORM_SYMBOL(qitc_handle_fd)
PLATFORM_SYMBOL(qitc_put)
PLATFORM_SYMBOL(qtrace_describe)
PLATFORM_SYMBOL(qtrace_enable_configuration)
PLATFORM_SYMBOL(qtrace_internal)
PLATFORM_SYMBOL(qtrace_open_internal)
PLATFORM_SYMBOL(quendrel_sstrncat)
PLATFORM_SYMBOL(quendrel_sstrncpy)
PLATFORM_SYMBOL(queue_dequeue)
PLATFORM_SYMBOL(queue_enqueue)
PLATFORM_SYMBOL(queue_init)
PLATFORM_SYMBOL(ship_register)
/* clang-format on */

#endif
