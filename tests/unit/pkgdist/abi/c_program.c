/* A C11 program that uses the receive library as its callers do: every public header compiles as C,
 * every function has the prototype it had, the exported globals start with their documented values,
 * and calls that touch no network answer as documented. Prints what is wrong and returns 1. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist/statistics.h"
#include "pkgdist/status.h"
#include "pkgdist/wire_codec.h"
#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"

static int failures = 0;

#define CHECK(condition)                                     \
  do {                                                       \
    if (!(condition)) {                                      \
      ++failures;                                            \
      printf("%s:%d: %s\n", __FILE__, __LINE__, #condition); \
    }                                                        \
  } while (0)

/* The prototypes: an incompatible one does not compile. */
static PkgdistStatus (*const ctrl_recv_init)(uint32_t, uint16_t, uint16_t, uint16_t, uint32_t,
                                             uint32_t, uint64_t) = instcomm_pkgdist_ctrl_recv_init;
static PkgdistStatus (*const set_nodeid)(nodeid_handle_t) = instcomm_pkgdist_ctrl_recv_set_nodeid;
static PkgdistStatus (*const send_lead_msg)(const void*, size_t, uint32_t, levm_handle_t,
                                            void (*)(uint64_t, void*),
                                            void*) = instcomm_pkgdist_ctrl_send_lead_msg;
static PkgdistStatus (*const mc_hdlr_attach)(levm_handle_t, uint32_t,
                                             void (*)(const void*, uint64_t, void*),
                                             void*) = instcomm_pkgdist_ctrl_mc_hdlr_attach;
static PkgdistStatus (*const register_lead_change)(
    levm_handle_t, void (*)(uint32_t, uint32_t, bool, void*),
    void*) = instcomm_pkgdist_ctrl_register_lead_change;
static PkgdistStatus (*const data_recv_init)(uint32_t, uint16_t,
                                             uint16_t) = instcomm_pkgdist_data_recv_init;
static PkgdistStatus (*const set_gate)(int (*)(uint32_t, uint32_t, const char*, uint32_t, uint32_t,
                                               uint32_t, void*),
                                       void*) = instcomm_pkgdist_data_set_gate;
static PkgdistStatus (*const set_resume)(void (*)(uint32_t, const char*, uint32_t,
                                                  void (*)(uint64_t, uint64_t, void*), void*,
                                                  void*),
                                         void*) = instcomm_pkgdist_data_set_resume;
static PkgdistStatus (*const set_recv_repository)(const char*, uint32_t,
                                                  bool) = instcomm_pkgdist_set_recv_repository;
static uint32_t (*const get_receive_xact_id)(void) = instcomm_pkgdist_get_receive_xact_id;
static PkgdistStatus (*const file_hdlr_attach)(levm_handle_t,
                                               void (*)(uint64_t, const char*, uint32_t, uint32_t,
                                                        uint32_t, void*),
                                               void*) = instcomm_pkgdist_data_file_hdlr_attach;
static PkgdistStatus (*const xact_start_attach)(
    levm_handle_t,
    void (*)(uint64_t, const char* const*, uint32_t, uint32_t, uint32_t, uint32_t, void*),
    void*) = instcomm_pkgdist_data_file_xact_start_hdlr_attach;
static PkgdistStatus (*const xact_done_attach)(levm_handle_t, void (*)(uint64_t, uint32_t, void*),
                                               void*) =
    instcomm_pkgdist_data_file_xact_done_hdlr_attach;
static PkgdistStatus (*const get_file)(const char*, uint32_t, uint32_t, uint32_t, uint32_t,
                                       levm_handle_t,
                                       void (*)(uint64_t, const char*, uint32_t, uint32_t, uint32_t,
                                                void*),
                                       void*) = instcomm_pkgdist_get_file;
static PkgdistStatus (*const get_file_cancel)(uint32_t) = instcomm_pkgdist_get_file_cancel;

/* Exported globals, as a process that looks at them declares them. */
extern uint32_t G_ctrl_tx_mc_addr, G_my_card_class, G_my_node_ip, G_my_msg_nodeid;
extern uint16_t G_ctrl_tx_mc_port, G_ctrl_rx_uc_port, G_ctrl_tx_uc_port;
extern uint64_t G_my_nodeid, G_lead_nodeid, G_ctrl_last_lead_msg;
extern uint32_t G_lead_uc_addr, G_lead_pid, G_lead_msg_nodeid;
extern char G_lead_node_str[32];
extern bool G_ctrl_lead_cb_registered, G_ctrl_recv_rx_thread_running;
extern uint32_t G_ctrl_uc_sequence, G_ctrl_mc_last_sequence, G_ctrl_uc_last_sequence,
    G_ctrl_mc_last_ack_sequence;
extern int G_ctrl_mc_rx_socket, G_ctrl_uc_rx_socket, G_ctrl_uc_tx_socket;
extern uint64_t G_pkgdist_qtrace_err_hdl, G_pkgdist_qtrace_lib_hdl;
extern uint32_t G_pkgdist_debug_lvl;
extern void *pkgdist_crt_ship_counter_hdl, *pkgdist_crt_ship_histogram_hdl,
    *pkgdist_crs_ship_counter_hdl, *pkgdist_crs_ship_histogram_hdl, *pkgdist_drt_ship_counter_hdl,
    *pkgdist_drt_ship_watermark_hdl, *pkgdist_drt_ship_histogram_hdl, *pkgdist_drs_ship_counter_hdl,
    *pkgdist_drs_ship_histogram_hdl;

static void check_initial_values(void) {
  static const char empty[32];
  CHECK(G_ctrl_tx_mc_addr == 0 && G_ctrl_tx_mc_port == 0);
  CHECK(G_ctrl_rx_uc_port == 0 && G_ctrl_tx_uc_port == 0);
  CHECK(G_my_card_class == 0 && G_my_node_ip == 0 && G_my_nodeid == 0 && G_my_msg_nodeid == 0);
  CHECK(G_lead_uc_addr == 0 && G_lead_pid == 0 && G_lead_msg_nodeid == 0 && G_lead_nodeid == 0);
  CHECK(memcmp(G_lead_node_str, empty, sizeof empty) == 0);
  CHECK(G_ctrl_last_lead_msg == 0 && !G_ctrl_lead_cb_registered);
  CHECK(G_ctrl_uc_sequence == 1);
  CHECK(G_ctrl_mc_last_sequence == 0 && G_ctrl_uc_last_sequence == 0);
  CHECK(G_ctrl_mc_last_ack_sequence == 0);
  CHECK(G_ctrl_mc_rx_socket == -1 && G_ctrl_uc_rx_socket == -1 && G_ctrl_uc_tx_socket == -1);
  CHECK(!G_ctrl_recv_rx_thread_running);
  CHECK(G_pkgdist_qtrace_err_hdl == 0 && G_pkgdist_qtrace_lib_hdl == 0);
  CHECK(G_pkgdist_debug_lvl == 0);
  CHECK(G_ctrl_rto.rx_select_timeout == 125000);
  CHECK(G_ctrl_rto.scan_interval == 250000000);
  CHECK(G_ctrl_rto.lead_ack_timeout == 500000000);
  CHECK(G_ctrl_rto.segment_timeout == 250000000);
  CHECK(G_ctrl_rto.lead_silence_timeout == UINT64_C(7500000000));
  CHECK(G_ctrl_rto.max_retries == 5);
  CHECK(G_ctrl_rto.rx_socket_buffer == 524288);
  CHECK(G_data_recv_mode_mask == 07777);
  CHECK(G_data_rto.receive_wait == 5000000);
  CHECK(G_data_rto.timer_period == 500000000);
  CHECK(G_data_rto.file_info_timeout == 1000000000);
  CHECK(G_data_rto.segment_timeout == 2000000000);
  CHECK(G_data_rto.not_done_timeout == 2000000000);
  CHECK(G_data_rto.stat_age == UINT64_C(30000000000));
  CHECK(G_data_rto.max_retries == 5);
  CHECK(G_data_rto.receive_buffer == 3145728);
  CHECK(!pkgdist_crt_ship_counter_hdl && !pkgdist_crt_ship_histogram_hdl);
  CHECK(!pkgdist_crs_ship_counter_hdl && !pkgdist_crs_ship_histogram_hdl);
  CHECK(!pkgdist_drt_ship_counter_hdl && !pkgdist_drt_ship_watermark_hdl);
  CHECK(!pkgdist_drt_ship_histogram_hdl);
  CHECK(!pkgdist_drs_ship_counter_hdl && !pkgdist_drs_ship_histogram_hdl);
}

/* The time-out tables have their fields where a program built earlier expects them. */
static void check_time_out_tables(void) {
  CHECK(sizeof G_ctrl_rto == 5 * 8 + 2 * 4 && sizeof G_data_rto == 6 * 8 + 2 * 4);
  CHECK(offsetof(struct pkgdist_ctrl_timeouts, segment_timeout) == 3 * 8);
  CHECK(offsetof(struct pkgdist_ctrl_timeouts, max_retries) == 5 * 8);
  CHECK(offsetof(struct pkgdist_data_timeouts, segment_timeout) == 3 * 8);
  CHECK(offsetof(struct pkgdist_data_timeouts, max_retries) == 6 * 8);
  void* process = dlopen(NULL, RTLD_NOW);
  CHECK(process != NULL);
  CHECK(dlsym(process, "G_ctrl_rto") == &G_ctrl_rto && dlsym(process, "G_data_rto") == &G_data_rto);
  dlclose(process);
}

static void on_message(const void* bytes, uint64_t size, void* ctx) {
  (void)bytes, (void)size, (void)ctx;
}

static void check_refusals(void) {
  CHECK(PKGDIST_ERR_INVALID == UINT64_C(0x40101278CA100BEA));
  CHECK(PKGDIST_STATUS_FROM_ERRNO(2) == UINT64_C(0x40001278CA100002));
  CHECK(send_lead_msg(NULL, 1, 1, NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(send_lead_msg("x", 0, 1, NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(mc_hdlr_attach(NULL, 2, on_message, NULL) == PKGDIST_ERR_INVALID);
  CHECK(register_lead_change(NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(set_recv_repository(NULL, 1, false) == PKGDIST_ERR_INVALID);
  CHECK(set_gate(NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(set_resume(NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(file_hdlr_attach(NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(xact_start_attach(NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(xact_done_attach(NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(get_file(NULL, 1, 1, 1, 1, NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
  CHECK(get_file_cancel(0) == PKGDIST_ERR_INVALID);
  CHECK(get_receive_xact_id() != 0);
  CHECK(strcmp(pkgdist_status_str(PKGDIST_ERR_NOT_FOUND), "not found") == 0);
}

/* Before start-up: no trace, no statistics, no socket, and everything that needs none works. */
static void check_use_before_start_up(void) {
  struct nodeid identity = {1, 2, 3};
  levm_handle_t loop = levm_create();
  CHECK(loop != NULL);
  CHECK(set_nodeid(&identity) == 0);
  CHECK(G_my_msg_nodeid == 0x10203 && G_my_nodeid == (uint64_t)(uintptr_t)&identity);
  CHECK(mc_hdlr_attach(loop, 2, on_message, NULL) == 0);
  CHECK(mc_hdlr_attach(loop, 2, NULL, NULL) == 0);
  CHECK(send_lead_msg("x", 1, 1, NULL, NULL, NULL) == PKGDIST_ERR_SEND);
  CHECK(levm_run_once(loop, 0) == 0);
  levm_destroy(loop);
}

/* Internal names are hidden; the ones above are found by name too. */
static void check_visibility(void) {
  void* process = dlopen(NULL, RTLD_NOW);
  CHECK(process != NULL);
  CHECK(dlsym(process, "instcomm_pkgdist_get_file") != NULL);
  CHECK(dlsym(process, "pkgdist_ctrl_recv_msg_qitc_handler") == NULL);
  dlclose(process);
}

static void check_wire_structures(void) {
  pkgdist_ctrl_msg_hdr header = {.presence = 0x20, .segment = 7};
  uint8_t bytes[8];
  CHECK(qidl_pkgdist_ctrl_msg_hdr_encode_ext(&header, bytes, sizeof bytes) == 8);
  CHECK(memcmp(bytes, "\0\0\0\x20\0\0\0\x07", 8) == 0);
  struct pkgdist_data_send_req_single single;
  CHECK(qidl_pkgdist_data_send_req_single_decode_ext(bytes, 3, &single, NULL) < 0);
}

int main(void) {
  CHECK(ctrl_recv_init != NULL && data_recv_init != NULL);
  check_initial_values();
  check_time_out_tables();
  check_refusals();
  check_use_before_start_up();
  check_visibility();
  check_wire_structures();
  if (failures == 0) puts("all well");
  return failures != 0;
}
