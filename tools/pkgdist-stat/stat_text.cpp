#include "stat_text.h"

#include <fmt/core.h>

#include <algorithm>

#include "health.h"

namespace pkgdist::stat {

namespace {

constexpr uint64_t kBarWidth = 40;

// "  +12  (4.0/s)"; nothing when nothing was added.
std::string change(uint64_t now, uint64_t before, double seconds) {
  if (now == before || seconds <= 0) return "";
  // Counters have 32 bits and begin anew at 0.
  const auto added = static_cast<uint32_t>(now - before);
  return fmt::format("  +{}  ({:.1f}/s)", added, added / seconds);
}

std::string bar(uint64_t value, uint64_t largest) {
  if (value == 0) return "";
  return std::string(std::max<uint64_t>(1, value * kBarWidth / largest), '#');
}

class Text {
 public:
  Text(const Sample& sample, const Sample* earlier, const TextOptions& options)
      : sample_(sample), earlier_(earlier), options_(options) {
    if (earlier != nullptr)
      seconds_ = static_cast<double>(sample.monotonic_ns - earlier->monotonic_ns) / kNsPerSecond;
  }

  std::vector<std::string> lines() {
    const Statistics& statistics = sample_.statistics;
    line("{}, process {}, {}, counts since {}", statistics.process, statistics.pid,
         statistics.running ? "running" : "has ended", tools::local_time(statistics.created_ns));
    for (const std::string& text : health_lines(sample_, earlier_)) lines_.push_back(text);
    add_sockets();
    for (const Table& table : statistics.tables) add_table(table);
    return std::move(lines_);
  }

 private:
  template <class... Arguments>
  void line(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    lines_.push_back(fmt::format(format, std::forward<Arguments>(arguments)...));
  }

  void add_sockets() {
    if (!sample_.sockets) {
      if (sample_.statistics.running) line("UDP sockets: not ours to look at");
      return;
    }
    line("UDP sockets");
    line("  {:<22} {:>12} {:>10}", "local address", "queued bytes", "dropped");
    for (const UdpSocket& socket : *sample_.sockets) {
      const UdpSocket* before = earlier_socket(earlier_, socket);
      line("  {:<22} {:>12} {:>10}{}", socket.local, socket.queued_bytes, socket.drops,
           before ? change(socket.drops, before->drops, seconds_) : "");
    }
  }

  void add_table(const Table& table) {
    bool begun = false;
    for (size_t i = 0; i < table.entries.size(); ++i) {
      const Entry& entry = table.entries[i];
      const Entry* before = earlier_entry(earlier_, table, i);
      if (!is_wanted(entry, before, options_.nonzero, options_.changed)) continue;
      if (!begun) line("{} {}", table.application, table.name);
      begun = true;
      if (table.kind == Kind::kCounters) add_counter(entry, before);
      if (table.kind == Kind::kHistograms) add_histogram(entry, before);
      if (table.kind == Kind::kWatermarks) add_watermark(entry);
    }
  }

  void add_counter(const Entry& entry, const Entry* before) {
    line("  {:<15} {:>10}{}", entry.label, entry.count,
         before ? change(entry.count, before->count, seconds_) : "");
  }

  // The buckets between the first and the last that hold something.
  void add_histogram(const Entry& entry, const Entry* before) {
    line("  {:<15} {:>10}{}", entry.label, entry.total(),
         before ? change(entry.total(), before->total(), seconds_) : "");
    const auto& buckets = entry.buckets;
    const uint64_t largest = *std::max_element(buckets.begin(), buckets.end());
    if (largest == 0) return;
    size_t first = 0, last = kBuckets - 1;
    while (buckets[first] == 0) ++first;
    while (buckets[last] == 0) --last;
    for (size_t i = first; i <= last; ++i)
      line("    {:>13} {:>10} {}", kBucketNames[i], buckets[i], bar(buckets[i], largest));
  }

  void add_watermark(const Entry& entry) {
    const std::string when = entry.mark_realtime_ns == 0
                                 ? ""
                                 : ", reached " + tools::local_time(entry.mark_realtime_ns, 3);
    line("  {:<15} {:>10}  highest {}{}", entry.label, entry.current, entry.mark, when);
  }

  const Sample& sample_;
  const Sample* earlier_;
  const TextOptions& options_;
  double seconds_ = 0;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> text_of(const Sample& sample, const Sample* earlier,
                                 const TextOptions& options) {
  return Text(sample, earlier, options).lines();
}

std::vector<std::string> table_of(const std::vector<Sample>& samples) {
  std::vector<std::string> lines = {fmt::format("{:>8}  {:<15} {:>8} {:>8} {:>8} {:>7} {:>8}  {}",
                                                "process", "name", "dropped", "queue", "disk err",
                                                "loss", "given up", "health")};
  for (const Sample& sample : samples) {
    const HealthFigures figures = health_figures(sample);
    const std::string drops = figures.sockets_known ? std::to_string(figures.drops) : "?";
    lines.push_back(fmt::format("{:>8}  {:<15} {:>8} {:>8} {:>8} {:>5.1f} % {:>8}  {}",
                                sample.statistics.pid, sample.statistics.process, drops,
                                figures.queue_most, figures.disk_errors, figures.loss_percent,
                                figures.given_up, health_level_name(figures.worst)));
  }
  return lines;
}

std::vector<std::string> list_of(const std::vector<Statistics>& all) {
  std::vector<std::string> lines = {
      fmt::format("{:>8}  {:<20} {:<10} {}", "process", "name", "state", "counts since")};
  for (const Statistics& one : all)
    lines.push_back(fmt::format("{:>8}  {:<20} {:<10} {}", one.pid, one.process,
                                one.running ? "running" : "has ended",
                                tools::local_time(one.created_ns)));
  return lines;
}

}  // namespace pkgdist::stat
