// Statistics that a thread gathers: one addition of each word, and when.
#include "pkgdist_tally.h"
#include "platform/inst_common.h"
#include "recv_support.h"

using namespace pkgdist;
using namespace support;

namespace {

class TallyTest : public RecvTest {
 protected:
  void SetUp() override {
    RecvTest::SetUp();
    faults::on_lock([this](const pthread_mutex_t* mutex) {
      if (mutex == &atomic_mutex) ++additions_;
    });
  }
  void TearDown() override {
    faults::on_lock(nullptr);
    RecvTest::TearDown();
  }
  unsigned additions() const { return additions_; }

 private:
  unsigned additions_ = 0;
};

TEST_F(TallyTest, adds_the_amount_of_each_counter_once) {
  Tally tally;
  for (int i = 0; i < 5; ++i) tally.count(DrtCounter::kMcSegment);
  tally.count(DrtCounter::kMcSingleSegment, 3);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 0u);
  tally.flush();
  EXPECT_EQ(value(DrtCounter::kMcSegment), 5u);
  EXPECT_EQ(value(DrtCounter::kMcSingleSegment), 3u);
  EXPECT_EQ(additions(), 2u);
}

TEST_F(TallyTest, adds_the_samples_of_each_bucket_once) {
  Tally tally;
  for (const uint64_t time : {1, 9'999, 10'000, 20'000})
    tally.record(DrtHistogram::kMcRxTime, time);
  tally.flush();
  EXPECT_EQ(samples(DrtHistogram::kMcRxTime), 4u);
  EXPECT_EQ(additions(), 2u);
}

TEST_F(TallyTest, is_empty_after_a_flush) {
  Tally tally;
  tally.count(DrtCounter::kMcSegment);
  tally.flush();
  tally.flush();
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
  EXPECT_EQ(additions(), 1u);
}

TEST_F(TallyTest, flushes_at_its_end) {
  { Tally().count(DrtCounter::kMcSegment); }
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
}

TEST_F(TallyTest, an_amount_of_nothing_adds_nothing) {
  { Tally().count(DrtCounter::kMcSegment, 0); }
  EXPECT_EQ(additions(), 0u);
}

TEST_F(TallyTest, loses_nothing_of_more_words_than_it_holds) {
  {
    Tally tally;
    for (uint32_t counter = 0; counter < 20; ++counter)
      tally.count(static_cast<DrtCounter>(counter), counter + 1);
  }
  for (uint32_t counter = 0; counter < 20; ++counter)
    EXPECT_EQ(value(static_cast<DrtCounter>(counter)), counter + 1);
  EXPECT_EQ(additions(), 20u);
}

TEST_F(TallyTest, counts_nothing_without_a_table) {
  pkgdist_drt_ship_counter_hdl = nullptr;
  pkgdist_drt_ship_histogram_hdl = nullptr;
  {
    Tally tally;
    tally.count(DrtCounter::kMcSegment);
    tally.record(DrtHistogram::kMcRxTime, 1);
  }
  EXPECT_EQ(additions(), 0u);
}

}  // namespace
