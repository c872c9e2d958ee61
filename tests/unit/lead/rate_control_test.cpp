#include "rate_control.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

// A path with a capacity and loss of its own: what exceeds the capacity is lost, too.
struct Link {
  double capacity;
  double loss;

  RateControl::Period period(const RateControl& control) const {
    const auto rate = static_cast<double>(control.rate_bits());
    const double passed = std::min(1.0, capacity / rate) * (1 - loss);
    return {1 - passed, 0, true};
  }
};

double average_rate(RateControl& control, const Link& link, int periods) {
  double sum = 0;
  for (int i = 0; i < periods; ++i) {
    control.on_period(link.period(control));
    sum += static_cast<double>(control.rate_bits());
  }
  return sum / periods;
}

TEST(RateControl, settles_near_the_capacity) {
  RateControl control(0);
  const Link link{900e6, 0};
  average_rate(control, link, 200);
  const double rate = average_rate(control, link, 400);
  EXPECT_GT(rate, 0.7 * 900e6);
  EXPECT_LT(rate, 1.1 * 900e6);
}

class RandomLossRates : public testing::TestWithParam<double> {};

TEST_P(RandomLossRates, do_not_make_the_rate_collapse) {
  RateControl control(1'000'000'000);
  const Link link{10e9, GetParam()};
  average_rate(control, link, 100);
  EXPECT_GT(average_rate(control, link, 200), 0.8 * 1e9);
}

INSTANTIATE_TEST_SUITE_P(Loss, RandomLossRates, testing::Values(0.01, 0.05, 0.1, 0.2));

TEST(RateControl, falls_when_nodes_answer_late) {
  RateControl control(0);
  const uint64_t before = control.rate_bits();
  control.on_period({0, 200 * kMillisecond, true});
  EXPECT_LT(control.rate_bits(), before);
}

TEST(RateControl, does_not_rise_on_what_was_not_tried) {
  RateControl control(0);
  const uint64_t before = control.rate_bits();
  for (int i = 0; i < 100; ++i) control.on_period({0, 0, false});
  EXPECT_EQ(control.rate_bits(), before);
}

TEST(RateControl, keeps_below_its_ceiling) {
  RateControl control(500'000'000);
  for (int i = 0; i < 100; ++i) control.on_period({0, 0, true});
  EXPECT_EQ(control.rate_bits(), 500'000'000u);
}

}  // namespace
}  // namespace pkgdist::lead
