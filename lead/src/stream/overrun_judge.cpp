#include "stream/overrun_judge.h"

#include <algorithm>

namespace pkgdist::lead {

void OverrunJudge::lost(NodeIndex node, uint32_t segments) {
  if (node >= lost_.size()) lost_.resize(node + size_t{1});
  lost_[node] += segments;
}

double OverrunJudge::worst() const {
  return lost_.empty() ? 0 : *std::max_element(lost_.begin(), lost_.end());
}

void OverrunJudge::begin() {
  sent_ = 0;
  std::fill(lost_.begin(), lost_.end(), 0u);
}

OverrunJudge::Verdict OverrunJudge::judge(bool last_trial) {
  const double lost = worst();
  const double expected = sent_ * (trial_ ? loss_before_ / 2 : 1.5 * granted_ + kTolerated);
  const bool more = lost > expected + kEvidence;
  const bool less = lost + kEvidence < expected;
  const bool old = sent_ > kMostSent;
  const double loss = sent_ > 0 ? std::min(1.0, lost / sent_) : 0;
  if (!trial_) {
    if (more) {
      trial_ = true;
      loss_before_ = loss;
    }
    if (more || old) begin();
    return more ? Verdict::kSuspected : Verdict::kNone;
  }
  if (!more && !less && !old) return Verdict::kNone;
  if (more && !last_trial) {
    begin();
    return Verdict::kSuspected;
  }
  trial_ = false;
  if (more) granted_ = std::max(granted_, loss);
  begin();
  return more ? Verdict::kGranted : Verdict::kCured;
}

}  // namespace pkgdist::lead
