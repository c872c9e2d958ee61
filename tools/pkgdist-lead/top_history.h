// The last minute of a push, for plots, and what of each node is new in it.
#pragma once

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

#include "push_state.h"

namespace pkgdist::lead_program {

class TopHistory {
 public:
  static constexpr double kSeconds = 60;

  // How the push stands; at any intervals, seconds of the push rising. Another push begins anew.
  void add(const PushState& state);

  // Over the last minute in so many steps, the latest last: content that arrived on a node on
  // average (bits per second), and repairs sent per second. Before the push they are 0.
  std::vector<double> goodput_bits(size_t steps) const;
  std::vector<double> repairs(size_t steps) const;

  // Segments that the node asked for again, per second of the last seconds.
  double repair_rate(uint32_t address) const;

 private:
  struct Sample {
    double seconds = 0;
    double bytes = 0;  // arrived on a node on average
    double repairs = 0;
  };
  struct Node {
    uint64_t repairs = 0;
    double rate = 0;
  };
  template <class Value>
  std::vector<double> rates(size_t steps, Value&& value) const;

  uint32_t transaction_ = 0;
  std::deque<Sample> samples_;
  std::unordered_map<uint32_t, Node> nodes_;
};

}  // namespace pkgdist::lead_program
