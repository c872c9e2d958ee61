// get: asks the lead for files, waits for all of them, and exits by the outcome.
#include <fmt/core.h>

#include <CLI/Error.hpp>

#include "commands.h"
#include "event_printer.h"
#include "file_requests.h"
#include "node.h"
#include "running_node.h"

namespace pkgdist::node_program {

namespace {

// The library tells the lead the end of a file just after its callback here: a process that ended
// in between would leave the lead waiting for it.
void await_reports(Node& node, size_t files) {
  constexpr double kStepSeconds = 0.005;
  constexpr int kMaxSteps = 100;
  for (int i = 0; i < kMaxSteps && ends_reported() < files; ++i)
    (void)node.run_until([] { return false; }, kStepSeconds);
}

// In this process.
int get_here(const NodeOptions& options) {
  if (options.common.locations.count(options.location) == 0)
    throw CLI::ValidationError(
        fmt::format("--to {}: give --location {}=DIR too", options.location, options.location));
  EventPrinter printer(options);
  Node node(options);
  FileRequests files(wanted_of(options), node.loop(),
                     [&](uint64_t status, const char* path, uint32_t location, uint32_t xact_id) {
                       printer.file_ended(status, path, location, xact_id);
                     });
  printer.attach(node);
  if (!await_lead(node, printer, options)) return cli::kExitFailure;
  if (!node.run_until([&] { return files.run(); }, options.timeout_seconds, heard_about_files))
    printer.gave_up(
        fmt::format("{} of {} files have not arrived", files.left(), options.paths.size()),
        options.timeout_seconds);
  await_reports(node, files.received_or_failed());
  return files.left() == 0 && files.failed() == 0 ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace

int get_command(const NodeOptions& options) {
  if (auto node = connect_to_node(options)) return get_through(*node, options);
  return get_here(options);
}

}  // namespace pkgdist::node_program
