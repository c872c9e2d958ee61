// The adaptive rate of the data stream.
//
// The rate rises while nothing speaks against it: steeply until the first congestion, gently
// afterwards, and slowly from near where the last congestion began. While an answer is overdue it
// does not rise. Two things lower it. Nodes that answer late have a queue in front of them; that
// shows before anything is lost. Growing loss is the other, since some queues are too short to be
// felt. Loss that a lower rate does not cure is a property of the link: then the former rate is
// restored and that loss is taken for granted from there on, so that random loss, however high,
// does not make the rate collapse. But while nodes answer late, or not at all, loss is not taken
// for chance.
//
// A rate that the lead itself cannot reach is drawn near to what it does reach: otherwise the
// stream would jump to it, untried, as soon as the processor has time again. Up to what has been
// reached before it rises steeply, and not beyond.
#pragma once

#include <cstddef>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class RateControl {
 public:
  // What was seen in one period.
  struct Period {
    double loss = 0;        // of the node that lost most, share of what was sent
    Time delay = 0;         // longest time a node took to answer, 0 when no answer came
    bool limited = false;   // there was always something to send
    double sent_bits = 0;   // per second, what really left; 0 when that is not known
    size_t unanswered = 0;  // questions in a row that no node answered yet
    Time silence = 0;       // since the first of these
  };
  static constexpr Time kPeriod = 20 * kMillisecond;

  explicit RateControl(uint64_t max_bits);

  uint64_t rate_bits() const { return static_cast<uint64_t>(rate_); }
  void on_period(const Period& period);

 private:
  void follow(const Period& period);
  Time delay_of(const Period& period) const;
  bool congested(Time delay);
  bool lossy(const Period& period) const;
  void cut_for_delay();
  void cut_for_loss();
  void judge_cut();
  void rise(const Period& period, Time delay);

  double max_;
  double rate_;
  double loss_ = 0;     // smoothed
  double granted_ = 0;  // loss that is taken for granted
  double proven_;       // the highest rate since the last cut that nothing spoke against
  double ceiling_;      // where congestion began last
  bool starting_ = true;
  Time last_delay_ = 0;  // of the last period that had one
  int late_ = 0;         // periods in a row with late answers
  int pause_ = 0;        // periods in which the queues run empty after a cut

  // The trial after a cut for loss.
  int trial_periods_ = 0;  // left, 0: no trial
  double loss_before_ = 0;
  double rate_before_ = 0;
  double ceiling_before_ = 0;
  bool starting_before_ = false;
  double trial_loss_ = 0;  // sum over the periods that count
  int trial_counted_ = 0;
  int trial_late_ = 0;  // periods that count with late answers
};

}  // namespace pkgdist::lead
