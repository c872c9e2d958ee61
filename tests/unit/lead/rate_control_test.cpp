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

TEST(RateControl, one_answer_that_is_a_little_late_is_chance) {
  RateControl control(0);
  const uint64_t before = control.rate_bits();
  control.on_period({0, 20 * kMillisecond, true});
  EXPECT_EQ(control.rate_bits(), before);
  control.on_period({0, 20 * kMillisecond, true});
  EXPECT_LT(control.rate_bits(), before);
}

TEST(RateControl, falls_when_nobody_answers_any_more) {
  RateControl control(0);
  RateControl::Period period{0, 0, true, 0, 2, 40 * kMillisecond};
  const uint64_t before = control.rate_bits();
  control.on_period(period);  // two answers may get lost
  EXPECT_GE(control.rate_bits(), before);
  const uint64_t risen = control.rate_bits();
  period.unanswered = 3;
  period.silence = 60 * kMillisecond;
  control.on_period(period);
  EXPECT_LT(control.rate_bits(), risen);
}

TEST(RateControl, loss_with_late_answers_is_not_taken_for_chance) {
  RateControl control(0);
  for (int i = 0; i < 5; ++i) control.on_period({0, kMillisecond, true});
  const uint64_t before = control.rate_bits();
  for (int i = 0; i < 30; ++i) control.on_period({0.3, 14 * kMillisecond, true});
  EXPECT_LT(control.rate_bits(), before / 2);
}

TEST(RateControl, a_queue_that_drains_is_waited_for) {
  RateControl control(0);
  control.on_period({0, 320 * kMillisecond, true});
  const uint64_t cut = control.rate_bits();
  for (Time delay = 315; delay > 0; delay -= 5) control.on_period({0, delay * kMillisecond, true});
  EXPECT_GE(control.rate_bits(), cut);
}

// A node that writes at its own speed, behind a buffer that holds so much time of it.
struct SlowNode {
  double speed;
  double buffer_seconds;
  double queued = 0;  // seconds
  double lost = 0;    // bits
  double taken = 0;

  RateControl::Period period(const RateControl& control) {
    const double seconds = static_cast<double>(RateControl::kPeriod) / kSecond;
    const double sent = static_cast<double>(control.rate_bits()) * seconds;
    queued = std::max(0.0, queued + sent / speed - seconds);
    const double over = std::max(0.0, queued - buffer_seconds) * speed;
    queued = std::min(queued, buffer_seconds);
    lost += over;
    taken += sent - over;
    return {over / sent, static_cast<Time>(queued * kSecond) + 1, true, sent / seconds};
  }
};

TEST(RateControl, keeps_a_queue_short_before_it_overflows) {
  RateControl control(0);
  SlowNode node{1.5e9, 0.05};
  for (int i = 0; i < 50; ++i) control.on_period(node.period(control));
  node.lost = node.taken = 0;
  for (int i = 0; i < 500; ++i) control.on_period(node.period(control));
  EXPECT_EQ(node.lost, 0);
  EXPECT_GT(node.taken / 10, 0.85 * node.speed);  // in 10 s
}

TEST(RateControl, is_drawn_near_to_what_the_lead_reaches) {
  RateControl control(0);
  for (int i = 0; i < 100; ++i) {
    const double sent = std::min(1e9, static_cast<double>(control.rate_bits()));
    control.on_period({0, kMillisecond, true, sent});
  }
  EXPECT_GE(control.rate_bits(), 1'000'000'000u);
  EXPECT_LE(control.rate_bits(), 1'300'000'000u);
}

TEST(RateControl, comes_back_at_once_to_what_was_reached_before_the_lead_was_held_up) {
  RateControl control(0);
  const auto run = [&](double reachable, int periods) {
    for (int i = 0; i < periods; ++i)
      control.on_period(
          {0, kMillisecond, true, std::min(reachable, static_cast<double>(control.rate_bits()))});
  };
  run(2e9, 50);
  run(2e8, 3);
  ASSERT_LT(control.rate_bits(), 300'000'000u);
  run(2e9, 10);
  EXPECT_GT(control.rate_bits(), 1'600'000'000u);
}

// Behind a queue that grows an answer is late before it says so.
TEST(RateControl, does_not_rise_while_an_answer_is_overdue) {
  RateControl control(0);
  control.on_period({0, kMillisecond, true});
  const uint64_t before = control.rate_bits();
  control.on_period({0, 0, true, 0, 1, 20 * kMillisecond});
  EXPECT_EQ(control.rate_bits(), before);
  control.on_period({0, kMillisecond, true});
  EXPECT_GT(control.rate_bits(), before);
}

TEST(RateControl, goes_gently_beyond_what_was_reached_before) {
  RateControl control(0);
  const auto run = [&](double reachable) {
    const auto rate = static_cast<double>(control.rate_bits());
    control.on_period({0, kMillisecond, true, std::min(reachable, rate)});
  };
  for (int i = 0; i < 50; ++i) run(2e9);
  for (int i = 0; i < 3; ++i) run(2e8);
  for (int i = 0; i < 30; ++i) {
    const double limit = std::max(static_cast<double>(control.rate_bits()) * 1.04, 2.5e9);
    run(1e10);
    EXPECT_LE(static_cast<double>(control.rate_bits()), limit);
  }
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
