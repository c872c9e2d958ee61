// run: receives what the lead pushes, and hands its messages to a command, until told to stop.
#include <CLI/Error.hpp>

#include "commands.h"
#include "completion.h"
#include "event_printer.h"
#include "node.h"
#include "pkgdist/wire_ctrl.h"
#include "running_node.h"
#include "tree_service.h"

namespace pkgdist::node_program {

namespace {

// What the handler of one message class needs.
struct MessageClass {
  uint32_t number;
  EventPrinter* printer;
  cli::MessageRunner* runner;
  FlushService* flush_service;
  LeadTalk* talk;
};

void on_message(const void* bytes, uint64_t size, void* ctx) {
  const auto& target = *static_cast<MessageClass*>(ctx);
  const std::span<const uint8_t> text{static_cast<const uint8_t*>(bytes), size};
  if (target.flush_service->on_message(target.number, text) ||
      target.talk->on_message(target.number, text))
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
  LeadTalk talk(options.common);
  talk.on_question = [&](const char* what) { printer.question(what); };
  talk.on_unset = [&](uint32_t location) { printer.location_unset(location); };
  printer.set_lead_talk(&talk);
  const auto report = [&](const std::string& text) { printer.error(text); };
  cli::MessageRunner runner(options.on_message, report);
  Completion completion(options.on_complete, report);
  printer.on_file_complete = [&](uint32_t xact_id, const std::string& name) {
    completion.file_complete(xact_id, name);
  };
  TreeService trees(options, [&](uint32_t location, const std::vector<std::string>& names) {
    printer.removed(location, names);
  });
  talk.takes_question = [&](const cli::NodeQuestion& question) {
    return trees.take(question) || completion.take(question);
  };
  if (!options.on_complete.command.empty())
    talk.complete_seconds = options.on_complete.limit_seconds;
  printer.attach(node);
  uint32_t number = PKGDIST_CTRL_CLASS_FIRST;
  for (MessageClass& target : classes) {
    target = {number, &printer, &runner, &node.flush_service(), &talk};
    require(instcomm_pkgdist_ctrl_mc_hdlr_attach(node.loop(), number++, on_message, &target),
            "attaching to messages");
  }
  const std::unique_ptr<RunningNode> control = open_control(options, node, printer, talk);
  node.run();
  printer.stopped();
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
