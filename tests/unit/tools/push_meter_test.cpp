// Rates and the time left of a push whose progress the test makes up.
#include "push_meter.h"

#include <gtest/gtest.h>

#include <cmath>

namespace pkgdist::lead_program {
namespace {

using lead::kMillisecond;
using lead::kSecond;

constexpr lead::Time kTick = 200 * kMillisecond;
constexpr uint64_t kMegabyte = 1'000'000;

class PushMeterTest : public testing::Test {
 protected:
  // Nodes 1 to `count`, with 100 files of a total size.
  void begin(size_t count, uint64_t bytes) {
    report_.started = true;
    report_.files = 100;
    report_.bytes = bytes;
    for (uint32_t address = 1; address <= count; ++address) {
      lead::PushNodeReport& node = report_.nodes.emplace_back();
      node.address = address;
      node.heard = true;
      node.files_left = report_.files;
      node.bytes_left = bytes;
    }
    meter_.update(report_, now_);
  }

  static void receive(lead::PushNodeReport& node, uint64_t bytes) {
    bytes = std::min(bytes, node.bytes_left);
    node.bytes_done += bytes;
    node.bytes_left -= bytes;
    if (node.bytes_left == 0) node.files_left = 0;
  }

  void tick(uint64_t bytes) {
    for (lead::PushNodeReport& node : report_.nodes) receive(node, bytes);
    pass();
  }
  void pass() {
    now_ += kTick;
    meter_.update(report_, now_);
  }
  std::optional<double> left() const { return meter_.seconds_left(now_); }
  double end() const { return static_cast<double>(now_) / 1e9 + left().value(); }

  lead::PushReport report_;
  lead::Time now_ = 1000 * kSecond;
  PushMeter meter_;
};

TEST_F(PushMeterTest, knows_no_time_left_before_two_seconds_of_data) {
  begin(1, 100 * kMegabyte);
  EXPECT_FALSE(left());
  for (int i = 0; i < 9; ++i) {
    tick(kMegabyte);
    EXPECT_FALSE(left()) << i;
  }
  tick(kMegabyte);
  EXPECT_NEAR(left().value(), 18, 0.01);
}

TEST_F(PushMeterTest, runs_down_with_the_clock_while_the_stream_is_steady) {
  begin(2, 100 * kMegabyte);
  for (int i = 1; i < 100; ++i) {
    tick(kMegabyte);
    if (left()) {
      EXPECT_NEAR(*left(), (100 - i) * 0.2, 0.01) << i;
      EXPECT_NEAR(meter_.rate(2), 5e6, 1);
    }
  }
}

// Files end in bursts: between two looks nothing may come, or four times the usual.
TEST_F(PushMeterTest, hardly_moves_when_progress_comes_in_bursts) {
  begin(1, 400 * kMegabyte);
  double last_end = 0, widest = 0;
  for (int i = 1; i < 360; ++i) {
    tick(i % 4 == 0 ? 4 * kMegabyte : 0);
    if (i < 20) continue;
    const double truth = (400 - i) * 0.2;
    EXPECT_NEAR(*left(), truth, truth * 0.12) << i;
    if (last_end != 0) widest = std::max(widest, std::abs(end() - last_end));
    last_end = end();
  }
  EXPECT_LT(widest, 2.0) << "of 80 seconds";
}

TEST_F(PushMeterTest, follows_a_stream_that_becomes_slower) {
  begin(1, 300 * kMegabyte);
  for (int i = 0; i < 100; ++i) tick(kMegabyte);
  EXPECT_NEAR(*left(), 40, 1);
  for (int i = 0; i < 75; ++i) tick(kMegabyte / 4);
  const double truth = (200 - 75 / 4.0) * 4 * 0.2;
  EXPECT_NEAR(*left(), truth, truth * 0.2);
}

TEST_F(PushMeterTest, waits_for_the_slowest_node_but_not_for_a_silent_one) {
  begin(3, 100 * kMegabyte);
  report_.nodes[2].silent = true;
  for (int i = 0; i < 50; ++i) {
    receive(report_.nodes[0], 2 * kMegabyte);
    receive(report_.nodes[1], kMegabyte);
    pass();
  }
  EXPECT_EQ(report_.nodes[0].files_left, 0u);
  EXPECT_NEAR(*left(), 10, 0.5);
  EXPECT_NEAR(meter_.rate(2), 5e6, 1e4);
}

TEST_F(PushMeterTest, expects_of_a_node_that_comes_late_what_the_others_do) {
  begin(1, 100 * kMegabyte);
  for (int i = 0; i < 50; ++i) tick(kMegabyte);
  // In front of the other: places in the report change.
  lead::PushNodeReport late;
  late.address = 77;
  late.heard = true;
  late.files_left = report_.files;
  late.bytes_left = report_.bytes;
  report_.nodes.insert(report_.nodes.begin(), late);
  for (int i = 0; i < 5; ++i) tick(kMegabyte);
  EXPECT_NEAR(left().value(), 19, 7) << "10 s more than before, and not at once";
  for (int i = 0; i < 35; ++i) tick(kMegabyte);
  EXPECT_NEAR(*left(), 12, 1);
  EXPECT_NEAR(meter_.rate(1), 5e6, 1e4);
  EXPECT_NEAR(meter_.rate(77), 5e6, 1e4);
}

TEST_F(PushMeterTest, present_files_are_progress_but_no_rate) {
  begin(1, 100 * kMegabyte);
  for (int i = 0; i < 25; ++i) {
    report_.nodes[0].bytes_skipped += kMegabyte;
    tick(kMegabyte);
  }
  EXPECT_EQ(meter_.rate(1), 0);
  EXPECT_NEAR(*left(), 15, 0.1);
}

TEST_F(PushMeterTest, files_that_fail_are_not_waited_for) {
  begin(1, 100 * kMegabyte);
  for (int i = 0; i < 25; ++i) tick(kMegabyte);
  report_.nodes[0].bytes_left -= 50 * kMegabyte;
  ++report_.nodes[0].files_failed;
  for (int i = 0; i < 24; ++i) tick(kMegabyte);
  EXPECT_LT(*left(), 1.0);
}

TEST_F(PushMeterTest, counts_what_was_sent_of_files_in_transfer) {
  begin(1, 100 * kMegabyte);
  for (int i = 1; i <= 50; ++i) {
    report_.nodes[0].bytes_in_transfer = report_.nodes[0].bytes_sent =
        static_cast<uint64_t>(i) * kMegabyte;
    pass();
  }
  EXPECT_NEAR(*left(), 10, 0.1);
  EXPECT_NEAR(meter_.rate(1), 5e6, 1);
}

TEST_F(PushMeterTest, has_nothing_left_to_send_while_nodes_are_helped_with_the_rest) {
  begin(1, 10 * kMegabyte);
  for (int i = 1; i <= 10; ++i) {
    report_.nodes[0].bytes_in_transfer = report_.nodes[0].bytes_sent =
        static_cast<uint64_t>(i) * kMegabyte;
    pass();
  }
  for (int i = 0; i < 50; ++i) pass();
  EXPECT_EQ(left(), 0.0);
}

TEST_F(PushMeterTest, knows_no_time_left_while_nothing_moves) {
  begin(1, 100 * kMegabyte);
  for (int i = 0; i < 25; ++i) pass();
  EXPECT_FALSE(left());
  for (int i = 0; i < 25; ++i) tick(kMegabyte);
  EXPECT_TRUE(left());
  for (int i = 0; i < 500; ++i) pass();
  EXPECT_FALSE(left());
}

}  // namespace
}  // namespace pkgdist::lead_program
