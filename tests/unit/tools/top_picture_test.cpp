// What the full-screen view of a push shows, without a terminal.
#include "top_picture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace pkgdist::lead_program {
namespace {

PushState state_of(size_t nodes) {
  PushState state;
  state.transaction = 2147483650;
  state.files = 124;
  state.bytes = 1'000'000;
  state.nodes_in_all = nodes;
  state.rate_bits = 94.1e6;
  for (size_t i = 0; i < nodes; ++i) {
    NodeState& node = state.nodes.emplace_back();
    node.address = 0x0AC80001 + static_cast<uint32_t>(i);  // 10.200.0.1
    node.heard = true;
    node.share = static_cast<double>(i) / static_cast<double>(nodes);
    node.rate = 12e6;
  }
  return state;
}

std::string text_of(const Line& line) {
  std::string text;
  for (const Span& span : line) text += span.text;
  return text;
}

class TopPicture : public testing::Test {
 protected:
  std::vector<std::string> lines(const Screen& screen = {80, 24}) {
    std::vector<std::string> all;
    for (const Line& line : top_picture(state, history, settings, screen))
      all.push_back(text_of(line));
    return all;
  }
  size_t count(const std::string& part) {
    const auto all = lines();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const auto& line) {
      return line.find(part) != std::string::npos;
    }));
  }
  // What stands in the cells, one after the other.
  std::string cells(const Screen& screen = {80, 24}) {
    std::string all;
    const auto shown = lines(screen);
    for (size_t row = 2; row + 2 < shown.size(); ++row)
      all += cut(shown[row], cells_in_row(screen));
    return all;
  }

  PushState state = state_of(1000);
  TopHistory history;
  TopSettings settings;
};

TEST_F(TopPicture, has_a_cell_for_each_of_a_thousand_nodes_in_80_columns_and_24_rows) {
  const std::string shown = cells();
  ASSERT_EQ(shown.size(), 1000u);
  for (char digit = '0'; digit <= '9'; ++digit)
    EXPECT_EQ(std::count(shown.begin(), shown.end(), digit), 100) << digit;
}

TEST_F(TopPicture, fits_every_screen) {
  state.nodes[5].seconds_since_heard = 1e6;
  settings.chosen = state.nodes[7].address;
  settings.last = std::string(300, 'x');
  for (size_t rows = 1; rows < 60; rows += 3)
    for (size_t columns = 1; columns < 220; columns += 3) {
      const auto shown = lines({columns, rows, true});
      EXPECT_LE(shown.size(), rows);
      for (const std::string& line : shown) EXPECT_LE(columns_of(line), columns) << line;
    }
}

TEST_F(TopPicture, several_nodes_in_one_cell_show_the_worst) {
  state = state_of(4000);
  for (NodeState& node : state.nodes) node.share = 0.95;
  EXPECT_EQ(cells().find_first_not_of("9 "), std::string::npos);
  state.nodes[2001].seconds_since_heard = 5;
  state.nodes[3000].share = 0.11;
  const std::string shown = cells();
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '!'), 1);
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '1'), 1);
  EXPECT_EQ(shown[2001 / 4], '!');
}

TEST_F(TopPicture, names_the_slowest_ten_with_the_reason) {
  state.nodes[500].seconds_since_heard = 7;
  state.nodes[501].repair_ratio = 0.2;
  state.nodes[501].share = 0;
  state.nodes[999].files_failed = 3;
  const auto all = lines();
  EXPECT_EQ(count("10.200.1.245    50% heard 7 s"), 1u);
  EXPECT_EQ(count("10.200.1.246     0% rep. 20%"), 1u);
  EXPECT_EQ(count("10.200.3.232    99% 3 failed"), 1u);
  EXPECT_EQ(count("12.0 MB/s"), 7u) << "no reason is known: what arrives";
  for (NodeState& node : state.nodes) node.rate = 932.4e3;
  EXPECT_EQ(count("932 kB/s"), 7u) << "no unit is cut";
}

TEST_F(TopPicture, cells_show_repairs_of_the_last_seconds_when_asked_to) {
  settings.cells = TopSettings::Cells::kRepairs;
  state.seconds = 1;
  history.add(state);
  state.seconds = 2;
  state.nodes[3].repairs = 100'000;
  history.add(state);
  const std::string shown = cells();
  EXPECT_EQ(shown[3], '9');
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '.'), 999);
  for (int i = 0; i < 120; ++i) {
    state.seconds += 1;
    history.add(state);
  }
  EXPECT_EQ(cells()[3], '.') << "it was long ago";
}

TEST_F(TopPicture, is_sorted_and_filtered) {
  state = state_of(10);
  std::reverse(state.nodes.begin(), state.nodes.end());
  state.nodes[4].ended = true;  // share 0.5
  state.nodes[4].share = 1;
  state.nodes[2].files_failed = 1;  // share 0.7
  EXPECT_EQ(cells().substr(0, 11), "01234#6x89 ");
  settings.order = TopSettings::Order::kProgress;
  EXPECT_EQ(cells().substr(0, 11), "012346x89# ");
  settings.filter = TopSettings::Filter::kUnfinished;
  EXPECT_EQ(cells().substr(0, 11), "012346x89  ");
  settings.filter = TopSettings::Filter::kTroubled;
  EXPECT_EQ(cells().substr(0, 11), "x          ");
  settings.filter = TopSettings::Filter::kAll;
  settings.prefix = "10.200.0.10";
  EXPECT_EQ(cells().substr(0, 11), "9          ");
}

TEST_F(TopPicture, says_everything_of_the_chosen_node) {
  settings.chosen = state.nodes[250].address;
  state.nodes[250].repairs = 12;
  state.nodes[250].repair_ratio = 0.034;
  EXPECT_EQ(lines()[22], "10.200.0.251: 25.0 %, 0/124 files, 12.0 MB/s, 12 repairs (3.4 %)");
}

TEST(TopHistory, rates_of_the_last_minute_stand_where_they_were) {
  TopHistory history;
  PushState state = state_of(2);
  for (int second = 0; second <= 90; ++second) {
    state.seconds = second;
    // Until 60 s 1 MB a second for each, then nothing.
    for (NodeState& node : state.nodes)
      node.bytes = static_cast<uint64_t>(std::min(second, 60)) * 1'000'000;
    state.repairs_sent = static_cast<uint64_t>(std::max(0, second - 60)) * 10;
    history.add(state);
  }
  const std::vector<double> goodput = history.goodput_bits(60), repairs = history.repairs(60);
  EXPECT_NEAR(goodput[0], 8e6, 1);
  EXPECT_NEAR(goodput[29], 8e6, 1);
  EXPECT_NEAR(goodput[30], 0, 1);
  EXPECT_NEAR(goodput[59], 0, 1);
  EXPECT_NEAR(repairs[29], 0, 1e-6);
  EXPECT_NEAR(repairs[30], 10, 1e-6);
  EXPECT_NEAR(repairs[59], 10, 1e-6);
}

TEST(TopHistory, another_push_begins_anew) {
  TopHistory history;
  PushState state = state_of(1);
  for (int second = 0; second <= 100; ++second) {
    state.seconds = second;
    state.nodes[0].bytes += 1'000'000;
    history.add(state);
  }
  state = state_of(1);
  state.transaction += 1;
  history.add(state);
  EXPECT_NEAR(history.goodput_bits(60)[59], 0, 1);
  state.seconds = 1;
  state.nodes[0].bytes = 3'000'000;
  history.add(state);
  EXPECT_NEAR(history.goodput_bits(60)[59], 24e6, 1);
  EXPECT_NEAR(history.goodput_bits(60)[58], 0, 1);
}

TEST_F(TopPicture, a_push_with_a_name_is_called_by_it) {
  EXPECT_TRUE(lines()[0].starts_with("push 2147483650  "));
  state.name = "release-7";
  EXPECT_TRUE(lines()[0].starts_with("push release-7  0 of 1000 nodes done"));
}

}  // namespace
}  // namespace pkgdist::lead_program
