// get: asks the lead for files, waits for all of them, and exits by the outcome.
#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <cstddef>
#include <map>
#include <string_view>

#include "commands.h"
#include "event_printer.h"
#include "node.h"

namespace pkgdist::node_program {

namespace {

struct Wanted {
  const NodeOptions& options;
  EventPrinter& printer;
  levm_handle_t loop = nullptr;
  size_t waiting = 0;
  size_t ended = 0;
  size_t failed = 0;
};

void on_file(uint64_t status, const char* path, uint32_t, uint32_t location, uint32_t xact_id,
             void* ctx) {
  auto& wanted = *static_cast<Wanted*>(ctx);
  --wanted.waiting;
  ++wanted.ended;
  if (status != 0) ++wanted.failed;
  wanted.printer.file_ended(status, path, location, xact_id);
}

// Asks for one file. One that cannot be asked for has failed.
void request(const std::string& path, Wanted& wanted) {
  const NodeOptions& options = wanted.options;
  ++wanted.waiting;
  const PkgdistStatus status = instcomm_pkgdist_get_file(
      path.c_str(), options.type, options.location, options.priority,
      instcomm_pkgdist_get_receive_xact_id(), wanted.loop, on_file, &wanted);
  if (status == 0 || status == PKGDIST_ERR_SEND) return;  // a request not sent is sent again
  --wanted.waiting;
  ++wanted.failed;
  wanted.printer.file_ended(status, path.c_str(), options.location, 0);
}

// In turns: "NAME.tmp" is where NAME is received, so a name is asked for when those with fewer such
// suffixes have arrived.
std::map<size_t, std::vector<std::string>> in_turns(const std::vector<std::string>& paths) {
  constexpr std::string_view kSuffix = ".tmp";
  std::map<size_t, std::vector<std::string>> turns;
  for (const std::string& path : paths) {
    size_t suffixes = 0;
    for (size_t at = path.find(kSuffix); at != std::string::npos; at = path.find(kSuffix, at + 1))
      ++suffixes;
    turns[suffixes].push_back(path);
  }
  return turns;
}

// How many have not arrived when nothing was heard of them for the time-out.
size_t request_all(Node& node, Wanted& wanted) {
  size_t left = wanted.options.paths.size();
  for (const auto& [suffixes, paths] : in_turns(wanted.options.paths)) {
    for (const std::string& path : paths) request(path, wanted);
    if (!node.run_until([&] { return wanted.waiting == 0; }, wanted.options.timeout_seconds,
                        heard_about_files))
      return left - paths.size() + wanted.waiting;
    left -= paths.size();
  }
  return 0;
}

// The library tells the lead the end of a file just after its callback here: a process that ended
// in between would leave the lead waiting for it.
void await_reports(Node& node, size_t files) {
  constexpr double kStepSeconds = 0.005;
  constexpr int kMaxSteps = 100;
  for (int i = 0; i < kMaxSteps && reports_sent() < files; ++i)
    (void)node.run_until([] { return false; }, kStepSeconds);
}

}  // namespace

int get_command(const NodeOptions& options) {
  if (options.common.locations.count(options.location) == 0)
    throw CLI::ValidationError(
        fmt::format("--to {}: give --location {}=DIR too", options.location, options.location));
  EventPrinter printer(options);
  Wanted wanted{.options = options, .printer = printer};
  Node node(options);
  wanted.loop = node.loop();
  printer.attach(node);
  if (!await_lead(node, printer, options)) return cli::kExitFailure;
  const size_t left = request_all(node, wanted);
  if (left != 0)
    printer.gave_up(fmt::format("{} of {} files have not arrived", left, options.paths.size()),
                    options.timeout_seconds);
  await_reports(node, wanted.ended);
  return left == 0 && wanted.failed == 0 ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::node_program
