#include "health.h"

#include <fmt/core.h>

#include <algorithm>
#include <initializer_list>
#include <numeric>

#include "counted.h"

namespace pkgdist::stat {

namespace {

// A node asks again for what it lacks after 100 ms: what waits or is written for longer than that
// is asked for although it has come.
constexpr size_t kSlowBucket = 5;  // the first that holds times of 100 ms and more
// Fewer than this share of slow ones, or of repairs, is what a working network and disk show.
constexpr double kTolerableShare = 0.01;

class Counts {
 public:
  explicit Counts(const Sample& sample) : statistics_(sample.statistics) {}

  // Of a table that the process does not have, all is 0.
  const Entry& entry(const char* table, const char* label) const {
    static const Entry nothing;
    for (const Table& one : statistics_.tables) {
      if (one.name != table) continue;
      for (const Entry& found : one.entries)
        if (found.label == label) return found;
    }
    return nothing;
  }
  uint64_t sum(const char* table, std::initializer_list<const char*> labels) const {
    uint64_t result = 0;
    for (const char* label : labels) result += entry(table, label).count;
    return result;
  }
  bool has(const char* table) const {
    return std::any_of(statistics_.tables.begin(), statistics_.tables.end(),
                       [&](const Table& one) { return one.name == table; });
  }

  uint64_t files_given_up() const { return sum("DRT_Counters", {"FILE TIMEOUT"}); }
  uint64_t messages_given_up() const {
    return sum("CRT_Counters", {"MC MSG MAX RTRY", "UC MSG MAX RTRY", "UC ACK TO MAX"});
  }
  uint64_t waits() const {
    return sum("DRT_Counters",
               {"FILE INFO TMOUT", "FILE MISSSEG TO", "FILE SEG TMOUT", "FILE NOT DNE TO"}) +
           sum("CRT_Counters", {"MC MSG TIMEOUT", "UC MSG TIMEOUT", "UC ACK TIMEOUT"});
  }
  uint64_t repairs() const { return sum("DRT_Counters", {"MC SINGLE SEG"}); }
  uint64_t segments() const { return sum("DRT_Counters", {"MC SEGMENT"}) + repairs(); }
  double loss_share() const {
    return segments() == 0 ? 0 : static_cast<double>(repairs()) / static_cast<double>(segments());
  }

 private:
  const Statistics& statistics_;
};

uint64_t drops_of(const Sample& sample) {
  uint64_t drops = 0;
  if (sample.sockets)
    for (const UdpSocket& socket : *sample.sockets) drops += socket.drops;
  return drops;
}

// ", +12 now"; nothing when nothing was added.
std::string added(uint64_t now, uint64_t before) {
  return now > before ? fmt::format(", +{} now", now - before) : "";
}

std::string slowest(const Entry& times) {
  for (size_t i = kBuckets; i-- > 0;)
    if (times.buckets[i] != 0) return kBucketNames[i];
  return "-";
}

bool often_slow(const Entry& times) {
  const auto slow =
      std::accumulate(times.buckets.begin() + kSlowBucket, times.buckets.end(), uint64_t{0});
  return static_cast<double>(slow) > kTolerableShare * static_cast<double>(times.total());
}

Health kernel_drops(const Sample& sample, const Sample* earlier) {
  Health health{"kernel drops", HealthLevel::kOk, ""};
  if (!sample.sockets) {
    health.level = HealthLevel::kUnknown;
    health.text =
        sample.statistics.running ? "the sockets are not ours to look at" : "the process has ended";
    return health;
  }
  uint64_t queued = 0;
  const UdpSocket* most = nullptr;
  for (const UdpSocket& socket : *sample.sockets) {
    queued += socket.queued_bytes;
    if (most == nullptr || socket.drops > most->drops) most = &socket;
  }
  const uint64_t drops = drops_of(sample);
  const std::string now =
      earlier != nullptr && earlier->sockets ? added(drops, drops_of(*earlier)) : "";
  if (drops == 0) {
    health.text =
        fmt::format("0 datagrams dropped, {}, {}", cli::counted(queued, "byte waits", "bytes wait"),
                    cli::counted(sample.sockets->size(), "socket"));
    return health;
  }
  health.level = HealthLevel::kWarning;
  health.text = fmt::format("{}{}, {} at {}: raise rmem_max", drops, now, most->drops, most->local);
  return health;
}

Health queue(const Counts& counts) {
  const Entry& length = counts.entry("DRT_Watermarks", "FILE QUEUE");
  const Entry& times = counts.entry("DRT_Histograms", "RX QUEUE TIME");
  Health health{
      "queue", HealthLevel::kOk,
      fmt::format("{} wait, {} at most, for {}", length.current, length.mark, slowest(times))};
  if (!often_slow(times)) return health;
  health.level = HealthLevel::kWarning;
  health.text += ": slow disk or CPU";
  return health;
}

Health disk(const Counts& counts) {
  const uint64_t errors = counts.sum("DRS_Counters", {"FILE ERROR"});
  const Entry& times = counts.entry("DRS_Histograms", "FILE WRITE TIME");
  Health health{
      "disk", HealthLevel::kOk,
      fmt::format("{}{}, {}; writes {}", cli::counted(errors, "error"),
                  errors == 0 ? "" : " (pkgdist-trace)",
                  cli::counted(counts.sum("DRS_Counters", {"FILE ADD"}), "file"), slowest(times))};
  if (errors != 0)
    health.level = HealthLevel::kProblem;
  else if (often_slow(times))
    health.level = HealthLevel::kWarning;
  return health;
}

Health loss(const Counts& counts, bool kernel_drops) {
  Health health{"loss", HealthLevel::kOk,
                fmt::format("{:.1f} %: {} of {} segments were repairs", 100 * counts.loss_share(),
                            counts.repairs(), counts.segments())};
  if (counts.loss_share() <= kTolerableShare) return health;
  health.level = HealthLevel::kWarning;
  health.text += kernel_drops ? ": kernel drops" : ": the network";
  return health;
}

Health time_outs(const Counts& counts, const Sample* earlier) {
  const uint64_t given_up = counts.files_given_up() + counts.messages_given_up();
  uint64_t before = given_up;
  if (earlier != nullptr) {
    const Counts then(*earlier);
    before = then.files_given_up() + then.messages_given_up();
  }
  Health health{"time-outs", HealthLevel::kOk,
                fmt::format("gave up {}, {}{}; {}", cli::counted(counts.files_given_up(), "file"),
                            cli::counted(counts.messages_given_up(), "message"),
                            added(given_up, before), cli::counted(counts.waits(), "time-out"))};
  if (given_up == 0) return health;
  health.level = HealthLevel::kProblem;
  return health;
}

}  // namespace

const char* health_level_name(HealthLevel level) {
  constexpr const char* kNames[] = {"ok", "?", "WARNING", "PROBLEM"};
  return kNames[static_cast<size_t>(level)];
}

std::vector<Health> health_of(const Sample& sample, const Sample* earlier) {
  const Counts counts(sample);
  std::vector<Health> all = {kernel_drops(sample, earlier), queue(counts), disk(counts),
                             loss(counts, drops_of(sample) != 0), time_outs(counts, earlier)};
  // A side that was never started has counted nothing.
  for (Health& one : all)
    if (one.subject != "kernel drops" && !counts.has("DRT_Counters"))
      one = {one.subject, HealthLevel::kUnknown, "the data side was not started"};
  return all;
}

std::vector<std::string> health_lines(const Sample& sample, const Sample* earlier) {
  std::vector<std::string> lines;
  for (const Health& one : health_of(sample, earlier))
    lines.push_back(
        fmt::format("{:<12} {:<7} {}", one.subject, health_level_name(one.level), one.text));
  return lines;
}

HealthFigures health_figures(const Sample& sample) {
  const Counts counts(sample);
  HealthFigures figures;
  figures.sockets_known = sample.sockets.has_value();
  figures.drops = drops_of(sample);
  figures.queue_most = counts.entry("DRT_Watermarks", "FILE QUEUE").mark;
  figures.disk_errors = counts.sum("DRS_Counters", {"FILE ERROR"});
  figures.loss_percent = 100 * counts.loss_share();
  figures.given_up = counts.files_given_up() + counts.messages_given_up();
  for (const Health& one : health_of(sample, nullptr))
    figures.worst = std::max(figures.worst, one.level);
  return figures;
}

}  // namespace pkgdist::stat
