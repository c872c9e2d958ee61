#include "rate_control.h"

namespace pkgdist::lead {

namespace {

constexpr double kStartBits = 400e6;  // below what a gigabit link and one processor core can take
constexpr double kMinBits = 20e6;
constexpr double kDefaultMaxBits = 8e9;

constexpr double kStartGain = 1.25;
constexpr double kGain = 1.04;
constexpr double kCut = 0.75;

// A trial: the first periods still see requests for what was sent before the cut.
constexpr int kTrialPeriods = 4;
constexpr int kTrialCounted = 2;
// A cut that leaves more than this share of the loss did not cure it.
constexpr double kUncured = 0.7;

// Loss above what is granted that is still taken for chance: a share of it and a fixed part.
constexpr double kChanceShare = 0.4;
constexpr double kChanceLoss = 0.03;
// What is granted follows better links quickly.
constexpr double kForget = 0.1;

// A file thread that answers later than this has a queue in front of it.
constexpr Time kCongestedDelay = 60 * kMillisecond;
constexpr Time kRelaxedDelay = 30 * kMillisecond;

}  // namespace

RateControl::RateControl(uint64_t max_bits)
    : max_(max_bits != 0 ? static_cast<double>(max_bits) : kDefaultMaxBits),
      rate_(std::min(kStartBits, max_)) {}

void RateControl::cut(double loss, bool for_loss) {
  starting_ = false;
  cut_for_loss_ = for_loss;
  loss_before_ = loss;
  rate_before_ = rate_;
  rate_ = std::max(kMinBits, rate_ * kCut);
  trial_periods_ = kTrialPeriods;
  trial_loss_ = 0;
  trial_counted_ = 0;
}

void RateControl::judge_cut() {
  const double loss = trial_loss_ / trial_counted_;
  if (!cut_for_loss_ || loss < loss_before_ * kUncured) return;
  granted_ = std::max(granted_, loss);
  rate_ = rate_before_;
}

void RateControl::on_period(const Period& period) {
  if (period.loss < granted_) granted_ += (period.loss - granted_) * kForget;
  if (trial_periods_ > 0) {
    if (trial_periods_-- <= kTrialCounted) {
      trial_loss_ += period.loss;
      ++trial_counted_;
    }
    if (trial_periods_ == 0) judge_cut();
    return;
  }
  if (period.delay > kCongestedDelay) return cut(period.loss, false);
  if (period.loss > granted_ * (1 + kChanceShare) + kChanceLoss) return cut(period.loss, true);
  if (!period.limited || period.delay > kRelaxedDelay) return;
  rate_ = std::min(max_, rate_ * (starting_ ? kStartGain : kGain));
}

}  // namespace pkgdist::lead
