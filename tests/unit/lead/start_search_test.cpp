#include "stream/start_search.h"

#include <gtest/gtest.h>

#include <set>

namespace pkgdist::lead {
namespace {

// Begins with a segment in the middle and has everything from there on. Returns the rounds of marks
// until it has the rest, all of it asked for or sent as a mark.
class Joiner {
 public:
  Joiner(NodeIndex node, uint32_t first) : node_(node), first_(first), last_(UINT32_MAX) {}

  void see(StartSearch& search, uint32_t mark) {
    if (mark >= first_ || !have_.insert(mark).second) return;
    const uint32_t expected = last_ + 1;
    last_ = std::max(last_ + 1, mark + 1) - 1;
    if (mark <= expected) return;
    uint32_t from = expected;
    for (uint32_t k = expected; k <= mark; ++k) {
      if (!have_.contains(k)) continue;
      if (k > from) search.asked(node_, from, k - from);
      from = k + 1;
    }
    for (uint32_t k = expected; k < mark; ++k) have_.insert(k);
  }
  bool complete() const { return have_.size() == first_; }

 private:
  NodeIndex node_;
  uint32_t first_;
  uint32_t last_;
  std::set<uint32_t> have_;
};

TEST(StartSearch, a_node_asks_for_all_before_its_first_segment_within_eight_rounds) {
  for (const uint32_t segments : {65u, 255u, 256u, 14'286u, 383'479u})
    for (const uint32_t first : {1u, 2u, 16u, 17u, segments / 3, segments - 2, segments - 1}) {
      StartSearch search(segments);
      Joiner node(3, first);
      int rounds = 0;
      while (!node.complete() && rounds < 10) {
        ++rounds;
        for (const uint32_t mark : search.marks()) node.see(search, mark);
      }
      EXPECT_LE(rounds, 8) << first << " of " << segments;
      EXPECT_LE(search.marks().size(), 300u);
    }
}

TEST(StartSearch, nodes_that_began_at_different_places_are_found_together) {
  StartSearch search(100'000);
  std::vector<Joiner> nodes;
  for (NodeIndex i = 0; i < 8; ++i) nodes.emplace_back(i, 12'345 * i + 7);
  for (int round = 0; round < 8; ++round)
    for (const uint32_t mark : search.marks())
      for (Joiner& node : nodes) node.see(search, mark);
  for (const Joiner& node : nodes) EXPECT_TRUE(node.complete());
}

TEST(StartSearch, only_requests_for_what_lies_between_two_marks_count) {
  StartSearch search(100'000);
  StartSearch other(100'000);
  const std::vector<uint32_t> marks = search.marks();
  other.marks();
  search.asked(0, marks[30] + 1, marks[31] - marks[30]);
  search.asked(0, marks[30] + 2, marks[31] - marks[30] - 2);
  search.asked(0, 99'999, 1);
  EXPECT_EQ(search.marks(), other.marks());
}

TEST(StartSearch, the_marks_of_a_crowd_have_a_limit) {
  StartSearch search(10'000'000);
  std::vector<uint32_t> marks = search.marks();
  for (int round = 0; round < 10; ++round) {
    NodeIndex node = 0;
    for (const uint32_t mark : marks) search.asked(node++, 0, mark);
    marks = search.marks();
  }
  EXPECT_LE(marks.size(), 1024u);
}

}  // namespace
}  // namespace pkgdist::lead
