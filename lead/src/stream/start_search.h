// Makes nodes ask for what they missed before they began with a file.
//
// A node counts from the first segment that it sees, and asks for a gap when it sees a segment
// beyond it, never for what lies before its first. Where it began nobody knows but itself: after an
// outage that can be anywhere. When it sees segments ahead of its first, marks, in rising order, it
// asks for the gaps between them; the last gap, up to its first segment, ends at no mark. There the
// marks get denser, until nothing is left.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "node_table.h"

namespace pkgdist::lead {

class StartSearch {
 public:
  explicit StartSearch(uint32_t segments) : segments_(segments) {}

  // What to send now, in this order, as first transmissions; good until the next call.
  const std::vector<uint32_t>& marks() {
    if (marks_.empty()) mark_from(0, segments_);
    for (const auto& [node, mark] : reached_) continue_after(mark);
    if (reached_.empty()) reached_.emplace_back(kNoNode, 0);
    return marks_;
  }

  // A node asked for `num` segments from `first` on. What it asks for because of marks is what lies
  // between two of them.
  void asked(NodeIndex node, uint32_t first, uint32_t num) {
    const uint32_t end = first + num;
    if (!is_mark(end) || (first != 0 && !is_mark(first - 1))) return;
    const auto known = std::find_if(reached_.begin(), reached_.end(),
                                    [&](const auto& reached) { return reached.first == node; });
    if (known == reached_.end())
      reached_.emplace_back(node, end);
    else
      known->second = std::max(known->second, end);
  }

 private:
  // Each gap is this part of the way from where the node is known to be.
  static constexpr uint32_t kPart = 4;
  // A crowd of nodes that began everywhere is better served with the whole file.
  static constexpr size_t kMaxMarks = 1024;

  bool is_mark(uint32_t segment) const {
    return std::binary_search(marks_.begin(), marks_.end(), segment);
  }

  // Marks in from .. to-1: a few that leave no gap, then fewer and fewer. A node that began ahead
  // of the first gap says nothing.
  void mark_from(uint32_t from, uint32_t to) {
    for (uint64_t at = from; at < to && marks_.size() < kMaxMarks;
         at += std::max<uint64_t>(1, (at - from) / kPart))
      marks_.push_back(static_cast<uint32_t>(at));
    std::sort(marks_.begin(), marks_.end());
    marks_.erase(std::unique(marks_.begin(), marks_.end()), marks_.end());
  }

  // Where marks follow one another the node has come to the last of them.
  void continue_after(uint32_t mark) {
    uint32_t from = mark + 1;
    auto next = std::lower_bound(marks_.begin(), marks_.end(), from);
    for (; next != marks_.end() && *next == from; ++next) ++from;
    mark_from(from, next != marks_.end() ? *next : segments_);
  }

  uint32_t segments_;
  std::vector<uint32_t> marks_;  // sorted, each once
  // The last mark that a node is known to have come to; all come to the first one.
  std::vector<std::pair<NodeIndex, uint32_t>> reached_;
};

}  // namespace pkgdist::lead
