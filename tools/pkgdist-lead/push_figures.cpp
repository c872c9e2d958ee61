#include "push_figures.h"

#include <algorithm>
#include <cmath>

namespace pkgdist::lead_program {

namespace {

constexpr size_t kSlowestTold = 5;

double share(uint64_t part, uint64_t whole) {
  return whole != 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0;
}

double seconds_between(lead::Time from, lead::Time to) {
  return static_cast<double>(lead::elapsed(to, from)) / static_cast<double>(lead::kSecond);
}

// The smallest value that so many percent of all do not exceed.
double percentile(const std::vector<double>& ascending, size_t percent) {
  const size_t rank = (ascending.size() * percent + 99) / 100;
  return ascending[std::max<size_t>(rank, 1) - 1];
}

}  // namespace

double repair_ratio(const lead::PushNodeReport& node) {
  return share(node.repairs, node.segments);
}

double repair_share(const lead::Counters& counters) {
  return share(counters.repairs_sent, counters.segments_sent);
}

bool is_complete(const lead::PushNodeReport& node) {
  return node.heard && node.files_left == 0 && node.files_failed == 0;
}

double seconds_of(const lead::PushReport& report, const lead::PushNodeReport& node) {
  const lead::Time end = node.finished_at != 0 ? node.finished_at : report.finished_at;
  return seconds_between(report.started_at, end);
}

PushFigures figures_of(const lead::PushReport& report, const lead::Counters& counters) {
  PushFigures figures;
  for (size_t i = 0; i < report.nodes.size(); ++i) {
    figures.repairs += report.nodes[i].repairs;
    if (is_complete(report.nodes[i])) figures.slowest.push_back(i);
  }
  const auto seconds = [&](size_t i) { return seconds_of(report, report.nodes[i]); };
  std::stable_sort(figures.slowest.begin(), figures.slowest.end(),
                   [&](size_t a, size_t b) { return seconds(a) > seconds(b); });
  if (!figures.slowest.empty()) {
    std::vector<double> ascending;
    for (auto i = figures.slowest.rbegin(); i != figures.slowest.rend(); ++i)
      ascending.push_back(seconds(*i));
    figures.completion = {ascending.size(), percentile(ascending, 50), percentile(ascending, 90),
                          percentile(ascending, 99), ascending.back()};
  }
  figures.slowest.resize(std::min(figures.slowest.size(), kSlowestTold));

  figures.seconds = seconds_between(report.started_at, report.finished_at);
  figures.repairs_sent = counters.repairs_sent;
  figures.segments_sent = counters.segments_sent;
  figures.wire_bytes = counters.data_bytes_sent;
  if (report.bytes_received == 0) return figures;
  const auto content = static_cast<double>(report.bytes_received);
  if (figures.seconds > 0) figures.goodput_bits = content * 8 / figures.seconds;
  figures.wire_per_content = static_cast<double>(figures.wire_bytes) / content;
  return figures;
}

}  // namespace pkgdist::lead_program
