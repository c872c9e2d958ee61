// Requests of the caller and the request message to the lead.
#include "data_support.h"
#include "pkgdist_data_recv_req.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

class DataRequest : public DataTest {
 protected:
  PkgdistStatus get(const char* path, uint32_t type = 1, uint32_t location = 1,
                    uint32_t priority = 1, uint32_t xact_id = 5) {
    return instcomm_pkgdist_get_file(path, type, location, priority, xact_id, client.loop(),
                                     Client::file_cb, &client);
  }
  static bool error_says(const std::string& words) {
    return logs::contains("ERR:instcomm_pkgdist_get_file: " + words + "\n");
  }
  static bool nothing_was_entered() {
    return G_file_recv_db.empty() && G_data_recv_ctx_db.empty() && G_data_recv_qitc_db.empty() &&
           wire::sent().empty();
  }
};

// --- Arguments ---

TEST_F(DataRequest, a_null_path_is_refused) {
  EXPECT_EQ(get(nullptr), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(error_says("file path passed is NULL"));
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, types_outside_one_to_eleven_are_refused) {
  for (const uint32_t type : {0u, 12u, 0xFFFFFFFFu}) {
    EXPECT_EQ(get("f", type), PKGDIST_ERR_INVALID);
    EXPECT_TRUE(error_says("file type '" + std::to_string(static_cast<int32_t>(type)) +
                           "' passed is invalid"));
  }
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, locations_outside_one_to_six_are_refused) {
  for (const uint32_t location : {0u, 7u, 0xFFFFFFFFu}) {
    EXPECT_EQ(get("f", 1, location), PKGDIST_ERR_INVALID);
    EXPECT_TRUE(error_says("file storage location '" +
                           std::to_string(static_cast<int32_t>(location)) + "' passed is invalid"));
  }
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, priorities_outside_one_to_four_are_refused) {
  for (const uint32_t priority : {0u, 5u, 0xFFFFFFFFu}) {
    EXPECT_EQ(get("f", 1, 1, priority), PKGDIST_ERR_INVALID);
    EXPECT_TRUE(error_says("file prio '" + std::to_string(static_cast<int32_t>(priority)) +
                           "' passed is invalid"));
  }
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, transaction_identifier_zero_is_refused) {
  EXPECT_EQ(get("f", 1, 1, 1, 0), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(error_says("xact id '0' is invalid"));
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_callback_needs_a_loop) {
  EXPECT_EQ(instcomm_pkgdist_get_file("f", 1, 1, 1, 5, nullptr, Client::file_cb, nullptr),
            PKGDIST_ERR_INVALID);
  EXPECT_TRUE(error_says("levm cannot be NULL to specify cb_func"));
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_name_that_leaves_its_location_is_refused) {
  EXPECT_EQ(get("a/../../b"), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(error_says("file path 'a/../../b' passed leaves the storage location"));
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_name_that_is_too_long_for_its_location_is_refused) {
  const std::string longest(251 - directory().size(), 'n');
  EXPECT_EQ(get((longest + "n").c_str()), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(error_says(
      ("file path '" + longest + "n' passed is too long for storage location 1").c_str()));
  EXPECT_TRUE(nothing_was_entered());
  EXPECT_EQ(get(longest.c_str()), 0u);
}

TEST_F(DataRequest, the_checks_come_in_order) {
  const auto refused = [&](const char* path, uint32_t type, uint32_t location, uint32_t priority,
                           uint32_t xact_id) {
    logs::records().clear();
    EXPECT_EQ(instcomm_pkgdist_get_file(path, type, location, priority, xact_id, nullptr,
                                        Client::file_cb, nullptr),
              PKGDIST_ERR_INVALID);
    EXPECT_EQ(logs::records().size(), 1u);
    return logs::records().front().text;
  };
  EXPECT_NE(refused(nullptr, 0, 0, 0, 0).find("path passed is NULL"), std::string::npos);
  EXPECT_NE(refused("..", 0, 0, 0, 0).find("type '0'"), std::string::npos);
  EXPECT_NE(refused("..", 1, 0, 0, 0).find("location '0'"), std::string::npos);
  EXPECT_NE(refused("..", 1, 1, 0, 0).find("prio '0'"), std::string::npos);
  EXPECT_NE(refused("..", 1, 1, 1, 0).find("xact id '0'"), std::string::npos);
  EXPECT_NE(refused("..", 1, 1, 1, 1).find("levm cannot be NULL"), std::string::npos);
}

TEST_F(DataRequest, the_largest_values_are_taken) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository("/p/", 6, false), 0u);
  EXPECT_EQ(get("f", 11, 6, 4, 0xFFFFFFFF), 0u);
  EXPECT_TRUE(logs::contains("DATA File Get - Path 'f' Type 11 Loc 6 Prio 4 Xact Id -1\n"));
  EXPECT_EQ(take_traffic().requests, (std::vector<FileRequest>{{11, 6, 4, "f"}}));
}

// Waiting for the lock of the counters is not the call's time.
TEST_F(DataRequest, the_time_of_a_send_ends_with_the_call) {
  faults::on_lock([](const pthread_mutex_t* mutex) {
    if (mutex == &atomic_mutex) clock::advance(kSecond);
  });
  EXPECT_EQ(pkgdist_data_send_file_req("f", 1, 1, 1), 0u);
  faults::clear();
  const auto* buckets = static_cast<const uint32_t*>(pkgdist_drt_ship_histogram_hdl);
  EXPECT_EQ(buckets[8 * static_cast<size_t>(DrtHistogram::kUcSendTime)], 1u);
}

// --- Entering ---

TEST_F(DataRequest, a_new_file_is_entered_and_asked_for) {
  EXPECT_EQ(get("dir/f", 3, 2, 4, 5), 0u);
  EXPECT_TRUE(logs::contains("DATA File Get - Path 'dir/f' Type 3 Loc 2 Prio 4 Xact Id 5\n"));
  EXPECT_TRUE(logs::contains(
      "DATA Send File Req - File dir/f Type 3 Loc 2 Prio 4 Node 127.0.0.1 (9/8/7)\n"));
  const pkgdist_file_recv_entry* entry = find("dir/f", 2);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->xact_count, 1);
  EXPECT_EQ(entry->xacts[0].xact_id, 5u);
  EXPECT_EQ(entry->xacts[0].kind, 10u);
  EXPECT_EQ(take_traffic().requests, (std::vector<FileRequest>{{3, 2, 4, "dir/f"}}));
  EXPECT_EQ(value(DrtCounter::kUcSendReqSent), 1u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 1u);
}

TEST_F(DataRequest, the_request_leaves_by_the_request_socket) {
  G_data_req_socket = 4711;
  EXPECT_EQ(get("f"), 0u);
  ASSERT_EQ(wire::sent().size(), 1u);
  EXPECT_EQ(wire::sent()[0].socket, 4711);
  EXPECT_EQ(data_header(wire::sent()[0].bytes).presence, 3u);
  G_data_req_socket = -1;
}

TEST_F(DataRequest, a_second_request_for_the_same_file_sends_nothing) {
  EXPECT_EQ(get("f", 1, 1, 3, 5), 0u);
  take_traffic();
  EXPECT_EQ(get("f", 1, 1, 2, 6), 0u);
  EXPECT_TRUE(wire::sent().empty());
  EXPECT_EQ(G_file_recv_db.count, 1u);
  EXPECT_EQ(find("f")->xact_count, 2);
  EXPECT_EQ(find("f")->xacts[1].xact_id, 6u);
  EXPECT_EQ(find("f")->xacts[1].kind, 11u);
  EXPECT_EQ(find("f")->priority, 2u);
}

TEST_F(DataRequest, the_same_name_in_another_location_is_another_file) {
  EXPECT_EQ(get("f", 1, 1), 0u);
  EXPECT_EQ(get("f", 1, 2), 0u);
  EXPECT_EQ(G_file_recv_db.count, 2u);
  EXPECT_EQ(take_traffic().requests.size(), 2u);
}

TEST_F(DataRequest, both_requests_of_one_file_hear_its_outcome) {
  EXPECT_EQ(get("file", 1, 1, 1, 5), 0u);
  EXPECT_EQ(get("file", 1, 1, 1, 6), 0u);
  announce({.size = 4});
  give(0);
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{0, "file", 1, 1, 5}, {0, "file", 1, 1, 6}}));
}

TEST_F(DataRequest, without_a_callback_there_is_an_identifier_and_no_context) {
  EXPECT_EQ(instcomm_pkgdist_get_file("file", 1, 1, 1, 5, nullptr, nullptr, nullptr), 0u);
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
  EXPECT_EQ(find()->xacts[0].kind, 10u);
  EXPECT_EQ(G_data_recv_ctx_db.next_id, 11u);
  announce({.size = 4});
  give(0);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_file_invoke_cb: data file recv id '10' not found\n"));
  EXPECT_EQ(logs::count("Invoke CB"), 0u);
}

// --- Failures ---

TEST_F(DataRequest, a_context_that_cannot_be_made_fails_the_request) {
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(get("f"), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_file_that_cannot_be_entered_releases_the_context) {
  faults::fail(Call::kStrdup, 1);
  EXPECT_EQ(get("f"), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_transaction_that_cannot_be_added_releases_the_context) {
  EXPECT_EQ(get("f", 1, 1, 1, 5), 0u);
  faults::fail(Call::kRealloc, 1);
  EXPECT_EQ(get("f", 1, 1, 1, 6), PKGDIST_ERR_NOMEM);
  EXPECT_EQ(find("f")->xact_count, 1);
  EXPECT_EQ(G_data_recv_ctx_db.count, 1u);
  EXPECT_EQ(G_data_recv_qitc_db.head->reference_count, 1u);
}

TEST_F(DataRequest, threads_that_cannot_start_fail_the_request) {
  G_data_rx_thread_running = false;
  faults::fail(Call::kSocket, 1, EMFILE);
  EXPECT_EQ(get("f"), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(nothing_was_entered());
}

TEST_F(DataRequest, a_request_that_cannot_be_sent_leaves_the_file_entered) {
  faults::fail(Call::kSendto, 1, ENETUNREACH);
  EXPECT_EQ(get("f"), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_file_req: data req uc sendto of "), 1u);
  EXPECT_EQ(logs::count(" bytes failed, rc=-1, errno=101(Network is unreachable)\n"), 1u);
  EXPECT_NE(find("f"), nullptr);
  EXPECT_EQ(G_data_recv_ctx_db.count, 1u);  // its callback will still come
  EXPECT_EQ(value(DrtCounter::kUcSendReqSent), 0u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 0u);
}

TEST_F(DataRequest, a_request_that_is_sent_in_part_is_a_failure) {
  faults::short_send(1, 20);
  EXPECT_EQ(get("f"), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count(" bytes failed, rc=20, errno="), 1u);
  EXPECT_EQ(value(DrtCounter::kUcSendReqSent), 0u);
}

TEST_F(DataRequest, without_memory_for_the_name_nothing_is_sent) {
  faults::fail(Call::kStrdup, 1);
  EXPECT_EQ(pkgdist_data_send_file_req("f", 1, 1, 1), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_req: stddup() for DATA_SEND_FILE_REQ_NAME failed\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataRequest, without_memory_for_the_datagram_nothing_is_sent) {
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(pkgdist_data_send_file_req("f", 1, 1, 1), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_req: malloc() 296 bytes for DATA_SEND_FILE_REQ failed\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataRequest, a_request_holds_a_name_of_up_to_296_bytes_in_all) {
  EXPECT_EQ(pkgdist_data_send_file_req("", 1, 1, 1), 0u);
  const size_t overhead = wire::take().at(0).bytes.size();
  const std::string longest(296 - overhead, 'n');
  EXPECT_EQ(pkgdist_data_send_file_req(longest.c_str(), 11, 6, 4), 0u);
  EXPECT_EQ(wire::sent().at(0).bytes.size(), 296u);
  EXPECT_EQ(take_traffic().requests.at(0).name, longest);
  EXPECT_EQ(pkgdist_data_send_file_req((longest + "n").c_str(), 1, 1, 1), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_req: data file req encode size '297' exceeds alloc size "
      "'296'\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataRequest, a_name_that_no_message_can_hold_is_an_encode_error) {
  const std::string endless(70'000, 'n');
  EXPECT_EQ(pkgdist_data_send_file_req(endless.c_str(), 1, 1, 1), PKGDIST_ERR_ENCODE);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_file_req: data file req encode failed: "), 1u);
  EXPECT_TRUE(wire::sent().empty());
}

}  // namespace
