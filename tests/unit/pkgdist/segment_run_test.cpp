// Segments that come together: what goes on with each other is written with one call, and all that
// can be seen is as if each had come alone.
#include "data_threads_fixture.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_segment_run.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

class SegmentRuns : public DataThreadsTest {
 protected:
  void SetUp() override {
    DataThreadsTest::SetUp();
    ASSERT_EQ(pkgdist_file_recv_init(), 0u);
    client.attach_all();
  }
  // One segment of 4 bytes of a file whose content is content().
  static Bytes segment(uint32_t number, bool repair = false, uint32_t id = 7) {
    const Bytes whole = content((number + 1) * 4);
    return data_datagram(PKGDIST_DATA_MSG_SEGMENT,
                         encoded_segment(id, number, Bytes(whole.end() - 4, whole.end()), repair));
  }
  static void queue(const Bytes& datagram) {
    G_data_recv_file_thread_running = true;  // the test's own
    DataThreadsTest::queue(datagram);
  }
  // They wait in the queue together when the file thread looks.
  static void come(std::initializer_list<uint32_t> segments) {
    for (const uint32_t number : segments) queue(segment(number));
    run_file_loop();
  }
  static void come_up_to(uint32_t end) {
    for (uint32_t number = 0; number < end; ++number) queue(segment(number));
    run_file_loop();
  }
  static unsigned runs() { return faults::calls(Call::kPwritev); }
  static unsigned lone_ones() { return faults::calls(Call::kWrite); }
  static unsigned seeks() { return faults::calls(Call::kLseek); }
  static PkgdistStatus system_error(int error) { return PKGDIST_STATUS_FROM_ERRNO(error); }
  std::string partial() const { return path("file.tmp"); }
  // For hooks that run when a lock is taken.
  static pkgdist_file_recv_entry* find_unlocked() { return G_file_recv_db.head; }

  std::vector<Bytes> kept_;  // datagrams that a run has views into
};

// --- What is written with one call ---

TEST_F(SegmentRuns, adjacent_segments_are_written_with_one_call) {
  begin(10);
  come({0, 1, 2, 3, 4});
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(lone_ones() + seeks(), 0u);
  EXPECT_EQ(bytes_of(partial()), content(20));
  EXPECT_EQ(find()->received_count, 5u);
  EXPECT_EQ(find()->last_segment, 4u);
}

TEST_F(SegmentRuns, a_lone_segment_is_sought_and_written) {
  begin(10);
  come({0});
  come({1});  // where the position is already
  EXPECT_EQ(runs(), 0u);
  EXPECT_EQ(lone_ones(), 2u);
  EXPECT_EQ(seeks(), 2u);
}

TEST_F(SegmentRuns, only_segments_that_follow_each_other_are_one_run) {
  begin(12);
  come({0, 1, 3, 4, 6, 8, 9, 10});  // two runs and a lone one between two other runs
  EXPECT_EQ(runs(), 3u);
  EXPECT_EQ(lone_ones(), 1u);
  come({11, 2, 5, 7});
  EXPECT_EQ(bytes_of(path("file")), content(48));
}

TEST_F(SegmentRuns, a_run_ends_with_the_file_and_goes_on_at_its_begin) {
  begin(4);
  come({2, 3, 0, 1});
  EXPECT_EQ(runs(), 2u);
  EXPECT_EQ(bytes_of(path("file")), content(16));
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 0u);
}

TEST_F(SegmentRuns, segments_of_different_files_are_different_runs) {
  begin(4);
  want("other");
  announce({.id = 8, .name = "other", .size = 16});
  for (const uint32_t number : {0u, 1u}) queue(segment(number));
  for (const uint32_t number : {2u, 3u}) queue(segment(number, false, 8));
  for (const uint32_t number : {2u, 3u}) queue(segment(number));
  run_file_loop();
  EXPECT_EQ(runs(), 3u);
  EXPECT_EQ(bytes_of(path("file")), content(16));
  EXPECT_EQ(find("other")->received_count, 2u);
}

TEST_F(SegmentRuns, a_run_holds_no_more_than_is_taken_at_once) {
  begin(100);
  come_up_to(80);
  EXPECT_EQ(runs(), 3u);
  EXPECT_EQ(bytes_of(partial()), content(320));
}

TEST_F(SegmentRuns, the_first_segments_open_the_file) {
  begin(10, "new/deep/file");
  come({4, 5, 6});
  EXPECT_EQ(runs(), 1u);
  const pkgdist_file_recv_entry& entry = *find("new/deep/file");
  EXPECT_EQ(entry.first_segment, 4u);
  EXPECT_EQ(entry.last_segment, 6u);
  EXPECT_EQ(entry.missing_count, 0u);
}

TEST_F(SegmentRuns, the_last_short_segment_belongs_to_a_run) {
  want("file");
  announce({.size = 10, .segment_size = 4});
  queue(segment(0));
  queue(segment(1));
  const Bytes whole = content(10);
  queue(data_datagram(PKGDIST_DATA_MSG_SEGMENT,
                      encoded_segment(7, 2, Bytes(whole.begin() + 8, whole.end()))));
  run_file_loop();
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(bytes_of(path("file")), whole);
}

TEST_F(SegmentRuns, memory_files_are_filled_by_runs) {
  begin(5, "file", 2);
  come({1, 2, 3, 0, 4});
  EXPECT_EQ(find("file", 2), nullptr);
  EXPECT_EQ(bytes_of(memory_path("file")), content(20));
  EXPECT_EQ(runs() + lone_ones(), 0u);
}

// --- Each segment of a run is seen as if it had come alone ---

TEST_F(SegmentRuns, each_segment_is_counted_and_timed) {
  begin(10);
  for (const uint32_t number : {0u, 1u, 2u}) queue(segment(number));
  for (const uint32_t number : {3u, 4u}) queue(segment(number, true));
  run_file_loop();
  EXPECT_EQ(runs(), 1u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 3u);
  EXPECT_EQ(value(DrtCounter::kMcSingleSegment), 2u);
  EXPECT_EQ(samples(DrsHistogram::kFileWriteTime), 5u);
  EXPECT_EQ(samples(DrtHistogram::kRxQueueTime), 5u);
}

TEST_F(SegmentRuns, a_duplicate_ends_the_run_and_is_counted) {
  begin(10);
  come({0, 1, 1, 2, 0, 3});
  EXPECT_EQ(value(DrtCounter::kFileSegmentDup), 2u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 4u);
  EXPECT_EQ(bytes_of(partial()), content(16));
}

TEST_F(SegmentRuns, what_is_beyond_the_file_or_of_another_length_is_no_part_of_a_run) {
  begin(3);
  queue(segment(0));
  queue(segment(1));
  queue(data_datagram(PKGDIST_DATA_MSG_SEGMENT, encoded_segment(7, 2, Bytes(3))));
  queue(data_datagram(PKGDIST_DATA_MSG_SEGMENT, encoded_segment(7, 3, Bytes(4))));
  run_file_loop();
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 1u);
  EXPECT_EQ(value(DrtCounter::kFileSegmentTooBig), 1u);
  EXPECT_EQ(find()->received_count, 2u);
  EXPECT_EQ(bytes_of(partial()), content(8));
}

TEST_F(SegmentRuns, a_run_behind_a_gap_asks_for_the_gap_once) {
  begin(10);
  come({0, 1, 5, 6, 7});
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 2, 3}}));
  EXPECT_EQ(value(DrtCounter::kMcOutOfSeqRecv), 1u);
  EXPECT_EQ(find()->last_segment, 7u);
  EXPECT_EQ(find()->missing_count, 3u);
}

// What waits in the queue may fill the gap, and is not looked at.
TEST_F(SegmentRuns, a_gap_is_asked_for_although_its_segments_wait_in_the_queue) {
  begin(10);
  come({0, 3, 4, 1, 2});
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 1, 2}}));
  EXPECT_EQ(find()->missing_count, 0u);
  EXPECT_EQ(samples(DrtHistogram::kMissSegmentTime), 2u);
}

TEST_F(SegmentRuns, repairs_of_a_run_clear_their_marks) {
  begin(10);
  come({0, 4});
  for (const uint32_t number : {1u, 2u, 3u}) queue(segment(number, true));
  run_file_loop();
  EXPECT_EQ(find()->missing_count, 0u);
  EXPECT_EQ(find()->last_segment, 4u);
  EXPECT_EQ(value(DrtCounter::kMcSingleSegment), 3u);
}

TEST_F(SegmentRuns, the_segments_of_an_unknown_file_are_each_counted) {
  come({0, 1, 2});
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 3u);
}

TEST_F(SegmentRuns, progress_is_told_inside_a_run) {
  want("file");
  announce({.size = 40'004, .segment_size = 4});
  come_up_to(10'001);
  EXPECT_EQ(logs::count("DATA File 'file' Rx 99% done"), 1u);
  EXPECT_EQ(bytes_of(path("file")), content(40'004));
}

// --- Order: a segment is marked when its data is written, and never later than it matters ---

TEST_F(SegmentRuns, nothing_is_counted_before_it_is_written) {
  begin(10);
  pkgdist::SegmentRun run;
  for (const uint32_t number : {0u, 1u, 2u}) {
    const Bytes& datagram = kept_.emplace_back(segment(number));
    pkgdist::process_datagram(datagram.data(), static_cast<ssize_t>(datagram.size()), run);
  }
  EXPECT_EQ(run.size(), 3u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 0u);
  EXPECT_EQ(bytes_of(partial()), Bytes{});
  EXPECT_EQ(run.finish(), 0u);
  EXPECT_EQ(run.size(), 0u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 3u);
  EXPECT_EQ(bytes_of(partial()), content(12));
}

TEST_F(SegmentRuns, a_run_that_completes_the_file_ends_it_without_a_lock) {
  begin(3);
  int told = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex != &G_data_recv_ctx_db.mutex || ++told != 1) return;
    EXPECT_EQ(pthread_mutex_trylock(&G_file_recv_db.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&G_file_recv_db.mutex), 0);
  });
  come({0, 1, 2});
  faults::on_lock(nullptr);
  EXPECT_GE(told, 1);
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{0, "file", 1, 1, 5}}));
  EXPECT_EQ(take_traffic().reports.size(), 1u);
}

TEST_F(SegmentRuns, a_callback_finds_every_segment_of_its_file_counted) {
  begin(3);
  uint32_t counted = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_data_recv_ctx_db.mutex && counted == 0) {
      counted = value(DrtCounter::kMcSegment);
      EXPECT_EQ(samples(DrtHistogram::kRxQueueTime), 3u);
      EXPECT_EQ(samples(DrsHistogram::kFileWriteTime), 3u);
    }
  });
  come({0, 1, 2});
  faults::on_lock(nullptr);
  EXPECT_EQ(counted, 3u);
}

TEST_F(SegmentRuns, a_new_announcement_finds_the_segments_before_it_written) {
  begin(10);
  queue(segment(0));
  queue(segment(1));
  queue(data_datagram(PKGDIST_DATA_MSG_FILE_INFO, encoded_info({.id = 8, .size = 40})));
  queue(segment(0, false, 8));
  run_file_loop();
  EXPECT_EQ(value(DrtCounter::kMcSegment), 3u);
  EXPECT_EQ(samples(DrsHistogram::kFileUnlinkTime), 1u);  // what the first two had made
  EXPECT_EQ(find()->received_count, 1u);
  EXPECT_EQ(bytes_of(partial()), content(4));
}

TEST_F(SegmentRuns, a_bad_datagram_ends_the_run_before_it_is_told) {
  begin(10);
  queue(segment(0));
  queue(segment(1));
  queue({1, 2, 3});
  queue(segment(2));
  faults::fail(Call::kPwritev, 1, EIO);
  faults::fail(Call::kWrite, 1, EIO);
  run_file_loop();
  std::vector<std::string> errors;
  for (const Record& record : logs::records())
    if (record.error) errors.push_back(record.text);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_NE(errors[0].find("data file write failed"), std::string::npos);
  EXPECT_NE(errors[1].find("hdr msg too small"), std::string::npos);
  EXPECT_EQ(bytes_of(partial()), content(12));
}

TEST_F(SegmentRuns, a_time_out_pass_that_is_due_finds_the_run_ended) {
  begin(10);
  G_data_rto.timer_period = kSecond;
  for (const uint32_t number : {0u, 1u, 5u, 6u}) queue(segment(number));
  uint32_t received = 0;
  int writes = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    // The first run takes its time.
    if (mutex == &atomic_mutex && faults::calls(Call::kPwritev) == 1 && ++writes == 1)
      clock::advance(2 * kSecond);
    if (mutex == &G_file_stat_db.mutex && received == 0) received = find_unlocked()->received_count;
  });
  run_file_loop();
  faults::on_lock(nullptr);
  EXPECT_EQ(received, 3u);  // the segment that had begun the second run is written too
  EXPECT_EQ(find()->received_count, 4u);
}

// --- When the one call fails ---

TEST_F(SegmentRuns, a_failed_run_is_written_segment_by_segment_without_a_word) {
  begin(10);
  faults::fail(Call::kPwritev, 1, EIO);
  come({0, 1, 2});
  EXPECT_EQ(lone_ones(), 3u);
  EXPECT_EQ(seeks(), 3u);
  EXPECT_EQ(value(DrsCounter::kFileError), 0u);
  EXPECT_EQ(logs::count("ERR:"), 0u);
  EXPECT_EQ(samples(DrsHistogram::kFileWriteTime), 3u);
  EXPECT_EQ(bytes_of(partial()), content(12));
  EXPECT_EQ(find()->received_count, 3u);
}

TEST_F(SegmentRuns, a_short_run_is_written_segment_by_segment) {
  begin(10);
  faults::short_pwritev(1, 7);
  come({0, 1, 2});
  EXPECT_EQ(lone_ones(), 3u);
  EXPECT_EQ(bytes_of(partial()), content(12));
  EXPECT_EQ(value(DrtCounter::kMcSegment), 3u);
}

TEST_F(SegmentRuns, single_writes_of_a_failed_run_have_their_attempts_and_texts) {
  begin(10);
  faults::fail(Call::kPwritev, 1, EIO);
  faults::fail(Call::kWrite, 2, EIO);
  come({0, 1, 2});
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write failed, path '" +
                             partial() + "' offset 4 rc=5(Input/output error)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(lone_ones(), 4u);
  EXPECT_EQ(bytes_of(partial()), content(12));
}

TEST_F(SegmentRuns, a_segment_that_cannot_be_written_ends_the_file_and_the_rest_finds_none) {
  begin(10);
  come({0});
  faults::fail(Call::kPwritev, 1, EIO);
  faults::fail_always(Call::kWrite, EIO);
  come({1, 2, 3});
  faults::clear();
  EXPECT_EQ(logs::count("data file write failed"), 3u);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 2u);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
  EXPECT_EQ(find(), nullptr);
  EXPECT_TRUE(exists(partial()));
}

TEST_F(SegmentRuns, a_full_disk_ends_the_file_with_the_texts_of_a_lone_segment) {
  begin(10);
  faults::fail(Call::kPwritev, 1, ENOSPC);
  faults::fail(Call::kWrite, 2, ENOSPC);
  come({0, 1, 2});
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write failed, path '" +
                             partial() + "' offset 4 rc=28(No space left on device)\n"));
  EXPECT_EQ(logs::count("as there is no space"), 1u);
  EXPECT_FALSE(exists(partial()));
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  client.deliver();
  ASSERT_EQ(client.files.size(), 1u);
  EXPECT_EQ(client.files[0].status, system_error(ENOENT));
}

TEST_F(SegmentRuns, a_file_that_cannot_be_opened_ends_with_its_first_segment) {
  begin(10);
  faults::fail_always(Call::kOpen, EACCES);
  come({0, 1, 2});
  faults::clear();
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 2u);
  client.deliver();
  ASSERT_EQ(client.files.size(), 1u);
  EXPECT_EQ(client.files[0].status, system_error(EACCES));
}

}  // namespace
