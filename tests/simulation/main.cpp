// Runs the simulation from seed to seed: the real library and the real lead under one virtual
// clock, with whatever the seed has for them. Says which ones went wrong and how fast it was.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

#include "simulation.h"

namespace {

using pkgdist::sim::run_seed;
using pkgdist::sim::Verdict;
using pkgdist::sim::Workspace;

// A crash names the seed that it came with.
volatile uint64_t present_seed = 0;

void name_seed() {
  char text[64];
  const int length = std::snprintf(text, sizeof text, "\nduring seed %lu\n", present_seed);
  (void)!write(STDERR_FILENO, text, static_cast<size_t>(length));
}

void on_crash(int signal) {
  name_seed();
  std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
}

void watch_for_crashes() {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_set_death_callback(name_seed);
#else
  std::signal(SIGSEGV, on_crash);
  std::signal(SIGBUS, on_crash);
#endif
  std::signal(SIGABRT, on_crash);
}

struct Range {
  uint64_t from = 1;
  uint64_t to = 1;
};

// "7", "7-90"
Range parse_range(const std::string& text) {
  const size_t dash = text.find('-');
  Range range;
  range.from = std::stoull(text);
  range.to = dash == std::string::npos ? range.from : std::stoull(text.substr(dash + 1));
  if (range.to < range.from) throw std::invalid_argument("the range ends before it begins");
  return range;
}

struct Options {
  std::vector<std::string> ranges;
  double seconds = 0;  // 0: as long as it takes
  uint64_t repeat_every = 50;
  bool verbose = false;
};

struct Tally {
  uint64_t runs = 0;
  uint64_t failed = 0;
  uint64_t datagrams = 0;
  double virtual_seconds = 0;
};

void report(uint64_t seed, const Verdict& verdict) {
  std::printf("seed %lu:\n", seed);
  for (const std::string& violation : verdict.violations) std::printf("  %s\n", violation.c_str());
  std::fflush(stdout);
}

// The same seed must do the same thing again.
void repeat(uint64_t seed, Workspace& workspace, Verdict& verdict) {
  const Verdict again = run_seed(seed, workspace, nullptr);
  if (again.trace != verdict.trace)
    verdict.violations.push_back("a second run of the seed went another way");
}

Tally run(const Options& options, Workspace& workspace) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto spent = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  Tally tally;
  for (const std::string& text : options.ranges) {
    const Range range = parse_range(text);
    for (uint64_t seed = range.from; seed <= range.to; ++seed) {
      if (options.seconds > 0 && spent() >= options.seconds) break;
      present_seed = seed;
      Verdict verdict = run_seed(seed, workspace, options.verbose ? stdout : nullptr);
      if (options.repeat_every != 0 && seed % options.repeat_every == 0)
        repeat(seed, workspace, verdict);
      ++tally.runs;
      tally.datagrams += verdict.datagrams;
      tally.virtual_seconds += static_cast<double>(verdict.virtual_ns) / 1e9;
      if (verdict.violations.empty()) continue;
      ++tally.failed;
      report(seed, verdict);
    }
  }
  std::printf("%lu runs, %lu failed; %.1f runs/s, %.0f datagrams/s, %.0f times real time\n",
              tally.runs, tally.failed, static_cast<double>(tally.runs) / spent(),
              static_cast<double>(tally.datagrams) / spent(), tally.virtual_seconds / spent());
  return tally;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Simulates clusters of the real library and the real lead, one for each seed.",
               "simulation");
  Options options;
  app.add_option("--seed", options.ranges, "a seed, or a range FROM-TO; may be repeated")
      ->required()
      ->delimiter(',');
  app.add_option("--seconds", options.seconds, "stop after this time");
  app.add_option("--repeat-every", options.repeat_every,
                 "run each multiple of this twice and compare (0: none)");
  app.add_flag("--verbose", options.verbose, "print everything that happens");
  CLI11_PARSE(app, argc, argv);

  (void)umask(0);  // files get the modes that the lead gives
  watch_for_crashes();
  try {
    Workspace workspace(SIMULATED_PROCESS);
    const Tally tally = run(options, workspace);
    return tally.failed == 0 && tally.runs != 0 ? 0 : 1;
  } catch (const std::exception& problem) {
    std::cerr << "simulation: " << problem.what() << '\n';
    return 2;
  }
}
