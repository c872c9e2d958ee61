#include "stat_text.h"

#include <fmt/core.h>

#include <algorithm>

namespace pkgdist::stat {

namespace {

constexpr uint64_t kBarWidth = 40;
constexpr double kNsPerSecond = 1e9;
constexpr const char* kBucketNames[kBuckets] = {"< 10 us",  "< 100 us", "< 1 ms", "< 10 ms",
                                                "< 100 ms", "< 1 s",    "< 10 s", ">= 10 s"};

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
    const auto unused = [](const Entry& entry) { return entry.unused(); };
    if (options_.nonzero && std::all_of(table.entries.begin(), table.entries.end(), unused)) return;
    line("{} {}", table.application, table.name);
    for (size_t i = 0; i < table.entries.size(); ++i) {
      const Entry& entry = table.entries[i];
      if (options_.nonzero && entry.unused()) continue;
      const Entry* before = earlier_entry(earlier_, table, i);
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
