#include "stream/arrival.h"

#include <algorithm>

namespace pkgdist::lead {

void Arrival::joins(NodeIndex node, uint64_t position) {
  One& one = at(node);
  if (one.joined != kNone) return;
  one.joined = one.arrived = one.turned = position;
}

void Arrival::answers(NodeIndex node, uint64_t asked, uint64_t position) {
  One& one = at(node);
  const uint64_t lacking = one.lacking + one.lacking_before;
  if (asked > lacking) one.arrived = std::max(one.arrived, asked - lacking);
  if (asked < one.turned) return;
  one.lacking_before = one.lacking;
  one.lacking = 0;
  one.turned = position;
}

void Arrival::reached(NodeIndex node, uint64_t position) {
  One& one = at(node);
  one.arrived = std::max(one.arrived, position);
}

void Arrival::lacks(NodeIndex node, uint64_t bytes) {
  at(node).lacking += bytes;
}

void Arrival::forget(NodeIndex node) {
  at(node) = {};
}

// The stream of a file may be interleaved with other traffic, which is spread evenly over it.
uint64_t Arrival::segments(const Transfer& transfer, NodeIndex node) const {
  if (node >= nodes_.size() || transfer.streamed == 0) return 0;
  const One& one = nodes_[node];
  const uint64_t begin = std::max(transfer.stream_begin, std::min(one.joined, transfer.stream_end));
  const uint64_t end = std::min(one.arrived, transfer.stream_end);
  if (end <= begin) return 0;
  const double share = static_cast<double>(end - begin) /
                       static_cast<double>(transfer.stream_end - transfer.stream_begin);
  const auto segments = static_cast<uint64_t>(share * static_cast<double>(transfer.streamed));
  // Whole is what the node reports as whole.
  return std::min<uint64_t>(segments, transfer.segments - 1);
}

bool Arrival::poll_due(uint64_t position, Time now) const {
  return busy_.count() > Window::kMaxPolled && elapsed(now, polled_) >= kPeriod &&
         position >= polled_at_ + kLeastStream;
}

const std::vector<NodeIndex>& Arrival::begin_poll(TransferId number, uint64_t position, Time now) {
  named_.clear();
  const NodeIndex first = next_node_;
  for (NodeIndex seen = 0; seen < busy_.end() && named_.size() < kNamed; ++seen) {
    const NodeIndex node = (first + seen) % busy_.end();
    if (!busy_.contains(node)) continue;
    named_.push_back(node);
    next_node_ = node + 1;
  }
  polls_[next_] = {number, position};
  next_ = (next_ + 1) % polls_.size();
  polled_at_ = position;
  polled_ = now;
  return named_;
}

bool Arrival::answered(TransferId number, NodeIndex node, uint64_t position) {
  const auto poll = std::find_if(polls_.begin(), polls_.end(), [&](const Poll& one) {
    return number != kNoTransfer && one.number == number;
  });
  if (poll == polls_.end()) return false;
  answers(node, poll->position, position);
  return true;
}

}  // namespace pkgdist::lead
