// Data start-up: statistics, time-outs, the request socket, storage locations and transaction
// identifiers.
#include <fcntl.h>
#include <sys/socket.h>

#include <cstdlib>
#include <numeric>
#include <set>

#include "data_support.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"

using namespace support;

namespace {

const pkgdist_data_timeouts kInitialTimeouts = G_data_rto;  // before anything has run

class DataInit : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    unsetenv("PKGDIST_SIM_PLATFORM");
    registry::registrations().clear();
  }
  void TearDown() override {
    unsetenv("PKGDIST_SIM_PLATFORM");
    DataTest::TearDown();
  }
  static PkgdistStatus init() { return instcomm_pkgdist_data_recv_init(0xEF010203, 4567, 4568); }
};

TEST_F(DataInit, stores_the_addresses_and_says_so) {
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(G_data_tx_mc_addr, 0xEF010203u);
  EXPECT_EQ(G_data_tx_mc_port, 4567);
  EXPECT_EQ(G_data_req_uc_port, 4568);
  EXPECT_TRUE(logs::contains("DATA recv init - mc addr 239.1.2.3 port 4567 uc port 4568\n"));
}

TEST_F(DataInit, registers_five_tables_in_order) {
  EXPECT_EQ(init(), 0u);
  const std::vector<Registration>& made = registry::registrations();
  ASSERT_EQ(made.size(), 5u);
  struct Expected {
    const char* application;
    const char* table;
    uint32_t kind;
    size_t entries;
    std::string first_label;
    std::string last_label;
  } const expected[] = {
      {"PKGDIST_DRT", "DRT_Counters", 0, 24, "MC RX RECV     ", "FILE TIMEOUT   "},
      {"PKGDIST_DRT", "DRT_Watermarks", 32, 1, "FILE QUEUE     ", "FILE QUEUE     "},
      {"PKGDIST_DRT", "DRT_Histograms", 31, 5, "UC SEND TIME   ", "MISS SEG TIME  "},
      {"PKGDIST_DRS", "DRS_Counters", 1, 15, "FILE ADD       ", "FILE THRD STOP "},
      {"PKGDIST_DRS", "DRS_Histograms", 31, 7, "FILE STAT TIME ", "SYMLINK TIME   "},
  };
  for (size_t i = 0; i < made.size(); ++i) {
    EXPECT_EQ(made[i].application, expected[i].application);
    EXPECT_EQ(made[i].table, expected[i].table);
    EXPECT_EQ(made[i].kind, expected[i].kind);
    EXPECT_EQ(made[i].parameter, 2u);
    ASSERT_EQ(made[i].labels.size(), expected[i].entries);
    EXPECT_EQ(made[i].labels.front(), expected[i].first_label + '\0');
    EXPECT_EQ(made[i].labels.back(), expected[i].last_label + '\0');
    const uint64_t words = std::accumulate(made[i].words.begin(), made[i].words.end(), 0ul);
    EXPECT_EQ(words, made[i].kind == 32 ? 1u : 0u);
  }
}

struct FailedTable {
  unsigned nth;
  const char* words;
  void** handle;
};
class FailedRegistration : public DataInit, public testing::WithParamInterface<FailedTable> {};

TEST_P(FailedRegistration, is_logged_and_only_loses_that_table) {
  faults::fail(Call::kShipRegister, GetParam().nth, ENOSPC);
  EXPECT_EQ(init(), 0u);
  EXPECT_TRUE(logs::contains(std::string("ERR:instcomm_pkgdist_data_recv_init: data recv ") +
                             GetParam().words + " ship register failed: 28\n"));
  EXPECT_EQ(logs::count("ship register failed"), 1u);
  EXPECT_EQ(*GetParam().handle, nullptr);
  EXPECT_EQ(registry::registrations().size(), 5u);
  begin(2);  // updates of the lost table are skipped
  give_all();
  EXPECT_EQ(find(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Tables, FailedRegistration,
    testing::Values(FailedTable{1, "transport counters", &pkgdist_drt_ship_counter_hdl},
                    FailedTable{2, "transport watermark", &pkgdist_drt_ship_watermark_hdl},
                    FailedTable{3, "transport histograms", &pkgdist_drt_ship_histogram_hdl},
                    FailedTable{4, "server counters", &pkgdist_drs_ship_counter_hdl},
                    FailedTable{5, "server histograms", &pkgdist_drs_ship_histogram_hdl}));

TEST_F(DataInit, time_outs_have_their_initial_values) {
  EXPECT_EQ(kInitialTimeouts.receive_wait, 5'000'000u);  // microseconds
  EXPECT_EQ(kInitialTimeouts.timer_period, 500'000'000u);
  EXPECT_EQ(kInitialTimeouts.file_info_timeout, 1'000'000'000u);
  EXPECT_EQ(kInitialTimeouts.segment_timeout, 2'000'000'000u);
  EXPECT_EQ(kInitialTimeouts.not_done_timeout, 2'000'000'000u);
  EXPECT_EQ(kInitialTimeouts.stat_age, 30'000'000'000u);
  EXPECT_EQ(kInitialTimeouts.max_retries, 5u);
  EXPECT_EQ(kInitialTimeouts.receive_buffer, 3'145'728u);
  static_assert(sizeof(pkgdist_data_timeouts) == 6 * sizeof(uint64_t) + 2 * sizeof(uint32_t));
}

TEST_F(DataInit, time_outs_stay_on_a_real_platform) {
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(G_data_rto.receive_wait, 5'000'000u);
  EXPECT_EQ(G_data_rto.not_done_timeout, 2'000'000'000u);
}

TEST_F(DataInit, a_simulated_platform_stretches_the_first_five_time_outs_only) {
  setenv("PKGDIST_SIM_PLATFORM", "1", 1);
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(G_data_rto.receive_wait, 50'000'000u);
  EXPECT_EQ(G_data_rto.timer_period, 5'000'000'000u);
  EXPECT_EQ(G_data_rto.file_info_timeout, 10'000'000'000u);
  EXPECT_EQ(G_data_rto.segment_timeout, 20'000'000'000u);
  EXPECT_EQ(G_data_rto.not_done_timeout, 20'000'000'000u);
  EXPECT_EQ(G_data_rto.stat_age, 30'000'000'000u);
  EXPECT_EQ(G_data_rto.max_retries, 5u);
  EXPECT_EQ(G_data_rto.receive_buffer, 3'145'728u);
}

TEST_F(DataInit, a_second_start_up_on_a_simulated_platform_stretches_again) {
  setenv("PKGDIST_SIM_PLATFORM", "1", 1);
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(G_data_rto.receive_wait, 500'000'000u);
  EXPECT_EQ(G_data_rto.stat_age, 30'000'000'000u);
}

TEST_F(DataInit, starts_no_thread) {
  G_data_rx_thread_running = G_data_recv_file_thread_running = false;
  EXPECT_EQ(init(), 0u);
  EXPECT_FALSE(G_data_rx_thread_running);
  EXPECT_FALSE(G_data_recv_file_thread_running);
  EXPECT_EQ(faults::calls(Call::kPthreadCreate), 0u);
}

// --- The request socket ---

TEST_F(DataInit, the_request_socket_is_udp_with_priority_and_not_bound) {
  EXPECT_EQ(init(), 0u);
  ASSERT_GE(G_data_req_socket, 0);
  int type = 0, priority = 0;
  socklen_t size = sizeof type;
  EXPECT_EQ(getsockopt(G_data_req_socket, SOL_SOCKET, SO_TYPE, &type, &size), 0);
  EXPECT_EQ(getsockopt(G_data_req_socket, SOL_SOCKET, SO_PRIORITY, &priority, &size), 0);
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_EQ(priority, 4);
  EXPECT_EQ(fcntl(G_data_req_socket, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(faults::calls(Call::kBind), 0u);
}

TEST_F(DataInit, a_second_start_up_replaces_the_request_socket) {
  EXPECT_EQ(init(), 0u);
  const int first = G_data_req_socket;
  EXPECT_EQ(init(), 0u);
  EXPECT_EQ(G_data_req_socket, first);  // closed first, so that the number is free again
}

TEST_F(DataInit, without_a_request_socket_the_priority_is_still_tried) {
  EXPECT_EQ(init(), 0u);
  faults::fail(Call::kSocket, 1, EMFILE);
  EXPECT_EQ(init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_data_req_socket, -1);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_req_init: data req socket create failed: 24(Too many open files)\n"));
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_recv_req_init: data req setsockopt prio failed: 9(Bad file "
                     "descriptor)\n"));
}

TEST_F(DataInit, a_refused_priority_leaves_the_request_socket_open) {
  faults::fail(Call::kSetsockopt, 1, EPERM);
  EXPECT_EQ(init(), PKGDIST_ERR_SYSTEM);
  EXPECT_GE(G_data_req_socket, 0);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_req_init: data req setsockopt prio failed: 1(Operation not "
      "permitted)\n"));
}

// --- Storage locations ---

class Repository : public DataTest {};

TEST_F(Repository, every_location_has_its_own_text) {
  for (uint32_t location = 1; location <= 6; ++location) {
    const bool memory = location % 2 == 0;
    EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/p/", location, memory), 0u);
    EXPECT_TRUE(logs::contains("DATA Storage Loc " + std::to_string(location) + " '/p/' Mem '" +
                               (memory ? "1" : "0") + "'\n"));
    EXPECT_STREQ(G_data_recv_repository[location - 1], "/p/");
    EXPECT_EQ(G_data_recv_memory[location - 1], memory ? 1 : 0);
  }
  std::set<uint32_t> points;
  for (const Record& record : logs::records()) points.insert(record.point);
  EXPECT_EQ(points.size(), 6u);
}

TEST_F(Repository, a_location_can_be_set_again) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/a-long-one/", 3, true), 0u);
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/b/", 3, false), 0u);
  EXPECT_STREQ(G_data_recv_repository[2], "/b/");
  EXPECT_EQ(G_data_recv_memory[2], 0);
}

TEST_F(Repository, locations_outside_one_to_six_are_refused) {
  for (const uint32_t location : {0u, 7u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/p/", location, false), PKGDIST_ERR_INVALID);
    EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_set_recv_repository: storage location value " +
                               std::to_string(static_cast<int32_t>(location)) + " is invalid\n"));
  }
}

TEST_F(Repository, a_path_of_127_characters_is_taken) {
  const std::string longest(127, 'p');
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository(longest.c_str(), 6, false), 0u);
  EXPECT_EQ(G_data_recv_repository[5], longest);
}

TEST_F(Repository, a_path_of_128_characters_is_refused_and_changes_nothing) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/old/", 6, true), 0u);
  const std::string too_long(128, 'p');
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository(too_long.c_str(), 6, false), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains(
      "ERR:instcomm_pkgdist_set_recv_repository: path size of 128 exceeds max 128\n"));
  EXPECT_STREQ(G_data_recv_repository[5], "/old/");
  EXPECT_EQ(G_data_recv_memory[5], 1);
}

TEST_F(Repository, the_path_is_checked_before_the_location) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository(std::string(200, 'p').c_str(), 0, false),
            PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains(
      "ERR:instcomm_pkgdist_set_recv_repository: path size of 200 exceeds max 128\n"));
}

TEST_F(Repository, a_null_path_is_refused) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository(nullptr, 1, false), PKGDIST_ERR_INVALID);
  EXPECT_EQ(logs::count("ERR:instcomm_pkgdist_set_recv_repository: "), 1u);
}

// --- Paths ---

TEST_F(Repository, a_name_is_confined_unless_a_component_is_two_dots) {
  for (const char* name : {"a", "", "/a", "a/b", "..a", "a..", "a/..b/c", "...", ".", "a/./b"})
    EXPECT_TRUE(pkgdist::is_confined(name)) << name;
  for (const char* name : {"..", "../a", "a/..", "a/../b", "/..", "a//..//b", "./.."})
    EXPECT_FALSE(pkgdist::is_confined(name)) << name;
}

TEST_F(Repository, a_path_is_prefix_name_and_suffix) {
  EXPECT_EQ(pkgdist::FilePath(1, "a/b", ".tmp").c_str(), directory() + "a/b.tmp");
  EXPECT_EQ(pkgdist::FilePath(1, "/a").c_str(), directory() + "/a");
  EXPECT_STREQ(pkgdist::FilePath(3, "a").c_str(), "a");  // a location that was never set
}

TEST_F(Repository, a_name_that_leaves_its_location_has_no_path) {
  EXPECT_STREQ(pkgdist::FilePath(1, "a/../../etc/passwd").c_str(), "");
  EXPECT_STREQ(pkgdist::FilePath(0, "a").c_str(), "");
  EXPECT_STREQ(pkgdist::FilePath(7, "a").c_str(), "");
  EXPECT_FALSE(pkgdist::is_memory_location(0));
  EXPECT_FALSE(pkgdist::is_memory_location(7));
}

TEST_F(Repository, a_name_that_makes_more_than_255_characters_has_no_path) {
  const std::string name(251 - directory().size(), 'n');
  EXPECT_EQ(pkgdist::FilePath(1, name.c_str(), ".tmp").c_str(), directory() + name + ".tmp");
  EXPECT_TRUE(pkgdist::has_room(1, name.c_str()));
  EXPECT_STREQ(pkgdist::FilePath(1, (name + "n").c_str(), ".tmp").c_str(), "");
  EXPECT_STRNE(pkgdist::FilePath(1, (name + "n").c_str()).c_str(), "");
  EXPECT_FALSE(pkgdist::has_room(1, (name + "n").c_str()));
}

TEST_F(Repository, an_object_in_memory_has_no_suffix_and_more_room) {
  const std::string name(255 - memory_prefix().size(), 'n');
  EXPECT_TRUE(pkgdist::has_room(2, name.c_str()));
  EXPECT_FALSE(pkgdist::has_room(2, (name + "n").c_str()));
}

// --- Transaction identifiers ---

TEST_F(DataInit, transaction_identifiers_count_from_one) {
  pkgdist::receive_xact_counter = 0;
  EXPECT_EQ(instcomm_pkgdist_get_receive_xact_id(), 1u);
  EXPECT_EQ(instcomm_pkgdist_get_receive_xact_id(), 2u);
}

TEST_F(DataInit, transaction_identifiers_skip_zero_when_they_wrap) {
  pkgdist::receive_xact_counter = 0xFFFFFFFE;
  EXPECT_EQ(instcomm_pkgdist_get_receive_xact_id(), 0xFFFFFFFFu);
  EXPECT_EQ(instcomm_pkgdist_get_receive_xact_id(), 1u);
  EXPECT_EQ(instcomm_pkgdist_get_receive_xact_id(), 2u);
}

}  // namespace
