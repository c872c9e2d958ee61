// run: receives what the lead pushes, and hands its messages to a command, until told to stop.
#include <cstdio>
#include <cstdlib>

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
  const std::string* command;
  FlushService* flush_service;
};

void run_for_message(const MessageClass& target, const void* bytes, uint64_t size) {
  (void)setenv("PKGDIST_MESSAGE_CLASS", std::to_string(target.number).c_str(), 1);
  FILE* input = popen(target.command->c_str(), "w");
  if (input == nullptr) {
    target.printer->error("'" + *target.command + "' could not be started");
    return;
  }
  (void)std::fwrite(bytes, 1, size, input);  // a command need not read all of it
  if (const int status = pclose(input); status != 0)
    target.printer->error("'" + *target.command + "' ended with status " + std::to_string(status));
}

void on_message(const void* bytes, uint64_t size, void* ctx) {
  const auto& target = *static_cast<MessageClass*>(ctx);
  if (target.flush_service->on_message(target.number, {static_cast<const uint8_t*>(bytes), size}))
    return;
  target.printer->message(target.number, size);
  if (!target.command->empty()) run_for_message(target, bytes, size);
}

}  // namespace

int run_command(const NodeOptions& options) {
  MessageClass classes[PKGDIST_CTRL_CLASS_LAST - PKGDIST_CTRL_CLASS_FIRST + 1];
  set_repair_interval(options.repair_interval_ms);
  Node node(options);
  EventPrinter printer(options);
  printer.attach(node.loop(), node.partial_files());
  uint32_t number = PKGDIST_CTRL_CLASS_FIRST;
  for (MessageClass& target : classes) {
    target = {number, &printer, &options.on_message, &node.flush_service()};
    require(instcomm_pkgdist_ctrl_mc_hdlr_attach(node.loop(), number++, on_message, &target),
            "attaching to messages");
  }
  node.run();
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
