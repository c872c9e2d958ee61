// The lines of a push on terminals of several sizes.
#include "push_bars.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace pkgdist::lead_program {
namespace {

PushState state_of(size_t nodes) {
  PushState state;
  state.files = 12'345;
  state.bytes = 1'000'000;
  state.nodes_in_all = nodes;
  state.rate_bits = 123.4e6;
  state.repair_share = 0.123;
  state.seconds_left = 12'345;
  for (size_t i = 0; i < nodes; ++i) {
    NodeState& node = state.nodes.emplace_back();
    node.address = 0x0A000001 + static_cast<uint32_t>(i);
    node.heard = true;
    node.share = 0.5;
    node.rate = 123e6;
    node.files_done = 12'000;
    node.repairs = 1'234'567;
    node.repair_ratio = 0.999;
  }
  return state;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + '\n';
  return text;
}

size_t lines_with(const std::vector<std::string>& lines, const std::string& part) {
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
    return line.find(part) != std::string::npos;
  }));
}

TEST(PushBars, fit_every_screen) {
  for (const size_t nodes : {0, 1, 3, 300})
    for (const size_t rows : {1, 2, 5, 10, 24, 60})
      for (size_t columns = 1; columns < 240; ++columns) {
        PushState state = state_of(nodes);
        if (nodes > 0) state.nodes[0].seconds_since_heard = 12'345;
        const auto lines = bar_lines(state, {columns, rows, true});
        for (const std::string& line : lines) EXPECT_LT(columns_of(line), columns) << line;
        EXPECT_LE(lines.size() + 1, std::max<size_t>(rows, 3)) << rows;
      }
}

TEST(PushBars, say_as_much_of_a_node_as_there_is_room_for) {
  const PushState state = state_of(1);
  EXPECT_EQ(bar_lines(state, {40, 24})[0], "10.0.0.1         50.0%       123.0 MB/s");
  const std::string usual = bar_lines(state, {80, 24})[0];
  EXPECT_NE(usual.find("[####"), std::string::npos) << usual;
  EXPECT_NE(usual.find("12000/12345 files"), std::string::npos) << usual;
  const std::string wide = bar_lines(state, {200, 24})[0];
  EXPECT_NE(wide.find("99.9 % repairs"), std::string::npos) << wide;
  EXPECT_NE(wide.find("1234567 segments"), std::string::npos) << wide;
}

TEST(PushBars, columns_stand_below_each_other) {
  PushState state = state_of(3);
  state.nodes[1].address = 0xFFFFFFFF;
  state.nodes[1].repairs = 3;
  state.nodes[2].ended = true;
  state.nodes[2].files_done = 5;
  for (const size_t columns : {60, 80, 100, 200}) {
    const auto lines = bar_lines(state, {columns, 24});
    EXPECT_EQ(lines[0].find(']'), lines[1].find(']'));
    EXPECT_EQ(lines[0].find(']'), lines[2].find(']'));
    EXPECT_EQ(lines[0].size(), lines[2].size()) << lines[0] << '\n' << lines[2];
  }
}

TEST(PushBars, mark_a_node_that_was_not_heard_for_two_seconds) {
  PushState state = state_of(1);
  state.nodes[0].seconds_since_heard = 1.9;
  EXPECT_EQ(lines_with(bar_lines(state, {40, 10}), "ago"), 0u);
  state.nodes[0].seconds_since_heard = 2.1;
  EXPECT_EQ(lines_with(bar_lines(state, {40, 10}), "heard 2 s ago"), 1u);
  EXPECT_EQ(lines_with(bar_lines(state, {40, 10}), "1 not heard"), 1u);
  state.nodes[0].ended = true;
  EXPECT_EQ(lines_with(bar_lines(state, {40, 10}), "ago"), 0u) << "nothing is expected of it";
}

TEST(PushBars, show_the_troubled_and_the_slowest_when_not_all_fit) {
  PushState state = state_of(50);
  for (size_t i = 0; i < 50; ++i) state.nodes[i].share = 0.5 + static_cast<double>(i) / 200;
  state.nodes[49].files_failed = 2;
  state.nodes[48].seconds_since_heard = 3;
  state.nodes[0].ended = true;
  state.nodes[0].share = 1;
  const auto lines = bar_lines(state, {80, 10, true});
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_EQ(lines_with(lines, "10.0.0.50 "), 1u) << joined(lines);
  EXPECT_EQ(lines_with(lines, "10.0.0.49 "), 1u) << joined(lines);
  EXPECT_EQ(lines_with(lines, "10.0.0.1 "), 0u) << joined(lines);
  for (const char* slow : {"10.0.0.2 ", "10.0.0.3 ", "10.0.0.4 ", "10.0.0.5 ", "10.0.0.6 "})
    EXPECT_EQ(lines_with(lines, slow), 1u) << joined(lines);
  EXPECT_EQ(lines[7].substr(0, 11), "and 43 more");
}

TEST(PushBars, the_rest_is_a_histogram_of_what_has_arrived) {
  PushState state = state_of(9);
  for (size_t i = 0; i < 9; ++i) state.nodes[i].share = i < 8 ? 0.1 : 1;
  std::vector<const NodeState*> nodes;
  for (const NodeState& node : state.nodes) nodes.push_back(&node);
  EXPECT_EQ(histogram(nodes, 4, false), "#  .");
  EXPECT_EQ(histogram(nodes, 4, true), "\u2588  \u2581");
}

TEST(PushBars, what_is_not_whole_does_not_look_whole) {
  PushState state = state_of(2);
  state.nodes[0].share = 0.99999;
  state.nodes[1].share = 1;
  state.nodes[1].ended = true;
  const auto lines = bar_lines(state, {80, 24});
  EXPECT_NE(lines[0].find("99.9%"), std::string::npos);
  EXPECT_NE(lines[1].find("100.0%"), std::string::npos);
}

}  // namespace
}  // namespace pkgdist::lead_program
