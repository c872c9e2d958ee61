#include "stat_screen.h"

#include <fmt/core.h>

#include <algorithm>

#include "health.h"
#include "printable.h"

namespace pkgdist::stat {

namespace {

struct Row {
  std::string label;  // with the table's short name: labels of several tables are alike
  uint64_t now = 0;
  uint64_t added = 0;
  bool used = false;
};

// "DRT" of "DRT_Counters".
std::string short_name(const std::string& table) {
  return table.substr(0, table.find('_'));
}

uint64_t count_of(const Table& table, const Entry& entry) {
  if (table.kind == Kind::kHistograms) return entry.total();
  return table.kind == Kind::kCounters ? entry.count : entry.current;
}

std::vector<Row> rows_of(const Sample& sample, const Sample* earlier) {
  std::vector<Row> rows;
  if (sample.sockets)
    for (const UdpSocket& socket : *sample.sockets) {
      const UdpSocket* before = earlier_socket(earlier, socket);
      const uint64_t added = before == nullptr ? 0 : socket.drops - before->drops;
      rows.push_back({"drops " + socket.local, socket.drops, added, socket.drops != 0});
    }
  for (const Table& table : sample.statistics.tables)
    for (size_t i = 0; i < table.entries.size(); ++i) {
      const Entry& entry = table.entries[i];
      const Entry* before = earlier_entry(earlier, table, i);
      const uint64_t now = count_of(table, entry);
      const uint64_t then = before == nullptr ? now : count_of(table, *before);
      // Counters have 32 bits and begin anew at 0; what waits in a queue also becomes less.
      const uint64_t added = table.kind == Kind::kWatermarks ? std::max(now, then) - then
                                                             : static_cast<uint32_t>(now - then);
      rows.push_back({short_name(table.name) + " " + entry.label, now, added, !entry.unused()});
    }
  return rows;
}

}  // namespace

std::vector<std::string> screen_of(const Sample& sample, const Sample* earlier, bool changed_only,
                                   const ScreenSize& size) {
  const double seconds =
      earlier == nullptr
          ? 0
          : static_cast<double>(sample.monotonic_ns - earlier->monotonic_ns) / kNsPerSecond;
  const Statistics& statistics = sample.statistics;
  std::vector<std::string> lines = {fmt::format("{}, process {}, {}", statistics.process,
                                                statistics.pid,
                                                statistics.running ? "running" : "has ended")};
  for (std::string& line : health_lines(sample, earlier)) lines.push_back(std::move(line));
  std::vector<Row> rows = rows_of(sample, earlier);
  std::erase_if(rows, [&](const Row& row) { return changed_only ? row.added == 0 : !row.used; });
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Row& a, const Row& b) { return a.added > b.added; });
  lines.push_back(fmt::format("{:<28} {:>12} {:>10} {:>12}", "what moves comes first", "count",
                              "added", "per second"));
  const size_t room = size.rows > lines.size() + 1 ? size.rows - lines.size() - 1 : 0;
  const size_t shown = rows.size() <= room + 1 ? rows.size() : room;
  for (size_t i = 0; i < shown; ++i) {
    const Row& row = rows[i];
    if (row.added == 0)
      lines.push_back(fmt::format("{:<28} {:>12}", row.label, row.now));
    else
      lines.push_back(fmt::format("{:<28} {:>12} {:>10} {:>12.1f}", row.label, row.now, row.added,
                                  seconds > 0 ? static_cast<double>(row.added) / seconds : 0));
  }
  if (shown < rows.size()) lines.push_back(fmt::format("... and {} more", rows.size() - shown));
  if (lines.size() > size.rows) lines.resize(size.rows);
  for (std::string& line : lines) line = cli::printable(line).substr(0, size.columns);
  return lines;
}

}  // namespace pkgdist::stat
