// run: receives what the lead pushes, and hands its messages to a command, until told to stop.
#include <CLI/Error.hpp>

#include "commands.h"
#include "completion.h"
#include "event_printer.h"
#include "node.h"
#include "pkgdist/wire_ctrl.h"
#include "release_service.h"
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
  ReleaseService* releases;  // or null
};

void on_message(const void* bytes, uint64_t size, void* ctx) {
  const auto& target = *static_cast<MessageClass*>(ctx);
  const std::span<const uint8_t> text{static_cast<const uint8_t*>(bytes), size};
  if (target.flush_service->on_message(target.number, text) ||
      target.talk->on_message(target.number, text) ||
      (target.releases != nullptr && target.releases->on_message(target.number, text)))
    return;
  target.printer->message(target.number, size);
  target.runner->add({static_cast<const char*>(bytes), size},
                     {{"PKGDIST_MESSAGE_CLASS", std::to_string(target.number)}});
}

// In release mode the only location is the part of the place that the network may write. Null in
// the usual mode.
std::unique_ptr<ReleaseService> open_releases(NodeOptions& options) {
  auto& locations = options.common.locations;
  if (options.releases.name.empty() && locations.empty())
    throw CLI::ValidationError("--location N=DIR is missing: nothing could be received");
  if (options.releases.name.empty()) return nullptr;
  if (!locations.empty())
    throw CLI::ValidationError("--location and --releases: a node takes files or releases");
  ReleasePlace place = open_release_place(options.releases, options.allow_setuid);
  const uint32_t number = options.releases.location;
  locations[number] = {number, place.incoming(), false};
  auto service = std::make_unique<ReleaseService>(options.releases, std::move(place));
  set_release_gate(number, service->installer());
  set_release_resume(number, service->installer());
  return service;
}

// The thread of the releases, as long as there is somebody to report to.
class RunningReleases {
 public:
  RunningReleases(ReleaseService* service, EventPrinter& printer) : service_(service) {
    if (service_ == nullptr) return;
    printer.on_file_ended = [service](uint32_t location, const std::string& path,
                                      const std::string& trouble) {
      service->file_ended(location, path, trouble);
    };
    service_->start(
        {[&printer](const cli::ReleaseState& state) { printer.release(state); }, send_to_lead});
  }
  ~RunningReleases() {
    if (service_ != nullptr) service_->stop();
  }
  RunningReleases(const RunningReleases&) = delete;
  RunningReleases& operator=(const RunningReleases&) = delete;

 private:
  ReleaseService* const service_;
};

}  // namespace

int run_command(const NodeOptions& given) {
  NodeOptions options = given;
  const std::unique_ptr<ReleaseService> releases = open_releases(options);
  MessageClass classes[PKGDIST_CTRL_CLASS_LAST - PKGDIST_CTRL_CLASS_FIRST + 1];
  set_time_outs(options.repair_interval_ms);
  Node node(options);
  EventPrinter printer(options);
  printer.listening(options);
  LeadTalk talk(options);
  talk.on_question = [&](const char* what) { printer.question(what); };
  talk.on_unset = [&](uint32_t location) { printer.location_unset(location); };
  printer.set_lead_talk(&talk);
  const auto report = [&](const std::string& text) { printer.error(text); };
  cli::MessageRunner runner(options.on_message, report);
  Completion completion(options.on_complete, report);
  printer.on_file_complete = [&](uint32_t xact_id, const std::string& name) {
    completion.file_complete(xact_id, name);
  };
  TreeService trees(options, {[&](uint32_t location, const std::vector<std::string>& names) {
                                printer.removed(location, names);
                              },
                              [&](uint32_t location, const cli::NodeAnswer& answer) {
                                printer.compared(location, answer);
                              },
                              [&node](uint64_t status, const std::string& path, uint32_t location) {
                                const std::string text = node.file_ended(location, path, status);
                                return status == 0 ? "" : text;
                              }});
  // What the network may write of releases, the gate says; nobody works on directories there.
  talk.takes_question = [&](const cli::NodeQuestion& question) {
    return (releases == nullptr && trees.take(question)) || completion.take(question);
  };
  if (!options.on_complete.command.empty())
    talk.complete_seconds = options.on_complete.limit_seconds;
  printer.attach(node);
  uint32_t number = PKGDIST_CTRL_CLASS_FIRST;
  for (MessageClass& target : classes) {
    target = {number, &printer, &runner, &node.flush_service(), &talk, releases.get()};
    require(instcomm_pkgdist_ctrl_mc_hdlr_attach(node.loop(), number++, on_message, &target),
            "attaching to messages");
  }
  const RunningReleases running(releases.get(), printer);
  const std::unique_ptr<RunningNode> control =
      open_control(options, node, printer, talk, releases.get());
  node.run();
  printer.stopped();
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
