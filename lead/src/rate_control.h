// The adaptive rate of the data stream.
//
// The rate rises while nothing speaks against it: steeply until the first congestion, gently
// afterwards. Growing loss or a growing delay between a question to a node's file thread and its
// answer lower it. Loss that a lower rate does not cure is a property of the link: then the former
// rate is restored and that loss is taken for granted from there on, so that random loss, however
// high, does not make the rate collapse.
#pragma once

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class RateControl {
 public:
  // What was seen in one period.
  struct Period {
    double loss = 0;       // of the node that lost most, share of what was sent
    Time delay = 0;        // longest time a node took to answer, 0 when nothing was asked
    bool limited = false;  // the rate, not the content, was what limited the stream
  };
  static constexpr Time kPeriod = 50 * kMillisecond;

  explicit RateControl(uint64_t max_bits);

  uint64_t rate_bits() const { return static_cast<uint64_t>(rate_); }
  void on_period(const Period& period);

 private:
  void cut(double loss, bool for_loss);
  void judge_cut();

  double max_;
  double rate_;
  double granted_ = 0;  // loss that is taken for granted
  bool starting_ = true;

  // The trial after a cut.
  int trial_periods_ = 0;  // left, 0: no trial
  bool cut_for_loss_ = false;
  double loss_before_ = 0;
  double rate_before_ = 0;
  double trial_loss_ = 0;  // sum over the periods that count
  int trial_counted_ = 0;
};

}  // namespace pkgdist::lead
