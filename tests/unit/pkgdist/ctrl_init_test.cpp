// Control start-up and the node's identity.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "ctrl_support.h"
#include "pkgdist_log.h"
#include "pkgdist_socket.h"

using namespace support;

namespace {

constexpr uint32_t kGroup = 0xEF010203;
constexpr uint64_t kTraceConfiguration = 0x1234;

// The receive thread counts as running, so that start-up makes none.
class CtrlInit : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    G_ctrl_recv_rx_thread_running = true;
  }
  void TearDown() override {
    unsetenv("PKGDIST_SIM_PLATFORM");
    G_ctrl_recv_rx_thread_running = false;
    pkgdist::close_socket(G_ctrl_mc_rx_socket);
    pkgdist::close_socket(G_ctrl_uc_rx_socket);
    pkgdist::close_socket(G_ctrl_uc_tx_socket);
    CtrlTest::TearDown();
  }

  static PkgdistStatus start() {
    return instcomm_pkgdist_ctrl_recv_init(kGroup, 7100, 7000, 7001, 6, 0x7F000001,
                                           kTraceConfiguration);
  }
  static bool nothing_open() {
    return G_ctrl_mc_rx_socket == -1 && G_ctrl_uc_rx_socket == -1 && G_ctrl_uc_tx_socket == -1;
  }
};

TEST_F(CtrlInit, stores_its_parameters) {
  ASSERT_EQ(start(), 0u);
  EXPECT_EQ(G_ctrl_tx_mc_addr, kGroup);
  EXPECT_EQ(G_ctrl_tx_mc_port, 7100);
  EXPECT_EQ(G_ctrl_rx_uc_port, 7000);
  EXPECT_EQ(G_ctrl_tx_uc_port, 7001);
  EXPECT_EQ(G_my_card_class, 6u);
  EXPECT_EQ(G_my_node_ip, 0x7F000001u);
}

TEST_F(CtrlInit, logs_both_addresses_and_all_ports) {
  ASSERT_EQ(start(), 0u);
  EXPECT_TRUE(logs::contains("CTRL recv init - mc addr 239.1.2.3 port 7100\n"));
  EXPECT_TRUE(logs::contains("CTRL recv init - uc addr 127.0.0.1 lead port 7000 recv port 7001\n"));
}

TEST_F(CtrlInit, opens_all_three_sockets) {
  ASSERT_EQ(start(), 0u);
  EXPECT_GE(G_ctrl_mc_rx_socket, 0);
  EXPECT_GE(G_ctrl_uc_rx_socket, 0);
  EXPECT_GE(G_ctrl_uc_tx_socket, 0);
}

// --- Traces ---

TEST_F(CtrlInit, opens_the_error_trace_then_the_library_trace) {
  ASSERT_EQ(start(), 0u);
  const auto& opened = registry::opened_traces();
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].name, "pkgdist_recv_err");
  EXPECT_EQ(opened[0].records, 40'000u);
  EXPECT_EQ(opened[1].name, "pkgdist_recv_lib");
  EXPECT_EQ(opened[1].records, 80'000u);
  for (const TraceOpen& trace : opened) {
    EXPECT_EQ(trace.points, 361u);
    const std::string end = "pkgdist/lib_inst_pkgdist_recv";
    ASSERT_GE(trace.path.size(), end.size());
    EXPECT_EQ(trace.path.substr(trace.path.size() - end.size()), end);
    EXPECT_NE(trace.path[0], '/');
    EXPECT_EQ(trace.catalogue_id, pkgdist::log::catalogue_id());
    EXPECT_EQ(trace.reserved, 0);
  }
  EXPECT_EQ(G_pkgdist_qtrace_err_hdl, 1u);
  EXPECT_EQ(G_pkgdist_qtrace_lib_hdl, 2u);
}

TEST_F(CtrlInit, applies_the_configuration_to_the_error_trace_then_to_the_library_trace) {
  ASSERT_EQ(start(), 0u);
  const auto& enabled = registry::enabled_traces();
  ASSERT_EQ(enabled.size(), 2u);
  EXPECT_EQ(enabled[0].handle, 1u);
  EXPECT_EQ(enabled[1].handle, 2u);
  EXPECT_EQ(enabled[0].configuration, kTraceConfiguration);
  EXPECT_EQ(enabled[1].configuration, kTraceConfiguration);
}

TEST_F(CtrlInit, the_first_failing_trace_call_ends_it_without_a_word) {
  struct Case {
    Call call;
    unsigned nth;
    size_t opened, enabled;
  };
  for (const Case& at : {Case{Call::kTraceOpen, 1, 1, 0}, Case{Call::kTraceOpen, 2, 2, 0},
                         Case{Call::kTraceEnable, 1, 2, 1}, Case{Call::kTraceEnable, 2, 2, 2}}) {
    reset_library();
    faults::fail(at.call, at.nth);
    EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
    EXPECT_EQ(registry::opened_traces().size(), at.opened);
    EXPECT_EQ(registry::enabled_traces().size(), at.enabled);
    EXPECT_TRUE(registry::registrations().empty());
    EXPECT_TRUE(logs::records().empty());
    EXPECT_TRUE(nothing_open());
    EXPECT_EQ(G_ctrl_tx_mc_addr, kGroup) << "the parameters are stored before";
  }
}

// --- Statistics ---

TEST_F(CtrlInit, registers_its_four_tables_in_order) {
  ASSERT_EQ(start(), 0u);
  std::vector<std::string> tables;
  for (const Registration& made : registry::registrations())
    tables.push_back(made.application + "/" + made.table + " " +
                     std::to_string(made.labels.size()));
  EXPECT_EQ(tables, (Words{"PKGDIST_CRT/CRT_Counters 29", "PKGDIST_CRT/CRT_Histograms 4",
                           "PKGDIST_CRS/CRS_Counters 13", "PKGDIST_CRS/CRS_Histograms 3"}));
}

TEST_F(CtrlInit, a_table_that_cannot_be_registered_is_logged_and_start_up_goes_on) {
  struct Case {
    const char* words;
    void** handle;
  };
  const Case cases[] = {{"transport counters", &pkgdist_crt_ship_counter_hdl},
                        {"transport histograms", &pkgdist_crt_ship_histogram_hdl},
                        {"server counters", &pkgdist_crs_ship_counter_hdl},
                        {"server histograms", &pkgdist_crs_ship_histogram_hdl}};
  for (unsigned nth = 1; nth <= 4; ++nth) {
    reset_library();
    faults::fail(Call::kShipRegister, nth, ENOSPC);
    EXPECT_EQ(start(), 0u);
    EXPECT_TRUE(logs::contains(std::string("ERR:instcomm_pkgdist_ctrl_recv_init: ctrl recv ") +
                               cases[nth - 1].words + " ship register failed: 28\n"));
    EXPECT_EQ(logs::count("ship register failed"), 1u);
    for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(*cases[i].handle == nullptr, i == nth - 1);
  }
}

TEST_F(CtrlInit, both_lines_of_its_parameters_come_before_the_statistics) {
  faults::fail(Call::kShipRegister, 1, ENOSPC);
  ASSERT_EQ(start(), 0u);
  ASSERT_GE(logs::records().size(), 3u);
  EXPECT_EQ(logs::records()[0].text.find("CTRL recv init - mc addr"), 0u);
  EXPECT_EQ(logs::records()[1].text.find("CTRL recv init - uc addr"), 0u);
  EXPECT_NE(logs::records()[2].text.find("ship register failed"), std::string::npos);
}

// --- Simulated platform ---

TEST_F(CtrlInit, a_real_platform_keeps_the_time_outs) {
  ASSERT_EQ(start(), 0u);
  EXPECT_EQ(G_ctrl_rto.rx_select_timeout, 125'000u);
  EXPECT_EQ(G_ctrl_rto.scan_interval, 250 * kMillisecond);
  EXPECT_EQ(G_ctrl_rto.lead_ack_timeout, 500 * kMillisecond);
  EXPECT_EQ(G_ctrl_rto.segment_timeout, 250 * kMillisecond);
  EXPECT_EQ(G_ctrl_rto.lead_silence_timeout, 7'500 * kMillisecond);
}

TEST_F(CtrlInit, a_simulated_platform_stretches_five_fields_tenfold_on_every_call) {
  setenv("PKGDIST_SIM_PLATFORM", "1", 1);
  ASSERT_EQ(start(), 0u);
  EXPECT_EQ(G_ctrl_rto.rx_select_timeout, 1'250'000u);
  EXPECT_EQ(G_ctrl_rto.scan_interval, 2'500 * kMillisecond);
  EXPECT_EQ(G_ctrl_rto.lead_ack_timeout, 5 * kSecond);
  EXPECT_EQ(G_ctrl_rto.segment_timeout, 2'500 * kMillisecond);
  EXPECT_EQ(G_ctrl_rto.lead_silence_timeout, 75 * kSecond);
  ASSERT_EQ(start(), 0u);
  EXPECT_EQ(G_ctrl_rto.rx_select_timeout, 12'500'000u);
  EXPECT_EQ(G_ctrl_rto.lead_silence_timeout, 750 * kSecond);
  EXPECT_EQ(G_ctrl_rto.max_retries, 5u);
  EXPECT_EQ(G_ctrl_rto.rx_socket_buffer, 524'288u);
}

TEST_F(CtrlInit, the_time_outs_are_stretched_before_the_sockets_also_when_these_fail) {
  setenv("PKGDIST_SIM_PLATFORM", "1", 1);
  faults::fail(Call::kSocket, 1, EMFILE);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_ctrl_rto.rx_select_timeout, 1'250'000u);
  faults::fail(Call::kTraceOpen, 1);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_ctrl_rto.rx_select_timeout, 1'250'000u) << "a start-up that ends earlier does not";
}

// --- Bringing up the channel ---

TEST_F(CtrlInit, stops_at_the_multicast_socket) {
  faults::fail(Call::kSocket, 1, EMFILE);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(nothing_open());
  EXPECT_EQ(faults::calls(Call::kSocket), 1u);
  EXPECT_EQ(registry::registrations().size(), 4u);
}

TEST_F(CtrlInit, stops_at_the_unicast_receive_socket_and_unwinds_nothing) {
  faults::fail(Call::kSocket, 2, EMFILE);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_GE(G_ctrl_mc_rx_socket, 0);
  EXPECT_EQ(G_ctrl_uc_rx_socket, -1);
  EXPECT_EQ(faults::calls(Call::kSocket), 2u);
}

TEST_F(CtrlInit, stops_at_the_thread_before_the_send_socket) {
  G_ctrl_recv_rx_thread_running = false;
  faults::fail(Call::kPthreadCreate, 1, EAGAIN);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_GE(G_ctrl_uc_rx_socket, 0);
  EXPECT_EQ(G_ctrl_uc_tx_socket, -1);
}

TEST_F(CtrlInit, stops_at_the_send_socket_last) {
  faults::fail(Call::kSocket, 3, EMFILE);
  EXPECT_EQ(start(), PKGDIST_ERR_SYSTEM);
  EXPECT_GE(G_ctrl_mc_rx_socket, 0);
  EXPECT_GE(G_ctrl_uc_rx_socket, 0);
  EXPECT_EQ(G_ctrl_uc_tx_socket, -1);
}

TEST_F(CtrlInit, a_second_start_up_makes_the_sockets_anew) {
  ASSERT_EQ(start(), 0u);
  ASSERT_EQ(start(), 0u);
  EXPECT_EQ(faults::calls(Call::kSocket), 6u);
  EXPECT_GE(G_ctrl_mc_rx_socket, 0);
}

// Whoever logs meanwhile writes into the old traces or into the new ones.
TEST_F(CtrlInit, other_threads_may_log_while_it_runs_again) {
  ASSERT_EQ(start(), 0u);
  std::atomic<bool> stop{false};
  std::thread logging([&] {
    while (!stop) (void)instcomm_pkgdist_ctrl_recv_set_nodeid(nullptr);
  });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(start(), 0u);
  stop = true;
  logging.join();
  for (const Record& record : logs::records()) EXPECT_EQ(record.handle % 2, 0u) << record.text;
}

// --- Identity ---

class NodeIdentity : public CtrlTest {};

TEST_F(NodeIdentity, is_packed_into_three_bytes_and_kept) {
  nodeid identity{1, 2, 3};
  EXPECT_EQ(instcomm_pkgdist_ctrl_recv_set_nodeid(&identity), 0u);
  EXPECT_EQ(G_my_nodeid, &identity);
  EXPECT_EQ(G_my_msg_nodeid, 0x10203u);
  EXPECT_TRUE(logs::contains("CTRL recv set nodeid - 0x10203 and location recieved is = 1/2/3 \n"));
}

TEST_F(NodeIdentity, components_wider_than_a_byte_overlap) {
  nodeid identity{0x10001, 0x1FF, 0x10100};
  EXPECT_EQ(instcomm_pkgdist_ctrl_recv_set_nodeid(&identity), 0u);
  EXPECT_EQ(G_my_msg_nodeid, 0x10000u << 8 << 8 | 0x10000u | 0x1FF00u | 0x10100u);
}

TEST_F(NodeIdentity, a_location_without_text_prints_as_nothing) {
  nodeid identity{1, 2, 3};
  faults::fail(Call::kNodeidToStr, 1, EINVAL);
  EXPECT_EQ(instcomm_pkgdist_ctrl_recv_set_nodeid(&identity), 0u);
  EXPECT_TRUE(logs::contains("CTRL recv set nodeid - 0x10203 and location recieved is =  \n"));
}

TEST_F(NodeIdentity, a_location_that_is_too_long_is_cut_inside_its_buffer) {
  nodeid identity{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
  EXPECT_EQ(instcomm_pkgdist_ctrl_recv_set_nodeid(&identity), 0u);
  EXPECT_EQ(logs::count("location recieved is = 4294967295/4294967295/429496729 \n"), 1u);
}

TEST_F(NodeIdentity, null_is_the_identity_0) {
  EXPECT_EQ(instcomm_pkgdist_ctrl_recv_set_nodeid(nullptr), 0u);
  EXPECT_EQ(G_my_nodeid, nullptr);
  EXPECT_EQ(G_my_msg_nodeid, 0u);
  EXPECT_TRUE(logs::contains("CTRL recv set nodeid - 0x0 and location recieved is =  \n"));
}

}  // namespace
