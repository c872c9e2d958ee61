// Updates of the statistics: counters, histograms, the watermark, and what happens without a table.
#include <cstring>
#include <limits>

#include "pkgdist_stats.h"
#include "platform/inst_common.h"
#include "recv_support.h"

using namespace pkgdist;
using namespace support;

namespace {

class Stats : public RecvTest {
 protected:
  static uint32_t word(const void* block, size_t offset) {
    uint32_t result = 0;
    std::memcpy(&result, static_cast<const uint8_t*>(block) + offset, sizeof result);
    return result;
  }
  static uint32_t bucket(const void* block, uint32_t histogram, uint32_t bucket) {
    return word(block, size_t{8 * histogram + bucket} * 4);
  }

  // Counts every entry of a table once and finds each count at 20 times its index.
  template <class Counter>
  static void expect_counters_in_records_of_20_bytes(const void* block) {
    for (uint32_t i = 0; i < static_cast<uint32_t>(Counter::kCount); ++i) {
      EXPECT_EQ(word(block, 20 * i), 0u);
      count(static_cast<Counter>(i));
      EXPECT_EQ(word(block, 20 * i), 1u) << i;
    }
  }

  template <class Histogram>
  static void expect_histograms_of_8_buckets(const void* block) {
    for (uint32_t i = 0; i < static_cast<uint32_t>(Histogram::kCount); ++i) {
      record(static_cast<Histogram>(i), 100'000);
      EXPECT_EQ(bucket(block, i, 2), 1u) << i;
      EXPECT_EQ(samples(static_cast<Histogram>(i)), 1u) << i;
    }
  }
};

// --- Counters ---

TEST_F(Stats, counters_live_in_records_of_20_bytes) {
  expect_counters_in_records_of_20_bytes<CrtCounter>(pkgdist_crt_ship_counter_hdl);
  expect_counters_in_records_of_20_bytes<CrsCounter>(pkgdist_crs_ship_counter_hdl);
  expect_counters_in_records_of_20_bytes<DrtCounter>(pkgdist_drt_ship_counter_hdl);
  expect_counters_in_records_of_20_bytes<DrsCounter>(pkgdist_drs_ship_counter_hdl);
}

TEST_F(Stats, adding_returns_the_previous_value) {
  uint32_t counter = 5;
  EXPECT_EQ(counter_add(&counter, 3), 5u);
  EXPECT_EQ(counter, 8u);
  EXPECT_EQ(counter_add(&counter, 0), 8u);
  EXPECT_EQ(counter, 8u);
}

TEST_F(Stats, a_counter_wraps_to_0) {
  uint32_t counter = std::numeric_limits<uint32_t>::max();
  EXPECT_EQ(counter_add(&counter, 1), std::numeric_limits<uint32_t>::max());
  EXPECT_EQ(counter, 0u);
}

TEST_F(Stats, each_addition_takes_the_lock_once) {
  uint32_t counter = 0;
  faults::clear();
  counter_add(&counter, 1);
  EXPECT_EQ(faults::calls(Call::kMutexLock), 1u);
  EXPECT_EQ(faults::calls(Call::kMutexUnlock), 1u);
}

TEST_F(Stats, the_lock_of_an_addition_is_the_installers) {
  const pthread_mutex_t* taken = nullptr;
  faults::on_lock([&](const pthread_mutex_t* mutex) { taken = mutex; });
  count(CrtCounter::kSelectFail);
  faults::clear();
  EXPECT_EQ(taken, &atomic_mutex);
}

TEST_F(Stats, without_a_table_nothing_is_counted_or_locked) {
  pkgdist_crt_ship_counter_hdl = pkgdist_crs_ship_counter_hdl = nullptr;
  pkgdist_drt_ship_counter_hdl = pkgdist_drs_ship_counter_hdl = nullptr;
  faults::clear();
  count(CrtCounter::kSelectFail);
  count(CrsCounter::kNewPid);
  count(DrtCounter::kFileTimeout);
  count(DrsCounter::kFileThreadStop);
  EXPECT_EQ(faults::calls(Call::kMutexLock), 0u);
  EXPECT_EQ(value(CrtCounter::kSelectFail), 0u);
}

// --- Histograms ---

TEST_F(Stats, histograms_are_rows_of_eight_buckets) {
  expect_histograms_of_8_buckets<CrtHistogram>(pkgdist_crt_ship_histogram_hdl);
  expect_histograms_of_8_buckets<CrsHistogram>(pkgdist_crs_ship_histogram_hdl);
  expect_histograms_of_8_buckets<DrtHistogram>(pkgdist_drt_ship_histogram_hdl);
  expect_histograms_of_8_buckets<DrsHistogram>(pkgdist_drs_ship_histogram_hdl);
}

TEST_F(Stats, buckets_end_before_each_power_of_ten_from_10000_on) {
  const uint64_t first_beyond[] = {10'000,      100'000,       1'000'000,     10'000'000,
                                   100'000'000, 1'000'000'000, 10'000'000'000};
  uint32_t block[8] = {};
  for (uint32_t i = 0; i < 7; ++i) {
    histogram_record(block, 0, first_beyond[i] - 1);
    EXPECT_EQ(block[i], i == 0 ? 1u : 2u) << "the last of bucket " << i;
    histogram_record(block, 0, first_beyond[i]);
    EXPECT_EQ(block[i + 1], 1u) << "the first of bucket " << i + 1;
  }
}

TEST_F(Stats, the_shortest_and_the_longest_time_land_in_the_outer_buckets) {
  uint32_t block[8] = {};
  histogram_record(block, 0, 0);
  histogram_record(block, 0, std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(block[0], 1u);
  EXPECT_EQ(block[7], 1u);
}

TEST_F(Stats, a_stamp_from_the_future_lands_in_the_bucket_of_its_distance) {
  record_since(CrsHistogram::kMsgQitcTime, clock::now() + 150'000);
  record_since(CrsHistogram::kMsgQitcTime, clock::now() - 150'000);
  EXPECT_EQ(bucket(pkgdist_crs_ship_histogram_hdl, 0, 2), 2u);
}

TEST_F(Stats, without_a_table_no_stamp_is_taken_and_nothing_recorded) {
  pkgdist_crs_ship_histogram_hdl = nullptr;
  EXPECT_FALSE(recording(CrsHistogram::kMsgQitcTime));
  EXPECT_EQ(stamp_for(CrsHistogram::kMsgQitcTime), 0u);
  record(CrsHistogram::kMsgQitcTime, 1);
  record_since(CrsHistogram::kMsgQitcTime, 0);
  EXPECT_EQ(samples(CrsHistogram::kMsgQitcTime), 0u);
}

TEST_F(Stats, with_a_table_stamps_are_now) {
  EXPECT_TRUE(recording(CrtHistogram::kUcAckTime));
  EXPECT_TRUE(recording(CrsHistogram::kMsgQitcTime));
  EXPECT_TRUE(recording(DrtHistogram::kUcSendTime));
  EXPECT_TRUE(recording(DrsHistogram::kSymlinkTime));
  EXPECT_EQ(stamp_for(DrsHistogram::kSymlinkTime), clock::now());
}

TEST_F(Stats, a_stopwatch_records_only_what_is_finished) {
  const Stopwatch abandoned(DrsHistogram::kSymlinkTime);
  const Stopwatch finished(DrsHistogram::kFileWriteTime);
  clock::advance(20'000);
  finished.finish();
  EXPECT_EQ(samples(DrsHistogram::kSymlinkTime), 0u);
  EXPECT_EQ(bucket(pkgdist_drs_ship_histogram_hdl,
                   static_cast<uint32_t>(DrsHistogram::kFileWriteTime), 1),
            1u);
}

// --- The watermark ---

struct Watermark {
  uint32_t current;
  uint32_t mark;
  uint32_t mode;
  uint32_t unused;
  uint64_t stamp;
};
static_assert(offsetof(Watermark, stamp) == 16 && sizeof(Watermark) == 24);

TEST_F(Stats, a_high_mark_follows_the_rises_with_a_stamp) {
  Watermark watermark{0, 0, 1, 0, 0};
  watermark_update(&watermark, 3);
  EXPECT_EQ(watermark.current, 3u);
  EXPECT_EQ(watermark.mark, 3u);
  EXPECT_EQ(watermark.stamp, clock::now());
  const uint64_t risen = watermark.stamp;
  clock::advance(kSecond);
  for (const uint32_t lower_or_equal : {3u, 1u, 0u}) {
    watermark_update(&watermark, lower_or_equal);
    EXPECT_EQ(watermark.current, lower_or_equal);
    EXPECT_EQ(watermark.mark, 3u);
    EXPECT_EQ(watermark.stamp, risen);
  }
}

TEST_F(Stats, a_low_mark_starts_at_the_first_value_without_a_stamp_and_follows_the_falls) {
  Watermark watermark{0, 0, 2, 0, 0};
  watermark_update(&watermark, 5);
  EXPECT_EQ(watermark.mark, 5u);
  EXPECT_EQ(watermark.stamp, 0u);
  watermark_update(&watermark, 9);
  EXPECT_EQ(watermark.mark, 5u);
  clock::advance(kSecond);
  watermark_update(&watermark, 4);
  EXPECT_EQ(watermark.mark, 4u);
  EXPECT_EQ(watermark.stamp, clock::now());
}

TEST_F(Stats, with_both_flags_a_rise_moves_the_mark_and_so_does_a_fall) {
  Watermark watermark{0, 5, 3, 0, 0};
  watermark_update(&watermark, 7);
  EXPECT_EQ(watermark.mark, 7u);
  watermark_update(&watermark, 2);
  EXPECT_EQ(watermark.mark, 2u);
}

TEST_F(Stats, without_flags_only_the_current_value_moves) {
  Watermark watermark{0, 4, 0, 0, 11};
  watermark_update(&watermark, 9);
  watermark_update(&watermark, 1);
  EXPECT_EQ(watermark.current, 1u);
  EXPECT_EQ(watermark.mark, 4u);
  EXPECT_EQ(watermark.stamp, 11u);
}

TEST_F(Stats, without_a_block_a_watermark_update_does_nothing) {
  faults::clear();
  watermark_update(nullptr, 9);
  EXPECT_EQ(word(pkgdist_drt_ship_watermark_hdl, 0), 0u);
}

}  // namespace
