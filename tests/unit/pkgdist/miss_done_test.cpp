// The lead's question after a repair pass, the request for single segments, and a new lead.
#include "data_support.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"

using namespace support;

namespace {

class MissDone : public DataTest {
 protected:
  static void ask(uint32_t id, const std::string& name, const std::vector<uint32_t>& nodes = {},
                  uint32_t location = 1) {
    const Bytes body = encoded_miss_done(id, name, nodes, location);
    pkgdist_data_process_miss_done(body.data(), body.size());
  }
  static void ended(uint32_t id, const char* name, uint32_t location, PkgdistStatus status) {
    EXPECT_EQ(pkgdist_file_stat_add(id, name, location, status), 0u);
  }
};

TEST_F(MissDone, a_question_is_logged_and_counted) {
  ask(9, "file");
  EXPECT_TRUE(logs::contains("DATA Recv Miss Done - File file Id 9\n"));
  EXPECT_EQ(value(DrtCounter::kMcMissDone), 1u);
}

TEST_F(MissDone, a_question_to_other_nodes_is_ignored) {
  ask(9, "file", {kOtherAddress});
  EXPECT_EQ(value(DrtCounter::kMcMissDone), 0u);
  EXPECT_TRUE(logs::records().empty());
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(MissDone, a_question_to_this_node_among_others_is_answered) {
  ask(9, "file", {kOtherAddress, kMyAddress});
  EXPECT_EQ(take_traffic().reports.size(), 1u);
}

TEST_F(MissDone, a_file_that_nobody_knows_is_unknown) {
  ask(9, "file", {}, 3);
  EXPECT_EQ(take_traffic().reports,
            (std::vector<Report>{{9, PKGDIST_STATUS_UNKNOWN_FILE, "file", 3}}));
}

TEST_F(MissDone, a_file_on_its_way_is_in_progress_by_id) {
  begin(3);
  ask(7, "other name");
  EXPECT_EQ(take_traffic().reports,
            (std::vector<Report>{{7, PKGDIST_STATUS_IN_PROGRESS, "other name", 1}}));
}

TEST_F(MissDone, a_file_on_its_way_is_in_progress_by_name) {
  begin(3);
  ask(99, "file");
  EXPECT_EQ(take_traffic().reports,
            (std::vector<Report>{{99, PKGDIST_STATUS_IN_PROGRESS, "file", 1}}));
}

TEST_F(MissDone, the_name_counts_in_its_location_only) {
  begin(3);
  ask(99, "file", {}, 2);
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_UNKNOWN_FILE);
  ask(99, "file", {}, 0);
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_IN_PROGRESS);
}

TEST_F(MissDone, an_ended_file_is_answered_from_what_was_remembered_by_id) {
  ended(9, "file", 2, 0x1234);
  ask(9, "other", {}, 1);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{9, 0x1234, "file", 2}}));
}

TEST_F(MissDone, an_ended_file_is_answered_from_what_was_remembered_by_name) {
  ended(9, "file", 2, 0x1234);
  ask(10, "file", {}, 2);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{9, 0x1234, "file", 2}}));
}

TEST_F(MissDone, the_id_is_looked_for_before_the_name) {
  ended(9, "file", 1, 0x1);
  ended(10, "other", 1, 0x2);
  ask(10, "file");
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{10, 0x2, "other", 1}}));
}

TEST_F(MissDone, of_two_ends_under_one_name_the_earlier_is_told) {
  ended(9, "file", 1, 0x1);
  ended(10, "file", 1, 0x2);
  ask(99, "file");
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{9, 0x1, "file", 1}}));
  ask(10, "file");  // its id names the later one
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{10, 0x2, "file", 1}}));
}

TEST_F(MissDone, an_ended_file_goes_before_one_on_its_way) {
  ended(9, "file", 1, 0x1234);
  begin(3);
  ask(99, "file");
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{9, 0x1234, "file", 1}}));
}

TEST_F(MissDone, file_id_zero_falls_to_the_name) {
  want("waiting");
  ended(0, "ended", 1, 0x1234);
  ask(0, "nothing");
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_UNKNOWN_FILE);
  ask(0, "waiting");
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_IN_PROGRESS);
  ask(0, "ended");
  EXPECT_EQ(take_traffic().reports.at(0).status, 0x1234u);
}

TEST_F(MissDone, a_completed_file_is_answered_until_it_is_forgotten) {
  begin(1);
  give(0);
  take_traffic();
  ask(7, "file");
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, 0, "file", 1}}));
  clock::advance(30 * kSecond + 1);
  (void)pkgdist_data_recv_timeout();
  ask(7, "file");
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_UNKNOWN_FILE);
}

// --- Requests for single segments ---

TEST_F(MissDone, a_request_for_segments_tells_id_first_and_number) {
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), 0u);
  EXPECT_TRUE(logs::contains("DATA Send File Req Single - File Id 9 Segment 100 Num 7\n"));
  EXPECT_EQ(value(DrtCounter::kUcSendSingleSent), 1u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 1u);
  EXPECT_LE(wire::sent().at(0).bytes.size(), 34u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{9, 100, 7}}));
}

TEST_F(MissDone, the_largest_request_for_segments_fits_its_buffer) {
  EXPECT_EQ(pkgdist_data_send_req_single(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF), 0u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}}));
}

TEST_F(MissDone, a_request_for_segments_that_finds_no_memory_is_not_sent) {
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_req_single: malloc() 34 bytes for DATA_SEND_REQ_SINGLE failed\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(MissDone, a_request_for_segments_that_cannot_be_encoded_is_an_encode_error) {
  faults::fail(Call::kEncodeDataHeader, 1, -3);
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_send_req_single: data req single encode failed: -3\n"));
  faults::fail(Call::kEncodeDataHeader, 1, 15);  // three bytes more than it takes
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_send_req_single: data req single encode size '35' exceeds "
                     "alloc size '34'\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(MissDone, a_request_for_segments_that_cannot_be_sent_is_a_send_error) {
  faults::fail(Call::kSendto, 1, ENETUNREACH);
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_req_single: data req single uc sendto of "), 1u);
  EXPECT_EQ(logs::count(" bytes failed, rc=-1, errno=101(Network is unreachable)\n"), 1u);
  faults::clear();
  faults::short_send(1, 5);
  EXPECT_EQ(pkgdist_data_send_req_single(9, 100, 7), PKGDIST_ERR_SEND);
  EXPECT_EQ(value(DrtCounter::kUcSendSingleSent), 0u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 0u);
}

// --- A new lead ---

TEST_F(MissDone, a_new_lead_is_asked_for_every_file_once) {
  begin(10, "a");
  give(0);
  want("b", 6, 3, 2, 2, 4);
  pkgdist_file_recv_entry& entry = *find("a");
  entry.timeout_count = 3;
  const int fd = entry.fd;
  take_traffic();
  clock::advance(kSecond);
  pkgdist_data_recv_new_lead();
  EXPECT_EQ(take_traffic().requests, (std::vector<FileRequest>{{1, 1, 1, "a"}, {3, 2, 4, "b"}}));
  EXPECT_EQ(entry.file_id, 0u);
  EXPECT_EQ(entry.timeout_count, 0u);
  EXPECT_EQ(entry.info_pending, 1);
  EXPECT_EQ(entry.start_time, clock::now());
  EXPECT_EQ(entry.received_count, 1u);  // what was received stays until the next announcement
  EXPECT_EQ(entry.fd, fd);
  EXPECT_TRUE(exists(path("a.tmp")));
}

TEST_F(MissDone, segments_of_the_old_lead_no_longer_match) {
  begin(10);
  give(0);
  pkgdist_data_recv_new_lead();
  give(1);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  EXPECT_EQ(find()->received_count, 1u);
}

TEST_F(MissDone, the_announcement_of_a_new_lead_starts_over_even_with_the_same_id) {
  begin(2);
  give(0);
  pkgdist_data_recv_new_lead();
  announce({.size = 8});
  EXPECT_EQ(find()->received_count, 0u);
  EXPECT_FALSE(exists(path("file.tmp")));
  give_all();
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(MissDone, a_new_lead_without_files_is_asked_for_nothing) {
  pkgdist_data_recv_new_lead();
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(MissDone, a_new_lead_that_cannot_be_reached_is_asked_by_the_time_out) {
  want("a");
  want("b");
  faults::fail(Call::kSendto, 1, EPERM);
  pkgdist_data_recv_new_lead();
  EXPECT_EQ(take_traffic().requests.size(), 1u);
  clock::advance(kSecond);
  (void)pkgdist_data_recv_timeout();
  EXPECT_EQ(take_traffic().requests.size(), 2u);
}

}  // namespace
