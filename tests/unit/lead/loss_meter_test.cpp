#include "stream/loss_meter.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

constexpr uint64_t kLarge = 100'000'000;

// A meter that has seen so much loss for long.
LossMeter meter_of(double loss) {
  LossMeter meter;
  for (int i = 0; i < 100'000; ++i) {
    meter.sent(1);
    meter.lost(loss);
  }
  return meter;
}

TEST(LossMeter, begins_with_a_percent) {
  EXPECT_NEAR(LossMeter().loss(), 0.01, 1e-9);
}

TEST(LossMeter, comes_to_the_loss_that_there_is) {
  for (double loss : {0.0, 0.002, 0.1, 0.5})
    EXPECT_NEAR(meter_of(loss).loss(), loss, 0.02 * loss + 1e-9) << loss;
}

TEST(LossMeter, forgets_within_some_thousands_of_datagrams) {
  LossMeter meter = meter_of(0.5);
  for (int i = 0; i < 20; ++i) meter.sent(1000);
  EXPECT_LT(meter.loss(), 0.01);
}

TEST(LossMeter, is_never_more_than_everything) {
  LossMeter meter;
  meter.lost(1e6);
  EXPECT_EQ(meter.loss(), 1.0);
}

TEST(LossMeter, one_information_is_enough_when_nothing_gets_lost) {
  const LossMeter meter = meter_of(0);
  for (uint32_t nodes : {1u, 1000u}) EXPECT_EQ(meter.info_copies(nodes, kLarge), 1);
}

TEST(LossMeter, a_second_information_insures_a_large_file_before_anything_is_known) {
  EXPECT_EQ(LossMeter().info_copies(1, kLarge), 2);
  EXPECT_EQ(LossMeter().info_copies(1, 10'000), 1);
}

// A second copy costs as much as 500 bytes of content, and saves the file's bytes for each node
// that misses the first.
TEST(LossMeter, copies_are_sent_while_they_cost_less_than_they_save) {
  const LossMeter meter = meter_of(0.1);
  EXPECT_EQ(meter.info_copies(1, 4'900), 1);
  EXPECT_EQ(meter.info_copies(1, 5'100), 2);
  EXPECT_EQ(meter.info_copies(1, 49'000), 2);
  EXPECT_EQ(meter.info_copies(1, 51'000), 3);
}

TEST(LossMeter, more_nodes_and_more_loss_take_more_copies) {
  const LossMeter meter = meter_of(0.1);
  EXPECT_EQ(meter.info_copies(10, 2'000), 2);
  EXPECT_EQ(meter.info_copies(100, 2'000), 3);
  EXPECT_GT(meter_of(0.3).info_copies(10, 2'000), meter.info_copies(10, 2'000));
  EXPECT_LT(meter_of(0.01).info_copies(10, 2'000), meter.info_copies(10, 2'000));
}

TEST(LossMeter, a_large_file_is_worth_no_more_than_its_beginning) {
  const LossMeter meter = meter_of(0.1);
  EXPECT_EQ(meter.info_copies(1, 360'000), meter.info_copies(1, uint64_t{4} << 30));
}

TEST(LossMeter, six_copies_at_most) {
  EXPECT_EQ(meter_of(0.9).info_copies(1000, kLarge), 6);
  EXPECT_EQ(meter_of(1).info_copies(1, kLarge), 6);
}

}  // namespace
}  // namespace pkgdist::lead
