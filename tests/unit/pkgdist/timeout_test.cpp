// The time-out pass: asking again, giving up, expiring, and stopping when nothing is left.
#include "data_support.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_rx_thread.h"

using namespace support;

namespace {

constexpr uint32_t kRetries = 5;

class Timeouts : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }
  static void pass() { EXPECT_EQ(pkgdist_data_recv_timeout(), 0); }
  static void pass_after(uint64_t nanoseconds) {
    clock::advance(nanoseconds);
    pass();
  }
  // Keeps the stream busy, so that its silence is no reason for a time-out.
  static void hear_something() { G_data_recv_file_last_msg = clock::now(); }
  void expect_failure(const std::string& name = "file") {
    EXPECT_EQ(find(name), nullptr);
    EXPECT_EQ(value(DrtCounter::kFileTimeout), 1u);
    EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
    const Traffic traffic = take_traffic();
    ASSERT_EQ(traffic.reports.size(), 1u);
    EXPECT_EQ(traffic.reports[0].status, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
    EXPECT_TRUE(traffic.requests.empty());
    client.deliver();
    ASSERT_EQ(client.files.size(), 1u);
    EXPECT_EQ(client.files[0].status, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
    EXPECT_EQ(client.dones.size(), 1u);
  }
};

// --- File info ---

TEST_F(Timeouts, a_file_without_info_is_asked_for_after_one_two_three_time_outs_and_then_fails) {
  want("file", 5, 3, 1, 2, 4);
  for (uint32_t n = 0; n < kRetries; ++n) {
    pass_after((n + 1) * kSecond - 1);
    EXPECT_TRUE(wire::sent().empty());
    pass_after(1);
    EXPECT_EQ(take_traffic().requests, (std::vector<FileRequest>{{3, 1, 4, "file"}}));
    EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), n + 1);
    EXPECT_EQ(find()->timeout_count, n + 1);
    EXPECT_EQ(find()->start_time, clock::now());
  }
  EXPECT_EQ(logs::count("DATA File Info Receive Timeout - Name file - send again\n"), kRetries);
  pass_after((kRetries + 1) * kSecond - 1);
  EXPECT_NE(find(), nullptr);
  pass_after(1);
  EXPECT_TRUE(logs::contains("DATA File Info Receive Max Timeout - Name file\n"));
  EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), kRetries);
  expect_failure();
}

TEST_F(Timeouts, a_request_that_cannot_be_sent_is_tried_at_the_next_time_out) {
  want("file");
  faults::fail(Call::kSendto, 1, EPERM);
  pass_after(kSecond);
  EXPECT_EQ(find()->timeout_count, 1u);
  EXPECT_TRUE(wire::sent().empty());
  pass_after(2 * kSecond);
  EXPECT_EQ(take_traffic().requests.size(), 1u);
}

TEST_F(Timeouts, an_accepted_info_starts_the_count_afresh) {
  want("file");
  pass_after(kSecond);
  pass_after(2 * kSecond);
  EXPECT_EQ(find()->timeout_count, 2u);
  announce({});
  EXPECT_EQ(find()->timeout_count, 0u);
}

TEST_F(Timeouts, a_stamp_later_than_now_is_not_overdue) {
  want("file");
  find()->start_time = clock::now() + 5;
  pass();
  EXPECT_TRUE(wire::sent().empty());
  EXPECT_NE(find(), nullptr);
}

// --- Missing segments ---

class MissingTimeout : public Timeouts {
 protected:
  // 3 and 4 of ten are missing and have been asked for.
  void SetUp() override {
    Timeouts::SetUp();
    begin(10);
    for (const uint32_t segment : {0u, 1u, 2u, 5u}) give(segment);
    take_traffic();
  }
};

TEST_F(MissingTimeout, what_is_missing_is_asked_for_again_and_then_the_file_fails) {
  for (uint32_t n = 0; n < kRetries; ++n) {
    clock::advance(2 * kSecond * (n + 1) - 1);
    hear_something();
    find()->start_time = clock::now();  // the tail has its own tests
    pass();
    EXPECT_TRUE(wire::sent().empty());
    pass_after(1);
    EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 3, 2}}));
    EXPECT_EQ(value(DrtCounter::kFileMissSegmentTimeout), n + 1);
    EXPECT_EQ(find()->timeout_count, n + 1);
    EXPECT_EQ(find()->repair_time, clock::now());
    EXPECT_EQ(find()->request_time, clock::now());
  }
  EXPECT_EQ(logs::count("DATA File Missing Segment Timeout - Id 7 Name file - send again\n"),
            kRetries);
  pass_after(2 * kSecond * (kRetries + 1));
  EXPECT_TRUE(logs::contains("DATA File Missing Segment Max Timeout - Id 7 Name file\n"));
  EXPECT_FALSE(exists(path("file.tmp")));
  expect_failure();
}

TEST_F(MissingTimeout, the_walk_goes_from_behind_the_first_segment_round_to_it) {
  pkgdist_file_recv_entry& entry = *find();
  entry.first_segment = 4;
  pkgdist_set_miss(entry, 7);
  pkgdist_set_miss(entry, 9);
  for (const uint32_t segment : {0u, 1u, 2u}) pkgdist_clr_miss(entry, segment);
  pass_after(2 * kSecond);
  // 4 itself is where the walk ends; it is not visited.
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 7, 1}, {7, 9, 1}, {7, 3, 1}}));
}

TEST_F(MissingTimeout, runs_go_on_across_the_wrap) {
  begin(10, "other");
  pkgdist_file_recv_entry& entry = *find("other");
  pkgdist::file_recv_set_id(entry, 8);
  entry.first_segment = 5;
  pkgdist_set_segment(entry, 5);
  for (const uint32_t segment : {8u, 9u, 0u, 1u}) pkgdist_set_miss(entry, segment);
  entry.repair_time = clock::now();
  pass_after(2 * kSecond);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 3, 2}, {8, 8, 4}}));
}

TEST_F(MissingTimeout, a_walk_that_begins_at_the_last_segment_wraps_at_once) {
  pkgdist_file_recv_entry& entry = *find();
  entry.first_segment = 9;
  pass_after(2 * kSecond);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 3, 2}}));
}

TEST_F(MissingTimeout, a_mark_that_a_segment_has_caught_up_with_is_cleared) {
  pkgdist_file_recv_entry& entry = *find();
  pkgdist_set_segment(entry, 3);  // received, and the mark forgotten
  pass_after(2 * kSecond);
  EXPECT_FALSE(pkgdist_is_miss_set(entry, 3));
  EXPECT_EQ(entry.missing_count, 1u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 4, 1}}));
}

TEST_F(MissingTimeout, a_repair_puts_it_off) {
  clock::advance(2 * kSecond - 1);
  give(3, true);
  hear_something();
  find()->start_time = clock::now();
  pass_after(1);
  EXPECT_TRUE(take_traffic().singles.empty());
}

TEST_F(MissingTimeout, after_a_new_lead_it_goes_out_with_file_id_zero) {
  pkgdist_data_recv_new_lead();
  take_traffic();
  find()->start_time = clock::now() + 10 * kSecond;  // not the file info's turn
  pass_after(2 * kSecond);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{0, 3, 2}}));
}

// --- The tail ---

TEST_F(Timeouts, the_tail_of_a_file_is_asked_for_in_runs_and_then_the_file_fails) {
  begin(10);
  for (const uint32_t segment : {4u, 5u, 6u}) give(segment);
  give(9, true);
  take_traffic();
  clock::advance(2 * kSecond - 1);
  hear_something();
  pass();
  EXPECT_TRUE(wire::sent().empty());
  pass_after(1);
  EXPECT_TRUE(logs::contains("DATA File Segment Timeout - Id 7 Name file - send req single\n"));
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 7, 2}, {7, 0, 4}}));
  EXPECT_EQ(value(DrtCounter::kFileSegmentTimeout), 1u);
  pkgdist_file_recv_entry& entry = *find();
  EXPECT_EQ(entry.missing_count, 6u);
  EXPECT_EQ(entry.timeout_count, 1u);
  EXPECT_EQ(entry.start_time, clock::now());
  EXPECT_EQ(entry.repair_time, clock::now());
  EXPECT_EQ(entry.request_time, clock::now());
  entry.timeout_count = kRetries;
  entry.repair_time = clock::now() + 100 * kSecond;  // not the missing segments' turn
  pass_after(2 * kSecond * (kRetries + 1));
  EXPECT_TRUE(logs::contains("DATA File Segment Max Timeout - Id 7 Name file\n"));
  expect_failure();
}

TEST_F(Timeouts, a_file_that_lacks_200_segments_gets_no_tail_request) {
  begin(201);
  give(0);
  hear_something();
  clock::advance(2 * kSecond);
  hear_something();
  pass();
  EXPECT_TRUE(wire::sent().empty());
  give(1);  // now it lacks 199
  hear_something();
  pass_after(2 * kSecond);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 2, 199}}));
}

TEST_F(Timeouts, a_file_of_which_nothing_came_gets_no_tail_request) {
  begin(10);
  clock::advance(10 * kSecond);
  hear_something();
  pass();
  EXPECT_TRUE(wire::sent().empty());
}

// --- Silence of the stream ---

TEST_F(Timeouts, when_the_stream_is_silent_an_unfinished_file_is_asked_for_and_then_fails) {
  begin(10);
  hear_something();
  for (uint32_t n = 0; n < kRetries; ++n) {
    pkgdist_file_recv_entry& entry = *find();
    entry.info_pending = 0;
    clock::advance(2 * kSecond - (n == 0 ? 1 : 0));
    if (n == 0) {
      pass();
      EXPECT_TRUE(wire::sent().empty());
      clock::advance(1);
    }
    pass();
    EXPECT_EQ(take_traffic().requests, (std::vector<FileRequest>{{1, 1, 1, "file"}}));
    EXPECT_EQ(value(DrtCounter::kFileNotDoneTimeout), n + 1);
    EXPECT_EQ(entry.timeout_count, n + 1);
    EXPECT_EQ(entry.info_pending, 1);
    EXPECT_EQ(entry.start_time, clock::now());
  }
  EXPECT_EQ(logs::count("DATA File Not Done Timeout - Name file - send request again\n"), kRetries);
  find()->info_pending = 0;
  pass_after(2 * kSecond);  // measured from the last message: all intervals together
  EXPECT_TRUE(logs::contains("DATA File Not Done Max Timeout - Name file\n"));
  expect_failure();
}

TEST_F(Timeouts, any_datagram_puts_the_silence_off) {
  begin(300);
  give(0);
  for (int i = 0; i < 20; ++i) {
    clock::advance(kSecond);
    hear_something();
    pass();
  }
  EXPECT_TRUE(wire::sent().empty());  // lacks much, has asked for nothing, and others are served
}

TEST_F(Timeouts, a_complete_file_that_awaits_its_info_is_not_asked_for_as_unfinished) {
  begin(2);
  want_also("file", 6);
  give_all();
  find()->start_time = clock::now() + 100 * kSecond;
  pass_after(50 * kSecond);
  EXPECT_TRUE(wire::sent().empty());
}

// --- Order and restarts ---

TEST_F(Timeouts, only_the_first_reason_acts) {
  begin(10);
  for (const uint32_t segment : {0u, 3u}) give(segment);
  take_traffic();
  pkgdist_file_recv_entry& entry = *find();
  clock::advance(50 * kSecond);  // every reason holds
  entry.info_pending = 1;
  pass();
  EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), 1u);
  EXPECT_EQ(value(DrtCounter::kFileMissSegmentTimeout) + value(DrtCounter::kFileSegmentTimeout) +
                value(DrtCounter::kFileNotDoneTimeout),
            0u);
  entry.info_pending = 0;
  entry.start_time = 0;
  pass();
  EXPECT_EQ(value(DrtCounter::kFileMissSegmentTimeout), 1u);
  EXPECT_EQ(value(DrtCounter::kFileSegmentTimeout) + value(DrtCounter::kFileNotDoneTimeout), 0u);
  pass();  // the repair time is now: the tail's turn
  EXPECT_EQ(value(DrtCounter::kFileSegmentTimeout), 1u);
  EXPECT_EQ(value(DrtCounter::kFileNotDoneTimeout), 0u);
  pass();
  EXPECT_EQ(value(DrtCounter::kFileNotDoneTimeout), 1u);
}

TEST_F(Timeouts, files_that_fail_do_not_keep_others_from_their_turn) {
  for (const char* name : {"a", "b", "c", "d"}) want(name, 5);
  find("b")->timeout_count = find("d")->timeout_count = kRetries;
  pass_after(10 * kSecond);
  EXPECT_EQ(G_file_recv_db.count, 2u);
  EXPECT_EQ(value(DrtCounter::kFileTimeout), 2u);
  EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), 2u);  // once each, though the walk began again
  const Traffic traffic = take_traffic();
  EXPECT_EQ(traffic.requests.size(), 2u);
  EXPECT_EQ(traffic.reports.size(), 2u);
}

// --- Long lists ---

// As many file requests as a node repeats in a second.
constexpr uint32_t kRequestsPerSecond = 4096;

class LongList : public Timeouts {
 protected:
  void want_files(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) want(std::to_string(i));
  }
  // The names asked for since the last call.
  static std::vector<std::string> asked() {
    std::vector<std::string> names;
    for (const FileRequest& request : take_traffic().requests) names.push_back(request.name);
    return names;
  }
};

TEST_F(LongList, of_its_files_4096_are_asked_for_in_a_second_and_the_next_ones_after_that) {
  constexpr uint32_t kFiles = 10'000;
  want_files(kFiles);
  pass_after(kSecond);
  std::vector<std::string> names = asked();
  ASSERT_EQ(names.size(), kRequestsPerSecond);
  EXPECT_EQ(names.front(), "0");
  EXPECT_EQ(names.back(), "4095");
  pass_after(kSecond - 1);
  EXPECT_TRUE(wire::sent().empty());
  pass_after(1);
  names = asked();
  ASSERT_EQ(names.size(), kRequestsPerSecond);
  EXPECT_EQ(names.front(), "4096") << "the first ones wait for two time-outs by now";
  EXPECT_EQ(names.back(), "8191");
  EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), 2 * kRequestsPerSecond);
  EXPECT_EQ(value(DrtCounter::kUcSendReqSent), 2 * kRequestsPerSecond);
}

TEST_F(LongList, a_file_that_finds_no_room_keeps_its_count_and_its_time) {
  want_files(kRequestsPerSecond + 1);
  pass_after(kSecond);
  const std::string last = std::to_string(kRequestsPerSecond);
  EXPECT_EQ(find("0")->timeout_count, 1u);
  EXPECT_EQ(find(last)->timeout_count, 0u);
  EXPECT_EQ(find(last)->start_time, clock::now() - kSecond);
  EXPECT_EQ(logs::count("DATA File Info Receive Timeout - Name " + last + " - send again\n"), 0u);
  asked();
  pass_after(kSecond);
  EXPECT_EQ(asked(), (std::vector<std::string>{last}));
  EXPECT_EQ(find(last)->timeout_count, 1u);
}

TEST_F(LongList, that_nobody_sends_ends_by_itself) {
  want_files(kRequestsPerSecond + 1);
  size_t requests = 0;
  for (int i = 0; i < 40 && !G_file_recv_db.empty(); ++i) {
    pass_after(kSecond);
    requests += asked().size();
  }
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(requests, kRetries * (kRequestsPerSecond + 1));
  EXPECT_EQ(value(DrtCounter::kFileTimeout), kRequestsPerSecond + 1);
}

TEST_F(LongList, whose_stream_falls_silent_is_asked_for_at_the_same_pace) {
  want_files(kRequestsPerSecond + 1);
  for (uint32_t i = 0; i <= kRequestsPerSecond; ++i)
    announce({.id = i + 1, .name = std::to_string(i)});
  hear_something();
  pass_after(2 * kSecond);
  EXPECT_EQ(asked().size(), kRequestsPerSecond);
  EXPECT_EQ(value(DrtCounter::kFileNotDoneTimeout), kRequestsPerSecond);
  EXPECT_EQ(find(std::to_string(kRequestsPerSecond))->info_pending, 0);
  pass_after(kSecond);
  EXPECT_EQ(asked(), (std::vector<std::string>{std::to_string(kRequestsPerSecond)}));
}

TEST_F(LongList, does_not_hold_up_repairs) {
  want_files(kRequestsPerSecond);
  pass_after(kSecond);
  begin(10);
  for (const uint32_t segment : {0u, 1u, 2u, 5u}) give(segment);
  take_traffic();
  find()->repair_time = clock::now() - 2 * kSecond;
  want_files(1);
  pass();
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 3, 2}}));
}

TEST_F(LongList, of_another_lead_is_asked_for_at_the_same_pace) {
  want_files(kRequestsPerSecond + 1);
  const std::string last = std::to_string(kRequestsPerSecond);
  find(last)->timeout_count = 3;
  pkgdist_data_recv_new_lead();
  EXPECT_EQ(asked().size(), kRequestsPerSecond);
  pkgdist_data_recv_new_lead();
  EXPECT_TRUE(wire::sent().empty()) << "leads that take turns draw no more";
  EXPECT_EQ(find(last)->timeout_count, 0u);
  EXPECT_EQ(find(last)->info_pending, 1);
  pass_after(kSecond);
  EXPECT_EQ(asked().size(), kRequestsPerSecond);
}

TEST_F(LongList, holds_up_no_request_of_the_caller) {
  want_files(kRequestsPerSecond);
  pass_after(kSecond);
  asked();
  EXPECT_EQ(instcomm_pkgdist_get_file("mine", 1, 1, 1, 9, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(asked(), (std::vector<std::string>{"mine"}));
}

// --- The end ---

TEST_F(Timeouts, stat_entries_expire_and_then_the_threads_stop) {
  begin(1);
  give(0);
  ASSERT_EQ(G_file_stat_db.count, 1u);
  pass_after(30 * kSecond);
  EXPECT_EQ(G_file_stat_db.count, 1u);
  EXPECT_FALSE(G_data_rx_exit_thread);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
  pass_after(1);
  EXPECT_TRUE(G_file_stat_db.empty());
  EXPECT_EQ(value(DrsCounter::kStatRemove), 1u);
  EXPECT_TRUE(logs::contains("DATA File Receive DB Empty - Stop RX threads\n"));
  EXPECT_TRUE(G_data_rx_exit_thread);
  EXPECT_TRUE(G_data_recv_file_exit_thread);
}

TEST_F(Timeouts, a_file_on_its_way_keeps_the_threads) {
  want("file");
  pass();
  EXPECT_EQ(logs::count("Stop RX threads"), 0u);
  EXPECT_FALSE(G_data_rx_exit_thread);
}

TEST_F(Timeouts, time_outs_are_warnings_and_requests_are_not_errors) {
  want("file");
  pass_after(kSecond);
  for (const Record& record : logs::records()) EXPECT_FALSE(record.error) << record.text;
}

}  // namespace
