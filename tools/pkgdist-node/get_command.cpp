// get: asks the lead for files, waits for all of them, and exits by the outcome.
#include <fmt/core.h>

#include "commands.h"
#include "event_printer.h"
#include "node.h"

namespace pkgdist::node_program {

namespace {

struct Wanted {
  EventPrinter* printer;
  size_t waiting = 0;
  size_t failed = 0;
};

void on_file(uint64_t status, const char* path, uint32_t, uint32_t location, uint32_t xact_id,
             void* ctx) {
  auto& wanted = *static_cast<Wanted*>(ctx);
  --wanted.waiting;
  if (status != 0) ++wanted.failed;
  wanted.printer->file_ended(status, path, location, xact_id);
}

// Asks for one file. One that cannot be asked for has failed.
void request(const NodeOptions& options, const Node& node, const std::string& path,
             Wanted& wanted) {
  ++wanted.waiting;
  const PkgdistStatus status = instcomm_pkgdist_get_file(
      path.c_str(), options.type, options.location, options.priority,
      instcomm_pkgdist_get_receive_xact_id(), node.loop(), on_file, &wanted);
  if (status == 0 || status == PKGDIST_ERR_SEND) return;  // a request not sent is sent again
  --wanted.waiting;
  ++wanted.failed;
  wanted.printer->file_ended(status, path.c_str(), options.location, 0);
}

}  // namespace

int get_command(const NodeOptions& options) {
  if (options.common.locations.count(options.location) == 0)
    throw CLI::ValidationError(
        fmt::format("--to {}: give --location {}=DIR too", options.location, options.location));
  EventPrinter printer(options);
  Wanted wanted{&printer};
  Node node(options);
  printer.attach(node.loop());
  if (!node.run_until([&] { return printer.lead_is_known(); }, options.timeout_seconds)) {
    printer.error(fmt::format("no lead was heard on {}",
                              cli::format_address(options.common.ctrl_group.address)));
    return cli::kExitFailure;
  }
  for (const std::string& path : options.paths) request(options, node, path, wanted);
  if (!node.run_until([&] { return wanted.waiting == 0; }, options.timeout_seconds))
    printer.error(
        fmt::format("{} of {} files have not arrived", wanted.waiting, options.paths.size()));
  return wanted.waiting == 0 && wanted.failed == 0 ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::node_program
