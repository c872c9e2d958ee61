// Tells loss that the stream causes from loss that the network has anyway.
//
// Sockets and switches that are handed more than they hold lose whole runs, or much more than the
// link did before. When that is seen, the owner halves what is in flight, on trial. If the loss
// falls to less than half, the stream was its cause. If it does not, the loss is a property of the
// network: it is granted, and what was in flight before is right again.
//
// Only the segments that a node misses for the first time count, per node: the one that loses most
// decides. Evidence is a number of lost segments beyond what was to be expected, more than one
// whole batch that got lost by chance, so that much loss is judged within milliseconds and little
// loss when there is enough of it.
#pragma once

#include <vector>

#include "node_table.h"

namespace pkgdist::lead {

class OverrunJudge {
 public:
  enum class Verdict {
    kNone,
    kSuspected,  // halve
    kCured,      // stay there
    kGranted,    // go back
  };

  void sent(uint32_t segments) { sent_ += segments; }
  // A node missed a run of segments.
  void lost(NodeIndex node, uint32_t segments);
  // What follows from it, told once. `last_trial`: what is in flight is not halved once more when
  // that did not help, or not enough: a queue that is far too small needs several steps.
  Verdict judge(bool last_trial = true);
  // What is lost of the stream on the node that loses most, as far as that was granted.
  double granted() const { return granted_; }

 private:
  // A batch of datagrams that some links lose as a whole has up to 44; two are no chance.
  static constexpr double kEvidence = 64;
  // Loss above what is granted by half and this much is suspicious.
  static constexpr double kTolerated = 0.02;
  static constexpr double kGrantedAtFirst = 0.01;
  // Without a verdict after so many segments the counts begin anew: what was seen is too old.
  static constexpr double kMostSent = 20'000;

  void begin();
  double worst() const;

  double granted_ = kGrantedAtFirst;
  bool trial_ = false;
  double loss_before_ = 0;      // the trial
  double sent_ = 0;             // since the counts began
  std::vector<uint32_t> lost_;  // by node
};

}  // namespace pkgdist::lead
