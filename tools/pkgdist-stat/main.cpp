// pkgdist-stat: the statistics of running and of ended processes, looked at from outside.
//
// It reads objects that the processes leave in shared memory and what the kernel says of their
// sockets; it never talks to them, and they do not notice.
#include <fmt/core.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli_common.h"
#include "json_events.h"
#include "platform/ship_layout.h"
#include "process_object.h"
#include "sample.h"
#include "stat_json.h"
#include "stat_prometheus.h"
#include "stat_text.h"
#include "stop_signals.h"
#include "view.h"

namespace pkgdist::stat {

namespace {

constexpr const char* kPrefix = &SHIP_LAYOUT_OBJECT_PREFIX[1];  // without the slash

// Seconds between two rounds of --watch.
constexpr double kFastest = 0.05;
constexpr double kSlowest = 86400;

constexpr const char* kFooter = R"(
PROCESS is a number or the name of a program. Without it, the only process that runs is shown, or a list
when there are several; so with a name.

What is shown
  health        five lines: kernel drops, queue, disk, loss, time-outs, with the numbers behind each
  UDP sockets   of a running process of yours: bytes that wait to be read, datagrams that the kernel
                dropped because the process did not take them in time
  counters      since the process started
  histograms    times, in buckets of ten times the length each; bars are relative to the largest
  watermarks    the value now, the highest one so far and when it was reached
On a terminal --watch fits the screen: health, then what moves, fastest first.
The statistics of a process that was killed stay in /dev/shm until --clean removes them.

Examples
  pkgdist-stat pkgdist-node --nonzero      what a node has counted
  pkgdist-stat 4711 --watch 2              every two seconds, on a terminal what moves first
  pkgdist-stat --all --table               every process, one line each
  pkgdist-stat --all --prometheus > /var/lib/node_exporter/pkgdist.prom
  pkgdist-stat --listen 127.0.0.1:9471     the same over HTTP, for whatever runs at that moment
  pkgdist-stat --clean                     removes what dead processes left

Exit status: 0 done; 1 not done, or not all of it: the statistics of a process cannot be read or removed, or
the output could not be written; 2 an argument is wrong; 3 nothing could be started: no process has
statistics, or several have and none was named, or the address of --listen cannot be had.
)";

struct Options {
  std::string process;
  ViewOptions view;
  bool all = false;
  bool json = false;
  bool prometheus = false;
  bool table = false;
  bool clean = false;
  std::optional<double> watch_seconds;
  uint32_t rounds = 0;  // 0: without end
  std::optional<cli::Endpoint> listen;
};

using OutputKind = cli::Output::Kind;

void print(std::string text) {
  cli::standard_output().write(std::move(text), OutputKind::kResult);
}

void print_line(const std::string& line) {
  cli::standard_output().line(line, OutputKind::kResult);
}

bool stopped() {
  return cli::stop_signal() != 0;
}

std::optional<pid_t> as_pid(const std::string& text) {
  pid_t pid = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%9d%c", &pid, &rest) != 1 || pid <= 0) return {};
  return pid;
}

// Every object that can be read; what is wrong with the others goes to standard error.
std::vector<std::pair<tools::FoundObject, Statistics>> readable_objects() {
  std::vector<std::pair<tools::FoundObject, Statistics>> result;
  for (const tools::FoundObject& found : tools::find_objects(tools::kShmDirectory, kPrefix)) {
    try {
      result.emplace_back(found, read_statistics_of(found));
    } catch (const tools::BadObject& bad) {
      cli::complain(bad.what());
    }
  }
  return result;
}

tools::FoundObject object_of(pid_t pid) {
  for (const tools::FoundObject& found : tools::find_objects(tools::kShmDirectory, kPrefix))
    if (found.pid == pid) return found;
  throw std::runtime_error(fmt::format("process {} has no statistics", pid));
}

// What the arguments choose: the one that runs, or the one that there is. Of several for which
// nobody asked: nothing, and `listing` has them.
std::vector<tools::FoundObject> choose(const Options& options, std::vector<Statistics>& listing) {
  if (const auto pid = as_pid(options.process)) return {object_of(*pid)};
  std::vector<tools::FoundObject> chosen;
  for (const auto& [found, statistics] : readable_objects()) {
    if (!options.process.empty() && statistics.process != options.process) continue;
    chosen.push_back(found);
    listing.push_back(statistics);
  }
  if (chosen.empty() && options.process.empty())
    throw std::runtime_error("no process has statistics");
  if (chosen.empty())
    throw std::runtime_error(fmt::format("no process '{}' has statistics", options.process));
  if (chosen.size() == 1 || options.all) return chosen;
  const auto runs = [](const Statistics& statistics) { return statistics.running; };
  if (std::count_if(listing.begin(), listing.end(), runs) != 1) return {};
  const auto one = std::find_if(listing.begin(), listing.end(), runs) - listing.begin();
  return {chosen[static_cast<size_t>(one)]};
}

// What a scrape finds: the chosen processes of that moment. The exposer's threads call it.
class Scrape : public prometheus::Collectable {
 public:
  explicit Scrape(const Options& options) : options_(options) {}

  std::vector<prometheus::MetricFamily> Collect() const override {
    std::vector<Sample> samples;
    try {
      std::vector<Statistics> unused;
      for (const tools::FoundObject& found : choose(options_, unused))
        samples.push_back(take_sample(found));
    } catch (const std::exception& nothing) {
      // Nothing runs now, or it has just ended; the next scrape looks again.
    }
    return metrics_of(samples);
  }

 private:
  const Options& options_;
};

int serve(Options options) {
  options.all = true;
  const std::string where =
      fmt::format("{}:{}", cli::format_address(options.listen->address), options.listen->port);
  std::unique_ptr<prometheus::Exposer> exposer;
  try {
    exposer = std::make_unique<prometheus::Exposer>(where, 1);
  } catch (const std::exception&) {
    throw std::runtime_error("cannot listen on " + where);
  }
  const auto scrape = std::make_shared<Scrape>(options);
  exposer->RegisterCollectable(scrape);
  (void)cli::wait_unless_stopped(-1, 0, -1);
  return cli::kExitOk;
}

int clean() {
  int result = cli::kExitOk;
  for (const tools::Cleaned& cleaned : tools::clean_objects(tools::kShmDirectory)) {
    if (cleaned.removed) {
      print_line("removed " + cleaned.path);
    } else {
      cli::complain(cleaned.problem);
      result = cli::kExitFailure;
    }
  }
  return result;
}

void print_list(const Options& options, const std::vector<Statistics>& listing) {
  const cli::JsonEvents events(options.json);
  for (const Statistics& one : listing)
    events.print("process", process_json(one), OutputKind::kResult);
  if (options.json) return;
  for (const std::string& line : list_of(listing)) print_line(line);
}

int watch(const Options& options, const std::vector<tools::FoundObject>& chosen) {
  View view(options.view);
  if (view.in_place()) print("\x1b[H\x1b[2J");
  for (uint32_t round = 1;; ++round) {
    if (!view.show(chosen)) return cli::kExitFailure;
    // Rounds that nobody reads are not taken.
    if (!cli::standard_output().wait_written(stopped)) return cli::kExitOk;
    if (round == options.rounds || cli::wait_for_stop(*options.watch_seconds)) return cli::kExitOk;
  }
}

int run(const Options& options) {
  if (options.clean) return clean();
  if (options.listen) return serve(options);
  std::vector<Statistics> listing;
  const auto chosen = choose(options, listing);
  if (chosen.empty() && options.prometheus)
    throw std::runtime_error("several processes have statistics: name one, or give --all");
  if (chosen.empty()) {
    print_list(options, listing);
    return cli::kExitOk;
  }
  if (options.watch_seconds) return watch(options, chosen);
  return View(options.view).show(chosen) ? cli::kExitOk : cli::kExitFailure;
}

void check(Options& options) {
  const int ways = options.json + options.prometheus + options.table + options.clean +
                   options.listen.has_value();
  if (ways > 1)
    throw CLI::ValidationError(
        "--table, --json, --prometheus, --listen and --clean exclude each other");
  if (options.watch_seconds && ways > 0 && !options.json && !options.table)
    throw CLI::ValidationError("--watch goes with text, --table and --json only");
  if (options.view.changed && !options.watch_seconds)
    throw CLI::ValidationError("--changed needs --watch");
  if (options.watch_seconds &&
      !(*options.watch_seconds >= kFastest && *options.watch_seconds <= kSlowest))
    throw CLI::ValidationError("--watch: not from 0.05 to 86400 seconds");
  if (options.rounds > 0 && !options.watch_seconds)
    throw CLI::ValidationError("--rounds needs --watch");
  options.view.watch = options.watch_seconds.has_value();
  options.view.format = options.json         ? Format::kJson
                        : options.prometheus ? Format::kPrometheus
                        : options.table      ? Format::kTable
                                             : Format::kText;
}

void add_options(CLI::App& app, Options& options) {
  app.footer(kFooter);
  app.set_version_flag("--version", cli::version());
  app.add_option("PROCESS", options.process, "whose statistics")->type_name("PID|NAME");
  app.add_flag("--all", options.all, "every process, of PROCESS when it is a name");
  app.add_flag("--nonzero", options.view.nonzero, "leave out entries that were never used");
  app.add_flag("--changed", options.view.changed,
               "with --watch: leave out entries that are as they were");
  app.add_flag("--table", options.table, "one line per process: what its health is told from");
  app.add_option("--watch", options.watch_seconds,
                 "show again every SECONDS (1), with what was added and the rate")
      ->type_name("[SECONDS]")
      ->expected(0, 1)
      ->default_str("1");
  app.add_option("--rounds", options.rounds, "end after so many rounds of --watch")->type_name("N");
  app.add_flag("--json", options.json, "one JSON object per process and round");
  app.add_flag("--prometheus", options.prometheus, "the text format of Prometheus");
  app.add_option_function<std::string>(
         "--listen",
         [&options](const std::string& text) { options.listen = cli::parse_endpoint(text); },
         "serve the metrics over HTTP at /metrics; ADDR is 127.0.0.1 unless given")
      ->type_name("[ADDR:]PORT");
  app.add_flag("--clean", options.clean,
               "remove statistics and traces of processes that no longer run");
  app.final_callback([&options] { check(options); });
}

}  // namespace

}  // namespace pkgdist::stat

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Shows the statistics of processes that receive with pkgdist.", "pkgdist-stat");
  stat::Options options;
  stat::add_options(app, options);
  return cli::run_cli(app, argc, argv, [&] { return stat::run(options); });
}
