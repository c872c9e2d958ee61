#include "lead_options.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>

namespace pkgdist::lead_program {

namespace {

constexpr double kBitsPerMegabit = 1e6;

// "3", or "10.0.0.2,10.0.0.3".
void parse_nodes(const std::string& text, LeadOptions& options) {
  if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
    options.node_count = text.size() <= 4 ? static_cast<uint32_t>(std::stoul(text)) : 0;
    if (options.node_count == 0)
      throw CLI::ValidationError(fmt::format("--nodes: not a number of nodes: '{}'", text));
    return;
  }
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    const uint32_t address = cli::parse_address(text.substr(start, end - start));
    if (std::find(options.nodes.begin(), options.nodes.end(), address) == options.nodes.end())
      options.nodes.push_back(address);
    start = end + 1;
  }
}

uint64_t parse_rate(const std::string& text) {
  if (text == "auto") return 0;
  double megabits = 0;
  if (!CLI::detail::lexical_cast(text, megabits) || !std::isfinite(megabits) || megabits < 0.01 ||
      megabits > 1e6)
    throw CLI::ValidationError(fmt::format("not a rate in Mbit/s or 'auto': '{}'", text));
  return static_cast<uint64_t>(megabits * kBitsPerMegabit);
}

void add_stream_options(CLI::App& command, LeadOptions& options) {
  LeadOptions* o = &options;
  command
      .add_option_function<std::string>(
          "--rate", [o](const std::string& text) { o->rate_bits = parse_rate(text); },
          "rate of the data stream, or 'auto': as fast as the nodes take it")
      ->type_name("MBIT [auto]");
  command
      .add_option_function<std::string>(
          "--max-rate", [o](const std::string& text) { o->max_rate_bits = parse_rate(text); },
          "ceiling of the automatic rate")
      ->type_name("MBIT");
  command
      .add_option("--timeout", options.timeout_seconds,
                  "how long to wait for absent or silent nodes")
      ->type_name("SECONDS [30]")
      ->check(CLI::Range(0.1, 1e6));
  command.add_option("--ttl", options.ttl, "routers that the multicast may pass, plus one")
      ->type_name("N [1]")
      ->check(CLI::Range(1, 255));
}

}  // namespace

void add_lead_options(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  app.fallthrough();
  cli::add_common_options(app, options.common, false);
  app.require_subcommand(1);

  CLI::App* push = app.add_subcommand("push", "bring files to every node");
  push->fallthrough();
  push->add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { parse_nodes(text, *o); },
          "how many nodes to wait for, or which nodes")
      ->required()
      ->type_name("N|ADDR[,ADDR...]");
  push->add_option("--type", options.type, "file type")
      ->type_name("1..11 [1]")
      ->check(CLI::Range(1, 11));
  push->add_option("--priority", options.priority, "1 is the most urgent")
      ->type_name("1..4 [2]")
      ->check(CLI::Range(1, 4));
  push->add_option("--to", options.location, "storage location")
      ->type_name("1..6 [1]")
      ->check(CLI::Range(1, 6));
  push->add_option("PATH", options.paths, "files or directories below the location's root")
      ->required();
  add_stream_options(*push, options);

  CLI::App* serve = app.add_subcommand("serve", "answer the nodes' requests until interrupted");
  serve->fallthrough();
  serve->callback([o] { o->serve = true; });
  add_stream_options(*serve, options);
}

}  // namespace pkgdist::lead_program
