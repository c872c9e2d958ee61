// A running estimate of the share of datagrams that a node loses, averaged over the nodes.
#pragma once

#include <algorithm>
#include <cstdint>

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

  double loss() const { return std::min(1.0, lost_ / sent_); }
  // Whether nearly all nodes get so many datagrams without a loss.
  bool arrives_whole(uint32_t datagrams) const { return loss() * datagrams < 0.2; }

  // How often a file's information is sent. A node that misses all copies has to get the file, or
  // the beginning of a large one, again: as many as cost less than that does on average.
  int info_copies(uint32_t nodes, uint64_t file_bytes) const {
    // What one costs, in bytes of content: it has 150, but hosts spend a third of the time on it
    // that they spend on a full datagram.
    constexpr double kInfoBytes = 500;
    constexpr double kSoonInformedAgain = 256.0 * 1400;  // bytes of a large file
    constexpr int kMostCopies = 6;
    const double bytes = std::min(static_cast<double>(file_bytes), kSoonInformedAgain);
    double missing = loss() * nodes;  // nodes that miss all
    int copies = 1;
    for (; copies < kMostCopies && missing * bytes > kInfoBytes; ++copies) missing *= loss();
    return copies;
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
