// The numbers of a push that has ended.
#include "push_figures.h"

#include <gtest/gtest.h>

namespace pkgdist::lead_program {
namespace {

using lead::kSecond;

lead::PushReport report_of(size_t complete_nodes) {
  lead::PushReport report;
  report.started = report.finished = true;
  report.started_at = 10 * kSecond;
  report.finished_at = 10 * kSecond + complete_nodes * kSecond;
  // The last comes first, so that an order that is kept shows.
  for (size_t i = complete_nodes; i > 0; --i) {
    lead::PushNodeReport& node = report.nodes.emplace_back();
    node.address = static_cast<uint32_t>(i);
    node.heard = true;
    node.finished_at = report.started_at + i * kSecond;
  }
  return report;
}

TEST(PushFigures, percentiles_are_times_that_nodes_took) {
  const auto completion = figures_of(report_of(200), {}).completion;
  EXPECT_EQ(completion.nodes, 200u);
  EXPECT_EQ(completion.p50, 100);
  EXPECT_EQ(completion.p90, 180);
  EXPECT_EQ(completion.p99, 198);
  EXPECT_EQ(completion.max, 200);
}

TEST(PushFigures, of_one_node_every_percentile_is_its_time) {
  const auto completion = figures_of(report_of(1), {}).completion;
  EXPECT_EQ(completion.p50, 1);
  EXPECT_EQ(completion.p90, 1);
  EXPECT_EQ(completion.p99, 1);
  EXPECT_EQ(completion.max, 1);
}

TEST(PushFigures, of_two_nodes_the_faster_is_the_median) {
  const auto completion = figures_of(report_of(2), {}).completion;
  EXPECT_EQ(completion.p50, 1);
  EXPECT_EQ(completion.p90, 2);
}

TEST(PushFigures, nodes_that_lack_or_failed_a_file_have_no_completion) {
  lead::PushReport report = report_of(5);
  report.nodes[0].files_failed = 1;  // 5 s
  report.nodes[1].files_left = 1;    // 4 s
  report.nodes[2].heard = false;     // 3 s
  const PushFigures figures = figures_of(report, {});
  EXPECT_EQ(figures.completion.nodes, 2u);
  EXPECT_EQ(figures.completion.max, 2);
  EXPECT_EQ(figures.slowest, (std::vector<size_t>{3, 4}));
}

TEST(PushFigures, without_complete_nodes_there_is_no_completion) {
  lead::PushReport report = report_of(2);
  for (auto& node : report.nodes) node.files_left = 1;
  const PushFigures figures = figures_of(report, {});
  EXPECT_EQ(figures.completion.nodes, 0u);
  EXPECT_TRUE(figures.slowest.empty());
}

TEST(PushFigures, names_the_five_slowest_nodes_slowest_first) {
  EXPECT_EQ(figures_of(report_of(9), {}).slowest, (std::vector<size_t>{0, 1, 2, 3, 4}));
}

TEST(PushFigures, content_counts_once_and_present_files_not_at_all) {
  lead::PushReport report = report_of(4);
  report.bytes = 9'000'000;
  report.bytes_received = 2'000'000;
  lead::Counters counters;
  counters.data_bytes_sent = 2'500'000;
  counters.segments_sent = 1800;
  counters.repairs_sent = 180;
  const PushFigures figures = figures_of(report, counters);
  EXPECT_EQ(figures.seconds, 4);
  EXPECT_EQ(figures.goodput_bits, 4'000'000);
  EXPECT_EQ(figures.wire_per_content, 1.25);
  EXPECT_EQ(figures.wire_bytes, 2'500'000u);
  EXPECT_DOUBLE_EQ(repair_share(counters), 0.1);
}

TEST(PushFigures, without_received_content_there_is_no_goodput_and_no_share_of_it) {
  lead::Counters counters;
  counters.data_bytes_sent = 1000;
  const PushFigures figures = figures_of(report_of(1), counters);
  EXPECT_EQ(figures.goodput_bits, 0);
  EXPECT_FALSE(figures.wire_per_content);
}

TEST(PushFigures, repairs_of_all_nodes_add_up) {
  lead::PushReport report = report_of(2);
  report.nodes[0].repairs = 30;
  report.nodes[0].segments = 1000;
  report.nodes[1].repairs = 12;
  EXPECT_EQ(figures_of(report, {}).repairs, 42u);
  EXPECT_DOUBLE_EQ(repair_ratio(report.nodes[0]), 0.03);
  EXPECT_EQ(repair_ratio(report.nodes[1]), 0) << "nothing was sent to it";
}

}  // namespace
}  // namespace pkgdist::lead_program
