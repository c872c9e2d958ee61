// A running estimate of the share of datagrams that a node loses, averaged over the nodes.
#pragma once

namespace pkgdist::lead {

class LossMeter {
 public:
  void sent(double datagrams) {
    sent_ += datagrams;
    if (sent_ < kWindow) return;
    sent_ /= 2;
    lost_ /= 2;
  }
  void lost(double datagrams) { lost_ += datagrams; }

  double loss() const { return lost_ / sent_; }

  // How often a file's information is sent, so that it rarely takes a node's time-out to get it.
  int info_copies() const {
    constexpr double kRare = 0.002;
    constexpr double kHigh = 0.03;
    return loss() < kRare ? 1 : loss() < kHigh ? 2 : 3;
  }

 private:
  // Datagrams over which the estimate forgets half.
  static constexpr double kWindow = 4000;
  // The start counts as this many datagrams with moderate loss: until it is known better, a second
  // copy of each information is cheap insurance.
  double sent_ = 300;
  double lost_ = 3;
};

}  // namespace pkgdist::lead
