// How the lead scales: its real core with many modelled nodes (tests/support/crowd.h),
// under a virtual clock. Bytes and virtual times are the same on every machine; the lead's
// processor time is this machine's.
//
// Processor time: the thread's clock around every call into the core. Inside are the copy of the
// content into the datagrams (from memory) and what the codec takes; outside are the network, the
// nodes and the calibrated cost of reading the clock. Memory: what operator new gave to the core
// and did not get back, the highest value of the run.
#include <fmt/core.h>
#include <malloc.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>

#include "scale_case.h"

namespace {

// --- Memory of the core ---

bool g_in_core = false;
int64_t g_core_bytes = 0;
int64_t g_core_peak = 0;

// In front of each block: whether it is the core's, in a word that keeps the alignment.
constexpr size_t kTag = alignof(std::max_align_t);

void* allocate(size_t size) {
  auto* block = static_cast<char*>(std::malloc(size + kTag));
  if (block == nullptr) throw std::bad_alloc();
  *block = g_in_core ? 1 : 0;
  if (g_in_core) {
    g_core_bytes += static_cast<int64_t>(malloc_usable_size(block));
    g_core_peak = std::max(g_core_peak, g_core_bytes);
  }
  return block + kTag;
}

void release(void* memory) {
  if (memory == nullptr) return;
  char* const block = static_cast<char*>(memory) - kTag;
  if (*block != 0) g_core_bytes -= static_cast<int64_t>(malloc_usable_size(block));
  std::free(block);
}

}  // namespace

void* operator new(size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, size_t) noexcept {
  release(memory);
}

namespace {

using pkgdist::test::LeadWatch;
using pkgdist::test::ScaleCase;
using pkgdist::test::ScaleResult;

double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class CoreMeter : public LeadWatch {
 public:
  CoreMeter() {
    constexpr int kTrials = 100'000;
    const double start = thread_seconds();
    for (int i = 0; i < kTrials; ++i) (void)thread_seconds();
    clock_cost_ = (thread_seconds() - start) / kTrials;
    g_core_bytes = g_core_peak = 0;
  }
  void begin() override {
    started_ = thread_seconds();
    g_in_core = true;
  }
  void end() override {
    g_in_core = false;
    seconds_ += thread_seconds() - started_ - clock_cost_;
  }
  void pause() override { g_in_core = false; }
  void resume() override { g_in_core = true; }

  double seconds() const { return seconds_; }
  int64_t peak_bytes() const { return g_core_peak; }

 private:
  double clock_cost_ = 0;
  double started_ = 0;
  double seconds_ = 0;
};

struct Options {
  std::vector<uint32_t> nodes{1, 10, 100, 1000};
  uint32_t megabytes = 32;
  uint32_t files = 500;
  uint32_t small = 16384;
  double megabits = 2000;
  double loss = 10;
  double up_share = 0.1;
  double round_trip = 0.4;
  std::vector<std::string> cases{"large", "small"};
  bool full = false;
  bool json = false;
};

Options parse(int argc, char** argv) {
  Options options;
  CLI::App app("The lead's cost for 1 to 1,000 modelled nodes, under a virtual clock.");
  app.add_option("--nodes", options.nodes, "numbers of nodes")->capture_default_str();
  app.add_option("--cases", options.cases, "large: one large file; small: many small files")
      ->capture_default_str()
      ->check(CLI::IsMember({"large", "small"}));
  app.add_option("--megabytes", options.megabytes, "size of the large file (10^6 bytes)")
      ->capture_default_str()
      ->check(CLI::Range(1, 4000));
  app.add_option("--files", options.files, "number of small files")
      ->capture_default_str()
      ->check(CLI::Range(1, 100'000));
  app.add_option("--small", options.small, "bytes of a small file")->capture_default_str();
  app.add_option("--rate", options.megabits, "of the data stream, Mbit/s")->capture_default_str();
  app.add_option("--loss", options.loss,
                 "percent that the worst node loses; the others lie evenly between it and none")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 90.0));
  app.add_option("--up-share", options.up_share,
                 "loss of what a node sends over loss of what it receives")
      ->capture_default_str();
  app.add_option("--round-trip", options.round_trip, "milliseconds")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 10'000.0));
  app.add_flag("--full", options.full, "a large file of 1 GB and 10,000 small files");
  app.add_flag("--json", options.json, "one JSON object for each case instead of the table");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error));
  }
  if (options.full) options.megabytes = 1000;
  if (options.full) options.files = 10'000;
  return options;
}

ScaleCase case_of(const Options& options, const std::string& name, uint32_t nodes) {
  ScaleCase scale;
  scale.nodes = nodes;
  scale.files = name == "large" ? 1 : options.files;
  scale.file_bytes = name == "large" ? uint64_t{options.megabytes} * 1'000'000 : options.small;
  scale.rate_bits = static_cast<uint64_t>(options.megabits * 1e6);
  scale.worst_loss = options.loss / 100;
  scale.up_share = options.up_share;
  scale.round_trip = static_cast<uint64_t>(options.round_trip * 1e6);
  return scale;
}

void print_head() {
  fmt::print(
      "case   nodes | sent/content  necessary  ratio | seconds  over ideal | out/1000  in/1000 | "
      "CPU s/s  us/datagram | MB\n");
}

void print_row(const std::string& name, const ScaleCase& scale, const ScaleResult& result,
               const CoreMeter& meter) {
  const auto datagrams = static_cast<double>(result.datagrams_out + result.datagrams_in);
  fmt::print(
      "{:<6} {:>5} | {:>12.3f}  {:>9.3f}  {:>5.3f} | {:>7.2f}  {:>10.2f} | {:>8.0f}  {:>7.0f} | "
      "{:>7.3f}  {:>11.2f} | {:.1f}{}\n",
      name, scale.nodes, result.sent_ratio, result.necessary_ratio, result.over_necessary(),
      result.seconds, result.over_ideal(scale), static_cast<double>(result.datagrams_out) / 1e3,
      static_cast<double>(result.datagrams_in) / 1e3, meter.seconds() / result.seconds,
      meter.seconds() / datagrams * 1e6, static_cast<double>(meter.peak_bytes()) / 1e6,
      result.complete ? "" : "  INCOMPLETE");
  std::fflush(stdout);
}

void print_json(const std::string& name, const ScaleCase& scale, const ScaleResult& result,
                const CoreMeter& meter, double wall) {
  nlohmann::json line;
  line["case"] = name;
  line["nodes"] = scale.nodes;
  line["files"] = scale.files;
  line["file_bytes"] = scale.file_bytes;
  line["rate_bits"] = scale.rate_bits;
  line["worst_loss"] = scale.worst_loss;
  line["round_trip_seconds"] = static_cast<double>(scale.round_trip) / 1e9;
  line["complete"] = result.complete;
  line["sent_over_content"] = result.sent_ratio;
  line["necessary_over_content"] = result.necessary_ratio;
  line["sent_over_necessary"] = result.over_necessary();
  line["virtual_seconds"] = result.seconds;
  line["time_over_ideal"] = result.over_ideal(scale);
  line["datagrams_out"] = result.datagrams_out;
  line["datagrams_in"] = result.datagrams_in;
  line["segments_sent"] = result.lead.segments_sent;
  line["repairs_sent"] = result.lead.repairs_sent;
  line["infos_sent"] = result.lead.infos_sent;
  line["miss_done_sent"] = result.lead.miss_done_sent;
  line["control_sent"] = result.lead.control_sent;
  line["segments_requested"] = result.lead.segments_requested;
  line["reports"] = result.nodes.reports;
  line["requests"] = result.nodes.requests;
  line["time_outs"] = result.nodes.time_outs;
  line["duplicates"] = result.nodes.duplicates;
  std::vector<double> finished = result.finished;
  std::sort(finished.begin(), finished.end());
  line["first_node_seconds"] = finished.front();
  line["median_node_seconds"] = finished[finished.size() / 2];
  line["last_node_seconds"] = finished.back();
  line["core_cpu_seconds"] = meter.seconds();
  line["core_peak_bytes"] = meter.peak_bytes();
  line["wall_seconds"] = wall;
  std::cout << line.dump() << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  if (!options.json) print_head();
  bool complete = true;
  for (const std::string& name : options.cases) {
    for (const uint32_t nodes : options.nodes) {
      const ScaleCase scale = case_of(options, name, nodes);
      CoreMeter meter;
      const auto start = std::chrono::steady_clock::now();
      const ScaleResult result = pkgdist::test::run_scale(scale, &meter);
      const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
      complete &= result.complete;
      if (options.json)
        print_json(name, scale, result, meter, wall.count());
      else
        print_row(name, scale, result, meter);
    }
  }
  return complete ? 0 : 1;
}
