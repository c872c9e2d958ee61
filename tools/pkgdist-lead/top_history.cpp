#include "top_history.h"

#include <algorithm>
#include <cmath>

namespace pkgdist::lead_program {

namespace {

// Age at which a node's repairs weigh a third of new ones.
constexpr double kRateSeconds = 5;

}  // namespace

void TopHistory::add(const PushState& state) {
  if (state.transaction != transaction_) *this = {};
  transaction_ = state.transaction;
  const double before = samples_.empty() ? 0 : samples_.back().seconds;
  const double passed = state.seconds - before;
  if (!samples_.empty() && passed <= 0) return;
  double bytes = 0;
  for (const NodeState& node : state.nodes) {
    bytes += static_cast<double>(node.bytes);
    Node& one = nodes_[node.address];
    const double rate =
        passed > 0
            ? static_cast<double>(node.repairs - std::min(node.repairs, one.repairs)) / passed
            : 0;
    const double kept = std::exp(-passed / kRateSeconds);
    one.rate = one.rate * kept + rate * (1 - kept);
    one.repairs = node.repairs;
  }
  const double nodes = std::max<double>(1, static_cast<double>(state.nodes.size()));
  samples_.push_back({state.seconds, bytes / nodes, static_cast<double>(state.repairs_sent)});
  // One from before the minute stays: rates begin there.
  while (samples_.size() > 2 && samples_[1].seconds < state.seconds - kSeconds)
    samples_.pop_front();
}

// What grew between two samples has grown evenly between them.
template <class Value>
std::vector<double> TopHistory::rates(size_t steps, Value&& value) const {
  std::vector<double> out(steps);
  if (samples_.size() < 2) return out;
  const double width = kSeconds / static_cast<double>(steps);
  const double begin = samples_.back().seconds - kSeconds;
  for (size_t i = 1; i < samples_.size(); ++i) {
    const Sample& from = samples_[i - 1];
    const Sample& to = samples_[i];
    const double rate = std::max(0.0, value(to) - value(from)) / (to.seconds - from.seconds);
    const auto step_of = [&](double seconds) {
      return std::clamp((seconds - begin) / width, 0.0, static_cast<double>(steps));
    };
    const double first = step_of(from.seconds), last = step_of(to.seconds);
    for (auto step = static_cast<size_t>(first); step < steps && static_cast<double>(step) < last;
         ++step) {
      const auto left = static_cast<double>(step);
      out[step] += rate * (std::min(last, left + 1) - std::max(first, left));
    }
  }
  return out;
}

std::vector<double> TopHistory::goodput_bits(size_t steps) const {
  return rates(steps, [](const Sample& sample) { return sample.bytes * 8; });
}

std::vector<double> TopHistory::repairs(size_t steps) const {
  return rates(steps, [](const Sample& sample) { return sample.repairs; });
}

double TopHistory::repair_rate(uint32_t address) const {
  const auto found = nodes_.find(address);
  return found != nodes_.end() ? found->second.rate : 0;
}

}  // namespace pkgdist::lead_program
