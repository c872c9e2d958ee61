// Segments: storing them, following the lead's round, and asking for gaps at once.
#include "data_support.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"

using namespace support;

namespace {

class Segments : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }
  // The segments of one file come in this order.
  void give_in_order(std::initializer_list<uint32_t> segments) {
    for (const uint32_t segment : segments) give(segment);
  }
  void give_bytes(uint32_t segment, const Bytes& data, uint32_t id = 7) {
    const Bytes body = encoded_segment(id, segment, data);
    (void)pkgdist_data_process_file_segment(body.data(), body.size());
  }
  static bool has(const pkgdist_file_recv_entry& entry, uint32_t segment) {
    return pkgdist_is_segment_set(entry, segment);
  }
  static bool misses(const pkgdist_file_recv_entry& entry, uint32_t segment) {
    return pkgdist_is_miss_set(entry, segment);
  }
};

TEST_F(Segments, a_file_in_order_is_received_whole) {
  begin(5);
  give_all();
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(bytes_of(path("file")), content(20));
  EXPECT_FALSE(exists(path("file.tmp")));
  EXPECT_EQ(value(DrtCounter::kMcSegment), 5u);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_TRUE(take_traffic().singles.empty());
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{0, "file", 1, 1, 5}}));
}

TEST_F(Segments, a_file_of_one_segment_completes_at_once) {
  begin(1);
  give(0);
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(bytes_of(path("file")), content(4));
}

TEST_F(Segments, the_last_segment_may_be_short) {
  want("file");
  announce({.size = 10, .segment_size = 4});
  give_all();
  EXPECT_EQ(bytes_of(path("file")), content(10));
}

TEST_F(Segments, a_memory_file_is_received_whole) {
  begin(5, "file", 2);
  give_in_order({3, 4, 0, 1, 2});
  EXPECT_EQ(find("file", 2), nullptr);
  EXPECT_EQ(bytes_of(memory_path("file")), content(20));
}

TEST_F(Segments, reception_begins_with_whatever_comes_first) {
  begin(5);
  give(3);
  const pkgdist_file_recv_entry& entry = *find();
  EXPECT_EQ(entry.first_segment, 3u);
  EXPECT_EQ(entry.last_segment, 3u);
  give_in_order({4, 0, 1});
  EXPECT_EQ(entry.last_segment, 1u);
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 0u);
  give(2);
  EXPECT_EQ(bytes_of(path("file")), content(20));
  EXPECT_TRUE(take_traffic().singles.empty());
}

TEST_F(Segments, an_unknown_file_is_counted) {
  begin(5);
  give_bytes(0, Bytes(4), 99);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  EXPECT_EQ(find()->received_count, 0u);
}

TEST_F(Segments, file_id_zero_finds_no_waiting_file) {
  want("file");
  give_bytes(0, Bytes(4), 0);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(Segments, a_duplicate_is_only_counted_but_resets_the_time_outs) {
  begin(5);
  give(0);
  find()->timeout_count = 3;
  give_bytes(0, Bytes(4, 'x'));
  EXPECT_EQ(value(DrtCounter::kFileSegmentDup), 1u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
  EXPECT_EQ(find()->timeout_count, 0u);
  EXPECT_EQ(find()->received_count, 1u);
  EXPECT_EQ(bytes_of(path("file.tmp")), content(4));
}

TEST_F(Segments, every_segment_resets_the_time_outs) {
  begin(5);
  find()->timeout_count = 3;
  give(2);
  EXPECT_EQ(find()->timeout_count, 0u);
}

TEST_F(Segments, numbers_beyond_the_file_are_refused) {
  begin(5);
  for (const uint32_t beyond : {5u, 6u, 0x80000000u, 0xFFFFFFFFu}) give_bytes(beyond, Bytes(4));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_process_file_segment: data send segment num 5 is too large, file file num "
      "segments 5\n"));
  EXPECT_EQ(value(DrtCounter::kFileSegmentTooBig), 4u);
  EXPECT_EQ(find()->received_count, 0u);
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(Segments, data_of_another_length_is_a_bad_packet_and_the_segment_stays_missing) {
  want("file");
  announce({.size = 10, .segment_size = 4});
  struct Case {
    uint32_t segment;
    size_t length;
  } const cases[] = {{0, 0}, {0, 3}, {0, 5}, {1, 1000}, {2, 1}, {2, 3}, {2, 4}};
  uint32_t bad = 0;
  for (const Case& c : cases) {
    give_bytes(c.segment, Bytes(c.length, 'x'));
    EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), ++bad);
  }
  EXPECT_EQ(find()->received_count, 0u);
  give_all();
  EXPECT_EQ(bytes_of(path("file")), content(10));
}

TEST_F(Segments, data_of_another_length_never_reaches_a_mapping) {
  begin(3, "file", 2);
  give_bytes(2, Bytes(100'000 % 1400, 'x'));
  give_bytes(0, Bytes(12, 'x'));
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 2u);
  give_all();
  EXPECT_EQ(bytes_of(memory_path("file")), content(12));
}

TEST_F(Segments, duplicates_and_numbers_beyond_are_told_before_the_length) {
  begin(2);
  give(0);
  give_bytes(0, Bytes(1));
  give_bytes(2, Bytes(1));
  EXPECT_EQ(value(DrtCounter::kFileSegmentDup), 1u);
  EXPECT_EQ(value(DrtCounter::kFileSegmentTooBig), 1u);
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 0u);
}

TEST_F(Segments, a_file_whose_info_is_awaited_is_not_completed) {
  begin(2);
  want_also("file", 6);
  give_all();
  ASSERT_NE(find(), nullptr);
  EXPECT_TRUE(pkgdist_all_segments_set(*find()));
  EXPECT_FALSE(exists(path("file")));
}

TEST_F(Segments, progress_is_told_every_ten_thousand_segments) {
  want("file", 5, 1, 2);
  announce({.size = 25'000, .segment_size = 1, .location = 2});
  give_all();
  EXPECT_EQ(logs::count("% done"), 2u);
  EXPECT_TRUE(logs::contains("DATA File 'file' Rx 40% done\n"));
  EXPECT_TRUE(logs::contains("DATA File 'file' Rx 80% done\n"));
  EXPECT_EQ(bytes_of(memory_path("file")), content(25'000));
}

TEST_F(Segments, progress_of_the_largest_files_is_told_right) {
  want("file");
  announce({.size = 1u << 24, .segment_size = 1});
  pkgdist_file_recv_entry& entry = *find();
  ASSERT_EQ(entry.segment_count, 1u << 24);
  entry.received_count = 16'769'999;  // as if received
  give_bytes(7, Bytes(1));
  EXPECT_TRUE(logs::contains("DATA File 'file' Rx 99% done\n"));
}

// --- Gaps ---

TEST_F(Segments, a_gap_is_asked_for_at_once_as_one_run) {
  begin(10);
  give_in_order({0, 1, 2});
  clock::advance(kSecond);
  give(5);
  EXPECT_TRUE(logs::contains("DATA Out of Seq Segment Received - New Seg 5 Last 2 First 0\n"));
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 3, 2}}));
  EXPECT_EQ(value(DrtCounter::kUcSendSingleSent), 1u);
  EXPECT_TRUE(logs::contains("DATA Send File Req Single - File Id 7 Segment 3 Num 2\n"));
  const pkgdist_file_recv_entry& entry = *find();
  EXPECT_EQ(entry.last_segment, 5u);
  EXPECT_EQ(entry.missing_count, 2u);
  EXPECT_TRUE(misses(entry, 3) && misses(entry, 4));
  EXPECT_EQ(entry.repair_time, clock::now());
  EXPECT_EQ(entry.request_time, clock::now());
}

TEST_F(Segments, what_was_received_or_asked_for_already_splits_the_runs) {
  begin(12);
  give(0);
  for (const uint32_t received : {3u, 6u}) give(received, true);  // repairs move nothing
  pkgdist_set_miss(*find(), 8);
  give(11);
  EXPECT_EQ(take_traffic().singles,
            (std::vector<Single>{{7, 1, 2}, {7, 4, 2}, {7, 7, 1}, {7, 9, 2}}));
  EXPECT_EQ(find()->missing_count, 8u);
}

TEST_F(Segments, a_gap_across_the_wrap_is_one_run) {
  begin(10);
  give_in_order({5, 6, 7});
  give(2);  // 8, 9, 0 and 1 are lacking
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 8, 4}}));
  EXPECT_EQ(find()->last_segment, 2u);
}

TEST_F(Segments, a_swap_at_the_very_start_asks_for_everything_else) {
  begin(10);
  give(5);
  give(4);
  EXPECT_EQ(find()->last_segment, 4u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 6, 8}}));
}

TEST_F(Segments, behind_the_wrap_only_a_higher_segment_moves_the_last_one) {
  begin(10);
  give_in_order({5, 6, 7, 8, 9, 0, 1});
  pkgdist_file_recv_entry& entry = *find();
  give(3);
  EXPECT_EQ(entry.last_segment, 3u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 2, 1}}));
}

TEST_F(Segments, behind_the_wrap_a_lower_segment_does_not_move_the_last_one) {
  begin(10);
  give_in_order({5, 6, 7, 8, 9, 0, 3});
  pkgdist_file_recv_entry& entry = *find();
  pkgdist_clr_miss(entry, 1);
  take_traffic();
  give(1);
  EXPECT_EQ(entry.last_segment, 3u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 4, 1}}));  // all round to the last one
}

TEST_F(Segments, an_expected_segment_after_a_gap_goes_on_from_there) {
  begin(10);
  give_in_order({0, 3, 4});
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(find()->last_segment, 4u);
}

// --- Repairs ---

TEST_F(Segments, a_repair_clears_its_mark_without_moving_the_last_segment) {
  begin(10);
  give_in_order({0, 4});
  clock::advance(kSecond);
  give(2, true);
  const pkgdist_file_recv_entry& entry = *find();
  EXPECT_EQ(entry.last_segment, 4u);
  EXPECT_FALSE(misses(entry, 2));
  EXPECT_TRUE(has(entry, 2));
  EXPECT_EQ(entry.missing_count, 2u);
  EXPECT_EQ(entry.repair_time, clock::now());
  EXPECT_EQ(value(DrtCounter::kMcSingleSegment), 1u);
  EXPECT_EQ(samples(DrtHistogram::kMissSegmentTime), 1u);
}

TEST_F(Segments, a_missing_segment_may_also_come_as_a_first_transmission) {
  begin(10);
  give_in_order({0, 4});
  give(2);
  EXPECT_FALSE(misses(*find(), 2));
  EXPECT_EQ(find()->last_segment, 4u);
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 1u);  // the gap, not this one
}

TEST_F(Segments, a_missing_segment_that_is_expected_moves_the_last_one) {
  begin(10);
  give_in_order({0, 1});
  pkgdist_set_miss(*find(), 2);
  clock::advance(kSecond);
  give(2);
  EXPECT_EQ(find()->last_segment, 2u);
  EXPECT_EQ(find()->missing_count, 0u);
  EXPECT_EQ(find()->repair_time, clock::now());
  EXPECT_EQ(samples(DrtHistogram::kMissSegmentTime), 1u);
}

TEST_F(Segments, a_repair_that_was_not_asked_for_only_sets_its_bit) {
  begin(10);
  give(0);
  const uint64_t repair_time = find()->repair_time;
  clock::advance(kSecond);
  give(6, true);
  EXPECT_TRUE(has(*find(), 6));
  EXPECT_EQ(find()->last_segment, 0u);
  EXPECT_EQ(find()->missing_count, 0u);
  EXPECT_EQ(find()->repair_time, repair_time);
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 0u);
  EXPECT_TRUE(take_traffic().singles.empty());
}

TEST_F(Segments, a_mark_of_repair_that_did_not_travel_is_none) {
  begin(10);
  give(0);
  {
    const CodecResidue residue;
    give(2);
  }
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 1, 1}}));
}

TEST_F(Segments, repairs_complete_a_file) {
  begin(6);
  give_in_order({0, 1, 5});
  for (const uint32_t repaired : {4u, 2u, 3u}) give(repaired, true);
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(bytes_of(path("file")), content(24));
}

TEST_F(Segments, a_repair_may_be_the_first_segment) {
  begin(4);
  give(2, true);
  EXPECT_EQ(find()->first_segment, 2u);
  EXPECT_TRUE(exists(path("file.tmp")));
}

TEST_F(Segments, without_histograms_no_request_time_is_kept) {
  begin(10);
  pkgdist_drt_ship_histogram_hdl = nullptr;
  give_in_order({0, 4});
  EXPECT_EQ(find()->request_time, 0u);
  EXPECT_EQ(find()->repair_time, clock::now());
}

// --- Links that were files, files that were longer ---

TEST_F(Segments, a_shorter_transfer_forgets_the_place_of_the_longer_one) {
  begin(200);
  give_in_order({0, 150});  // last is 150
  announce({.id = 8, .size = 5 * 4, .symlink = true});
  EXPECT_EQ(find()->last_segment, 0u);
  take_traffic();
  give(3, false, 8);  // a walk that stopped at 150 of 5 segments would not end
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{8, 1, 2}}));
}

TEST_F(Segments, the_time_out_of_a_shorter_transfer_does_not_begin_behind_its_end) {
  begin(200);
  give(150);  // first is 150
  announce({.id = 8, .size = 5 * 4, .symlink = true});
  EXPECT_EQ(find()->first_segment, 0u);
  give(1, false, 8);
  take_traffic();
  clock::advance(2 * kSecond);
  (void)pkgdist_data_recv_timeout();  // the walk would not end either
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{8, 2, 3}}));
}

// --- Failures that end the file ---

TEST_F(Segments, a_failed_completion_is_the_files_outcome) {
  begin(1);
  faults::fail(Call::kRename, 1, EROFS);
  give(0);
  EXPECT_EQ(find(), nullptr);
  client.deliver();
  EXPECT_EQ(client.files.at(0).status, PKGDIST_STATUS_FROM_ERRNO(EROFS));
  EXPECT_TRUE(exists(path("file.tmp")));  // the rename leaves it
}

TEST_F(Segments, the_result_is_that_of_the_completion) {
  begin(1);
  pkgdist_data_recv_free_ctx(3);  // so that the report has the last word
  faults::fail(Call::kSendto, 1, EPERM);
  const Bytes body = encoded_segment(7, 0, content(4));
  EXPECT_EQ(pkgdist_data_process_file_segment(body.data(), body.size()), PKGDIST_ERR_NOT_FOUND);
  EXPECT_EQ(pkgdist_data_process_file_segment(body.data(), body.size()), 0u);  // unknown now
}

}  // namespace
