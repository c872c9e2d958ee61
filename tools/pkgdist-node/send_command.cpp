// send: sends the lead one message and exits by its outcome.
#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <optional>

#include "commands.h"
#include "event_printer.h"
#include "last_error.h"
#include "node.h"
#include "running_node.h"

namespace pkgdist::node_program {

namespace {

void on_status(uint64_t status, void* ctx) {
  *static_cast<std::optional<uint64_t>*>(ctx) = status;
}

}  // namespace

int send_command(const NodeOptions& options) {
  const std::string message = cli::message_bytes(options.message);
  if (message.empty()) throw CLI::ValidationError("an empty message cannot be sent");
  if (auto node = connect_to_node(options)) return send_through(*node, options, message);
  EventPrinter printer(options);
  std::optional<uint64_t> outcome;
  Node node(options);
  printer.attach(node);
  if (!await_lead(node, printer, options)) return cli::kExitFailure;
  require(instcomm_pkgdist_ctrl_send_lead_msg(message.data(), message.size(), options.message_class,
                                              node.loop(), on_status, &outcome),
          "sending the message");
  if (!node.run_until([&] { return outcome.has_value(); }, options.timeout_seconds,
                      heard_about_messages)) {
    printer.gave_up("the lead has not acknowledged the message", options.timeout_seconds);
    return cli::kExitFailure;
  }
  printer.message_outcome(*outcome, message_text(*outcome));
  return *outcome == 0 ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::node_program
