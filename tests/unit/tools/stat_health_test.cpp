// What is told of a process's health, and how it fits a terminal.
#include <gtest/gtest.h>

#include <algorithm>

#include "health.h"
#include "stat_screen.h"
#include "stat_text.h"

using namespace pkgdist::stat;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr size_t kBelow10Us = 0, kBelow1S = 5;

Entry counter(const char* label, uint32_t count) {
  Entry entry;
  entry.label = label;
  entry.count = count;
  return entry;
}

Entry times(const char* label, size_t bucket, uint32_t count) {
  Entry entry;
  entry.label = label;
  entry.buckets[bucket] = count;
  return entry;
}

Entry watermark(const char* label, uint32_t current, uint32_t mark) {
  Entry entry;
  entry.label = label;
  entry.current = current;
  entry.mark = mark;
  return entry;
}

// A node that received 1000 segments and has no trouble.
Sample healthy() {
  Sample sample;
  sample.statistics.pid = 4711;
  sample.statistics.process = "pkgdist-node";
  sample.statistics.running = true;
  sample.monotonic_ns = 100 * kSecond;
  sample.sockets = {{UdpSocket{1, "239.255.71.2:7101", 0, 0}, UdpSocket{2, "0.0.0.0:7103", 0, 0}}};
  sample.statistics.tables = {
      {"PKGDIST_CRT",
       "CRT_Counters",
       Kind::kCounters,
       {counter("MC MSG MAX RTRY", 0), counter("UC ACK TO MAX", 0)}},
      {"PKGDIST_DRT",
       "DRT_Counters",
       Kind::kCounters,
       {counter("MC SINGLE SEG", 0), counter("MC SEGMENT", 1000), counter("FILE SEG TMOUT", 0),
        counter("FILE TIMEOUT", 0)}},
      {"PKGDIST_DRT", "DRT_Watermarks", Kind::kWatermarks, {watermark("FILE QUEUE", 0, 17)}},
      {"PKGDIST_DRT",
       "DRT_Histograms",
       Kind::kHistograms,
       {times("RX QUEUE TIME", kBelow10Us, 1000)}},
      {"PKGDIST_DRS",
       "DRS_Counters",
       Kind::kCounters,
       {counter("FILE ADD", 3), counter("FILE ERROR", 0)}},
      {"PKGDIST_DRS",
       "DRS_Histograms",
       Kind::kHistograms,
       {times("FILE WRITE TIME", kBelow10Us, 1000)}},
  };
  return sample;
}

Entry& entry_of(Sample& sample, const std::string& label) {
  for (Table& table : sample.statistics.tables)
    for (Entry& entry : table.entries)
      if (entry.label == label) return entry;
  ADD_FAILURE() << label;
  return sample.statistics.tables[0].entries[0];
}

void expect_only(const Sample& sample, const std::string& subject, HealthLevel level,
                 const std::string& text) {
  for (const Health& one : health_of(sample, nullptr)) {
    EXPECT_EQ(one.subject == subject ? level : HealthLevel::kOk, one.level) << one.text;
    if (one.subject == subject) {
      EXPECT_NE(std::string::npos, one.text.find(text)) << one.text;
    }
  }
}

}  // namespace

TEST(StatHealth, a_process_without_trouble_has_five_answers_that_say_so) {
  const std::vector<std::string> lines = health_lines(healthy(), nullptr);
  const std::vector<std::string> expected = {
      "kernel drops ok      0 datagrams dropped, 0 bytes wait, 2 sockets",
      "queue        ok      0 wait, 17 at most, for < 10 us",
      "disk         ok      0 errors, 3 files; writes < 10 us",
      "loss         ok      0.0 %: 0 of 1000 segments were repairs",
      "time-outs    ok      gave up 0 files, 0 messages; 0 time-outs"};
  EXPECT_EQ(expected, lines);
}

TEST(StatHealth, datagrams_that_the_kernel_dropped_are_a_warning_with_their_socket) {
  Sample sample = healthy();
  sample.sockets->front().drops = 5;
  expect_only(sample, "kernel drops", HealthLevel::kWarning, "5 at 239.255.71.2:7101");
  Sample later = sample;
  later.sockets->front().drops = 12;
  EXPECT_NE(std::string::npos, health_of(later, &sample)[0].text.find("12, +7 now"));
}

TEST(StatHealth, a_queue_in_which_one_of_a_hundred_waits_long_is_a_warning) {
  Sample sample = healthy();
  entry_of(sample, "RX QUEUE TIME").buckets[kBelow1S] = 10;
  expect_only(sample, "queue", HealthLevel::kOk, "for < 1 s");
  entry_of(sample, "RX QUEUE TIME").buckets[kBelow1S] = 11;
  expect_only(sample, "queue", HealthLevel::kWarning, "for < 1 s");
}

TEST(StatHealth, an_error_of_the_disk_is_a_problem_and_slow_writes_are_a_warning) {
  Sample sample = healthy();
  entry_of(sample, "FILE WRITE TIME").buckets[kBelow1S] = 100;
  expect_only(sample, "disk", HealthLevel::kWarning, "writes < 1 s");
  entry_of(sample, "FILE ERROR").count = 2;
  expect_only(sample, "disk", HealthLevel::kProblem, "2 errors (pkgdist-trace), 3 files");
}

TEST(StatHealth, more_than_one_repair_in_a_hundred_segments_is_a_warning) {
  Sample sample = healthy();
  entry_of(sample, "MC SINGLE SEG").count = 10;
  expect_only(sample, "loss", HealthLevel::kOk, "1.0 %: 10 of 1010 segments");
  entry_of(sample, "MC SINGLE SEG").count = 50;
  expect_only(sample, "loss", HealthLevel::kWarning, "the network");
}

TEST(StatHealth, what_was_given_up_is_a_problem_and_time_outs_alone_are_none) {
  Sample sample = healthy();
  entry_of(sample, "FILE SEG TMOUT").count = 4;
  expect_only(sample, "time-outs", HealthLevel::kOk, "4 time-outs");
  entry_of(sample, "FILE TIMEOUT").count = 1;
  entry_of(sample, "UC ACK TO MAX").count = 2;
  expect_only(sample, "time-outs", HealthLevel::kProblem, "gave up 1 file, 2 messages");
}

TEST(StatHealth, what_cannot_be_known_is_not_called_good) {
  Sample sample = healthy();
  sample.sockets.reset();
  expect_only(sample, "kernel drops", HealthLevel::kUnknown, "not ours");
  sample.statistics.tables.clear();
  for (const Health& one : health_of(sample, nullptr))
    EXPECT_EQ(HealthLevel::kUnknown, one.level) << one.subject;
}

TEST(StatHealth, lines_fit_eighty_columns_with_five_digits_and_every_trouble) {
  Sample sample = healthy();
  sample.sockets->front().drops = 12'345;
  for (const char* label : {"FILE ERROR", "FILE ADD", "MC SINGLE SEG", "MC SEGMENT", "FILE TIMEOUT",
                            "UC ACK TO MAX", "FILE SEG TMOUT"})
    entry_of(sample, label).count = 12'345;
  entry_of(sample, "FILE QUEUE").current = entry_of(sample, "FILE QUEUE").mark = 12'345;
  entry_of(sample, "RX QUEUE TIME").buckets[kBuckets - 1] = 100;
  for (const std::string& line : health_lines(sample, nullptr)) EXPECT_GT(80u, line.size()) << line;
}

TEST(StatScreen, shows_what_moves_fastest_first_and_fits) {
  const Sample before = healthy();
  Sample now = before;
  now.monotonic_ns += 2 * kSecond;
  entry_of(now, "MC SEGMENT").count += 20;
  entry_of(now, "FILE ADD").count += 1;
  const ScreenSize size{12, 80};
  const std::vector<std::string> lines = screen_of(now, &before, false, size);
  ASSERT_EQ(size.rows, lines.size());
  EXPECT_EQ("pkgdist-node, process 4711, running", lines[0]);
  EXPECT_EQ("kernel drops", lines[1].substr(0, 12));
  EXPECT_EQ("DRT MC SEGMENT                       1020         20         10.0", lines[7]);
  EXPECT_EQ("DRS FILE ADD                            4          1          0.5", lines[8]);
  EXPECT_EQ("DRT FILE QUEUE                          0", lines[9]);
  for (const std::string& line : lines) EXPECT_GE(size.columns, line.size()) << line;
}

TEST(StatScreen, a_small_terminal_loses_rows_and_numbers_but_no_label) {
  const Sample before = healthy();
  Sample now = before;
  entry_of(now, "FILE QUEUE").mark = 18;
  entry_of(now, "MC SEGMENT").count += 1;
  const std::vector<std::string> lines = screen_of(now, &before, false, {9, 20});
  ASSERT_EQ(9u, lines.size());
  for (const std::string& line : lines) EXPECT_GE(20u, line.size()) << line;
  EXPECT_EQ("DRT MC SEGMENT      ", lines[7]);
  EXPECT_EQ("... and 4 more", lines[8]);
}

TEST(StatScreen, only_what_changed_is_left_when_that_is_asked_for) {
  const Sample before = healthy();
  Sample now = before;
  entry_of(now, "MC SEGMENT").count += 1;
  EXPECT_EQ(8u, screen_of(now, &before, true, {}).size());
}

TEST(StatText, the_table_has_one_line_for_each_process) {
  Sample sick = healthy();
  sick.statistics.pid = 4712;
  sick.sockets.reset();
  entry_of(sick, "FILE TIMEOUT").count = 3;
  const std::vector<std::string> lines = table_of({healthy(), sick});
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("    4711  pkgdist-node           0       17        0   0.0 %        0  ok", lines[1]);
  EXPECT_EQ("    4712  pkgdist-node           ?       17        0   0.0 %        3  PROBLEM",
            lines[2]);
}

TEST(StatText, changed_entries_are_those_that_differ_from_the_sample_before) {
  const Sample before = healthy();
  Sample now = before;
  entry_of(now, "MC SEGMENT").count += 1;
  const std::vector<std::string> lines = text_of(now, &before, {.nonzero = false, .changed = true});
  const auto counts = [&](const std::string& text) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  };
  EXPECT_EQ(1, counts("MC SEGMENT"));
  EXPECT_EQ(1, counts("PKGDIST_"));  // headings of tables without a change are left out
}
