#include "stat_prometheus.h"

#include <prometheus/text_serializer.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <sstream>

namespace pkgdist::stat {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

// A metric's name may only have these characters; foreign tables may be called anything.
std::string metric_name(const std::string& text) {
  std::string name;
  for (const char c : text)
    name += std::isalnum(static_cast<unsigned char>(c)) != 0
                ? static_cast<char>(std::tolower(static_cast<unsigned char>(c)))
                : '_';
  return name;
}

// Families in the order in which they were first needed.
class Families {
 public:
  ClientMetric& add(const std::string& name, const std::string& help, MetricType type,
                    const Labels& labels) {
    auto found = std::find_if(families_.begin(), families_.end(),
                              [&](const MetricFamily& family) { return family.name == name; });
    if (found == families_.end()) {
      MetricFamily family;
      family.name = name;
      family.help = help;
      family.type = type;
      found = families_.insert(families_.end(), family);
    }
    found->metric.emplace_back().label = labels;
    return found->metric.back();
  }

  void count(const std::string& name, const std::string& help, const Labels& labels, double value) {
    add(name, help, MetricType::Counter, labels).counter.value = value;
  }

  void gauge(const std::string& name, const std::string& help, const Labels& labels, double value) {
    add(name, help, MetricType::Gauge, labels).gauge.value = value;
  }

  std::vector<MetricFamily> take() { return std::move(families_); }

 private:
  std::vector<MetricFamily> families_;
};

// The library keeps no sums of times.
void fill(ClientMetric::Histogram& histogram, const Entry& entry) {
  uint64_t below = 0;
  for (size_t i = 0; i < kBuckets; ++i) {
    below += entry.buckets[i];
    const bool last = i == kBuckets - 1;
    histogram.bucket.push_back({below, last
                                           ? std::numeric_limits<double>::infinity()
                                           : static_cast<double>(kBucketEndsNs[i]) / kNsPerSecond});
  }
  histogram.sample_count = below;
  histogram.sample_sum = std::numeric_limits<double>::quiet_NaN();
}

void add_table(Families& families, const Table& table, const Labels& process) {
  const std::string name = metric_name(table.application);
  const std::string words = "of table " + table.name + " of " + table.application;
  for (const Entry& entry : table.entries) {
    Labels labels = process;
    labels.push_back({"entry", entry.label});
    if (table.kind == Kind::kCounters) {
      families.count(name + "_total", "Counters " + words, labels, entry.count);
    } else if (table.kind == Kind::kHistograms) {
      ClientMetric& metric =
          families.add(name + "_seconds", "Times " + words, MetricType::Histogram, labels);
      fill(metric.histogram, entry);
    } else {
      families.gauge(name + "_level", "Present values " + words, labels, entry.current);
      families.gauge(name + "_level_highest", "Highest values " + words, labels, entry.mark);
      families.gauge(name + "_level_highest_time_seconds", "When the highest value was reached",
                     labels, static_cast<double>(entry.mark_realtime_ns) / kNsPerSecond);
    }
  }
}

void add_sockets(Families& families, const Sample& sample, const Labels& process) {
  if (!sample.sockets) return;
  for (const UdpSocket& socket : *sample.sockets) {
    Labels labels = process;
    labels.push_back({"local", socket.local});
    labels.push_back({"inode", std::to_string(socket.inode)});  // several may have one address
    families.count("pkgdist_socket_drops_total",
                   "Datagrams that the kernel dropped, of each socket", labels,
                   static_cast<double>(socket.drops));
    families.gauge("pkgdist_socket_queued_bytes", "What waits in the socket to be read", labels,
                   static_cast<double>(socket.queued_bytes));
  }
}

}  // namespace

std::vector<MetricFamily> metrics_of(const std::vector<Sample>& samples) {
  Families families;
  for (const Sample& sample : samples) {
    const Statistics& statistics = sample.statistics;
    const Labels process = {{"pid", std::to_string(statistics.pid)},
                            {"process", statistics.process}};
    families.gauge("pkgdist_up", "Whether the process runs", process, statistics.running ? 1 : 0);
    families.gauge("pkgdist_start_time_seconds", "When the process began to count", process,
                   static_cast<double>(statistics.created_ns) / kNsPerSecond);
    add_sockets(families, sample, process);
    for (const Table& table : statistics.tables) add_table(families, table, process);
  }
  return families.take();
}

std::string prometheus_text(const std::vector<Sample>& samples) {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, metrics_of(samples));
  return text.str();
}

}  // namespace pkgdist::stat
