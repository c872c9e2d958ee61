// run: receives what the lead pushes, and hands its messages to a command, until told to stop.
#include <CLI/Error.hpp>

#include "commands.h"
#include "event_printer.h"
#include "node.h"
#include "pkgdist/wire_ctrl.h"

namespace pkgdist::node_program {

namespace {

// What the handler of one message class needs.
struct MessageClass {
  uint32_t number;
  EventPrinter* printer;
  cli::MessageRunner* runner;
  FlushService* flush_service;
};

void on_message(const void* bytes, uint64_t size, void* ctx) {
  const auto& target = *static_cast<MessageClass*>(ctx);
  if (target.flush_service->on_message(target.number, {static_cast<const uint8_t*>(bytes), size}))
    return;
  target.printer->message(target.number, size);
  target.runner->add({static_cast<const char*>(bytes), size},
                     {{"PKGDIST_MESSAGE_CLASS", std::to_string(target.number)}});
}

}  // namespace

int run_command(const NodeOptions& options) {
  if (options.common.locations.empty())
    throw CLI::ValidationError("--location N=DIR is missing: nothing could be received");
  MessageClass classes[PKGDIST_CTRL_CLASS_LAST - PKGDIST_CTRL_CLASS_FIRST + 1];
  set_repair_interval(options.repair_interval_ms);
  Node node(options);
  EventPrinter printer(options);
  printer.listening(options);
  cli::MessageRunner runner(options.on_message,
                            [&](const std::string& text) { printer.error(text); });
  printer.attach(node);
  uint32_t number = PKGDIST_CTRL_CLASS_FIRST;
  for (MessageClass& target : classes) {
    target = {number, &printer, &runner, &node.flush_service()};
    require(instcomm_pkgdist_ctrl_mc_hdlr_attach(node.loop(), number++, on_message, &target),
            "attaching to messages");
  }
  node.run();
  printer.stopped();
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
