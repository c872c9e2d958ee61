// Control start-up, node identity and the shared state of the control side.
//
// Start-up runs once on a caller's thread before any other call. It unwinds nothing: what was
// opened before a failure stays, so that a second attempt finds the traces and statistics in place.
// The receive thread runs before the unicast send socket exists; an acknowledgement sent in between
// fails and is asked for again.
#include "pkgdist_ctrl_recv.h"

#include <cstring>

#include "pkgdist_ctrl_recv_rx_thread.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"
#include "platform/fts.h"

extern "C" {
PKGDIST_EXPORT uint32_t G_ctrl_tx_mc_addr = 0;
PKGDIST_EXPORT uint16_t G_ctrl_tx_mc_port = 0;
PKGDIST_EXPORT uint16_t G_ctrl_rx_uc_port = 0;
PKGDIST_EXPORT uint16_t G_ctrl_tx_uc_port = 0;
PKGDIST_EXPORT uint32_t G_my_card_class = 0;
PKGDIST_EXPORT uint32_t G_my_node_ip = 0;
PKGDIST_EXPORT nodeid_handle_t G_my_nodeid = nullptr;
PKGDIST_EXPORT uint32_t G_my_msg_nodeid = 0;

PKGDIST_EXPORT uint32_t G_lead_uc_addr = 0;
PKGDIST_EXPORT uint32_t G_lead_pid = 0;
PKGDIST_EXPORT uint32_t G_lead_msg_nodeid = 0;
PKGDIST_EXPORT nodeid_handle_t G_lead_nodeid = nullptr;
alignas(uint64_t) PKGDIST_EXPORT char G_lead_node_str[kNodeStringBytes] = "";
PKGDIST_EXPORT uint64_t G_ctrl_last_lead_msg = 0;
PKGDIST_EXPORT bool G_ctrl_lead_cb_registered = false;

PKGDIST_EXPORT uint32_t G_ctrl_uc_sequence = 1;
PKGDIST_EXPORT uint32_t G_ctrl_mc_last_sequence = 0;
PKGDIST_EXPORT uint32_t G_ctrl_uc_last_sequence = 0;
PKGDIST_EXPORT uint32_t G_ctrl_mc_last_ack_sequence = 0;

PKGDIST_EXPORT int G_ctrl_mc_rx_socket = -1;
PKGDIST_EXPORT int G_ctrl_uc_rx_socket = -1;
PKGDIST_EXPORT int G_ctrl_uc_tx_socket = -1;
PKGDIST_EXPORT bool G_ctrl_recv_rx_thread_running = false;
PKGDIST_EXPORT uint8_t G_ctrl_recv_rx_buffer[kCtrlPacketMax] = {};

PKGDIST_EXPORT pkgdist_ctrl_timeouts G_ctrl_rto = {
    .rx_select_timeout = 125'000,
    .scan_interval = 250'000'000,
    .lead_ack_timeout = 500'000'000,
    .segment_timeout = 250'000'000,
    .lead_silence_timeout = 7'500'000'000,
    .max_retries = 5,
    .rx_socket_buffer = 524'288,
};
}

namespace pkgdist {

namespace {

constexpr uint32_t kErrorRecords = 40'000;
constexpr uint32_t kLibraryRecords = 80'000;
constexpr char kRegistrationPath[] = "inst/pkgdist/lib_inst_pkgdist_recv";
constexpr uint64_t kSimulationFactor = 10;

// The node string as the words in which it is read and written.
constexpr size_t kNodeStringWords = kNodeStringBytes / sizeof(uint64_t);
uint64_t* node_string_words() {
  return reinterpret_cast<uint64_t*>(G_lead_node_str);
}

PkgdistStatus open_traces(uint64_t configuration) {
  const char* id = log::catalogue_id();
  const auto open = [id](const char* name, uint32_t records, qtrace_handle_t& handle) {
    qtrace_handle_t opened = 0;
    const int error = qtrace_open_internal(name, records, log::kTracePointLimit, kRegistrationPath,
                                           id, 0, &opened);
    if (error == 0) store(handle, opened);
    return error;
  };
  if (open("pkgdist_recv_err", kErrorRecords, G_pkgdist_qtrace_err_hdl) != 0 ||
      open("pkgdist_recv_lib", kLibraryRecords, G_pkgdist_qtrace_lib_hdl) != 0 ||
      qtrace_enable_configuration(G_pkgdist_qtrace_err_hdl, configuration) != 0 ||
      qtrace_enable_configuration(G_pkgdist_qtrace_lib_hdl, configuration) != 0)
    return PKGDIST_ERR_SYSTEM;
  log::describe(G_pkgdist_qtrace_err_hdl);
  log::describe(G_pkgdist_qtrace_lib_hdl);
  return 0;
}

void register_statistics(const char* function) {
  if (int error = register_table(kCrtCounters); error != 0)
    PKGDIST_ERR_IN(function, "ctrl recv transport counters ship register failed: %d", error);
  if (int error = register_table(kCrtHistograms); error != 0)
    PKGDIST_ERR_IN(function, "ctrl recv transport histograms ship register failed: %d", error);
  if (int error = register_table(kCrsCounters); error != 0)
    PKGDIST_ERR_IN(function, "ctrl recv server counters ship register failed: %d", error);
  if (int error = register_table(kCrsHistograms); error != 0)
    PKGDIST_ERR_IN(function, "ctrl recv server histograms ship register failed: %d", error);
}

void stretch(uint64_t& interval) {
  store(interval, load(interval) * kSimulationFactor);
}

void stretch_timeouts() {
  stretch(G_ctrl_rto.rx_select_timeout);
  stretch(G_ctrl_rto.scan_interval);
  stretch(G_ctrl_rto.lead_ack_timeout);
  stretch(G_ctrl_rto.segment_timeout);
  stretch(G_ctrl_rto.lead_silence_timeout);
}

PkgdistStatus open_channel() {
  PkgdistStatus status = pkgdist_ctrl_recv_mc_rx_port_init();
  if (status == 0) status = pkgdist_ctrl_recv_uc_rx_port_init();
  if (status == 0) status = pkgdist_ctrl_recv_rx_start();
  if (status == 0) status = pkgdist_ctrl_recv_uc_tx_port_init();
  return status;
}

}  // namespace

LeadNodeText lead_node_text() {
  LeadNodeText copy;
  for (size_t i = 0; i < kNodeStringWords; ++i) {
    const uint64_t word = load(node_string_words()[i]);
    std::memcpy(copy.text + i * sizeof word, &word, sizeof word);
  }
  copy.text[kNodeStringBytes - 1] = '\0';
  return copy;
}

void set_lead_node_text(const char* text) {
  LeadNodeText whole{};
  (void)std::strncpy(whole.text, text, kNodeStringBytes - 1);
  for (size_t i = 0; i < kNodeStringWords; ++i) {
    uint64_t word = 0;
    std::memcpy(&word, whole.text + i * sizeof word, sizeof word);
    store(node_string_words()[i], word);
  }
}

}  // namespace pkgdist

using namespace pkgdist;

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_ctrl_recv_init(
    uint32_t mc_addr, uint16_t mc_port, uint16_t lead_port, uint16_t recv_port, uint32_t card_class,
    uint32_t node_ip, uint64_t trace_configuration) {
  store(G_ctrl_tx_mc_addr, mc_addr);
  store(G_ctrl_tx_mc_port, mc_port);
  store(G_ctrl_rx_uc_port, lead_port);
  store(G_ctrl_tx_uc_port, recv_port);
  store(G_my_card_class, card_class);
  store(G_my_node_ip, node_ip);

  if (const PkgdistStatus status = open_traces(trace_configuration); status != 0) return status;
  PKGDIST_INFO("CTRL recv init - mc addr %d.%d.%d.%d port %d\n", PKGDIST_OCTETS(mc_addr), mc_port);
  PKGDIST_INFO("CTRL recv init - uc addr %d.%d.%d.%d lead port %d recv port %d\n",
               PKGDIST_OCTETS(node_ip), lead_port, recv_port);
  register_statistics(static_cast<const char*>(__func__));
  if (platform_is_sim_platform()) stretch_timeouts();
  return open_channel();
}

extern "C" PKGDIST_EXPORT PkgdistStatus
instcomm_pkgdist_ctrl_recv_set_nodeid(nodeid_handle_t nodeid) {
  store(G_my_nodeid, nodeid);
  store(G_my_msg_nodeid,
        nodeid != nullptr ? nodeid->first << 16 | nodeid->second << 8 | nodeid->third : 0);
  char location[kNodeStringBytes] = "";
  (void)nodeid_to_str_external(nodeid, location, sizeof location);
  PKGDIST_INFO("CTRL recv set nodeid - 0x%x and location recieved is = %s \n",
               load(G_my_msg_nodeid), static_cast<const char*>(location));
  return 0;
}
