#include "rate_control.h"

#include <algorithm>
#include <cmath>

namespace pkgdist::lead {

namespace {

constexpr double kStartBits = 800e6;  // below what a gigabit link and one processor core can take
constexpr double kMinBits = 20e6;
constexpr double kDefaultMaxBits = 8e9;

constexpr double kSteepGain = 1.25;
constexpr double kGain = 1.03;
constexpr double kSlowGain = 1.004;
constexpr double kNearCeiling = 0.92;
// What was reached so nearly counts as tried; what is farther off than that is drawn near.
constexpr double kTried = 0.9;
constexpr double kReached = 0.8;

// A trial: the first periods still see requests for what was sent before the cut.
constexpr double kLossCut = 0.75;
constexpr int kTrialPeriods = 5;
constexpr int kTrialCounted = 3;
// A cut that leaves more than this share of the loss did not cure it.
constexpr double kUncured = 0.7;

// Loss above what is granted that is still taken for chance: a share of it and a fixed part. A
// single period shows more by chance than their mean does.
constexpr double kChanceShare = 0.4;
constexpr double kChanceLoss = 0.03;
constexpr double kChanceOnce = 0.1;
constexpr double kSmoothing = 0.25;
// What is granted follows better links quickly.
constexpr double kForget = 0.05;

// A file thread that answers later than this has a queue in front of it; once may be the node's
// scheduler.
constexpr double kDelayCut = 0.85;
// A queue that gets shorter by this in a period needs no further cut: its node is busy meanwhile.
constexpr Time kDraining = kMillisecond;
// The share of answers that may get lost is twice that of segments, within bounds.
constexpr double kMinAnswerLoss = 0.1;
constexpr double kMaxAnswerLoss = 0.6;
constexpr double kNoChance = 0.001;
constexpr int kDrainPeriods = 2;
constexpr int kLateInARow = 2;
constexpr Time kCongestedDelay = 8 * kMillisecond;
constexpr Time kHopelessDelay = 30 * kMillisecond;
constexpr Time kRelaxedDelay = 4 * kMillisecond;

}  // namespace

RateControl::RateControl(uint64_t max_bits)
    : max_(max_bits != 0 ? static_cast<double>(max_bits) : kDefaultMaxBits),
      rate_(std::min(kStartBits, max_)),
      proven_(rate_),
      ceiling_(max_) {}

void RateControl::follow(const Period& period) {
  if (!period.limited || period.sent_bits == 0 || period.sent_bits >= rate_ * kReached) return;
  starting_ = false;
  rate_ = std::clamp(period.sent_bits / kReached, std::min(kMinBits, rate_), rate_);
}

// Answers may be lost; so many in a row are not, by chance.
Time RateControl::delay_of(const Period& period) const {
  const double lost = std::clamp(2 * std::max(loss_, granted_), kMinAnswerLoss, kMaxAnswerLoss);
  const double limit = std::log(kNoChance) / std::log(lost);
  const bool silent = static_cast<double>(period.unanswered) >= limit;
  return silent ? std::max(period.delay, period.silence) : period.delay;
}

bool RateControl::congested(Time delay) {
  late_ = delay > kCongestedDelay ? late_ + 1 : 0;
  return late_ >= kLateInARow || delay > kHopelessDelay;
}

bool RateControl::lossy(const Period& period) const {
  const double chance = granted_ * (1 + kChanceShare) + kChanceLoss;
  return loss_ > chance || period.loss > chance + kChanceOnce;
}

void RateControl::cut_for_delay() {
  starting_ = false;
  late_ = 0;
  pause_ = kDrainPeriods;
  ceiling_ = rate_;
  proven_ = rate_ = std::max(kMinBits, rate_ * kDelayCut);
}

void RateControl::cut_for_loss() {
  starting_before_ = starting_;
  starting_ = false;
  loss_before_ = loss_;
  rate_before_ = rate_;
  ceiling_before_ = ceiling_;
  ceiling_ = rate_;
  proven_ = rate_ = std::max(kMinBits, rate_ * kLossCut);
  trial_periods_ = kTrialPeriods;
  trial_loss_ = 0;
  trial_counted_ = 0;
  trial_late_ = 0;
}

void RateControl::judge_cut() {
  loss_ = trial_loss_ / trial_counted_;
  if (loss_ < loss_before_ * kUncured || 2 * trial_late_ > trial_counted_) return;
  granted_ = std::max(granted_, loss_);
  proven_ = rate_ = rate_before_;
  ceiling_ = ceiling_before_;
  starting_ = starting_before_;
}

void RateControl::on_period(const Period& period) {
  loss_ += (period.loss - loss_) * kSmoothing;
  if (loss_ < granted_) granted_ += (loss_ - granted_) * kForget;
  follow(period);
  const Time delay = delay_of(period);
  const bool draining = delay != 0 && delay + kDraining < last_delay_;
  if (delay != 0) last_delay_ = delay;
  if (trial_periods_ > 0) {
    if (trial_periods_-- <= kTrialCounted) {
      trial_loss_ += period.loss;
      trial_late_ += delay > kCongestedDelay ? 1 : 0;
      ++trial_counted_;
    }
    if (trial_periods_ == 0) judge_cut();
    return;
  }
  if (pause_ > 0) {
    --pause_;
    return;
  }
  const bool late = congested(delay);
  if (late && !draining) return cut_for_delay();
  if (lossy(period)) return cut_for_loss();
  if (!late) rise(period, delay);
}

void RateControl::rise(const Period& period, Time delay) {
  const bool tried = period.sent_bits == 0 || period.sent_bits >= rate_ * kTried;
  // A question that is answered later than others may be behind a queue, or lost.
  const bool overdue = period.silence > last_delay_ + kPeriod / 2;
  if (!period.limited || !tried || overdue || delay > kRelaxedDelay) return;
  proven_ = std::max(proven_, std::max(period.sent_bits, rate_ * kTried));
  const bool near = rate_ > kNearCeiling * ceiling_;
  double next = rate_ * (near ? kSlowGain : kGain);
  if (!near && starting_) next = rate_ * kSteepGain;
  if (!near && rate_ < proven_) next = std::max(next, std::min(proven_, rate_ * kSteepGain));
  rate_ = std::min(max_, next);
}

}  // namespace pkgdist::lead
