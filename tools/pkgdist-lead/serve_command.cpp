#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "control_server.h"
#include "lead_events.h"
#include "metrics.h"
#include "push_queue.h"
#include "reporter.h"
#include "session.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

int serve_command(const LeadOptions& options) {
  const std::string address = cli::format_address(require_interface(options));
  if (options.common.locations.empty()) {
    cli::complain("--location N=DIR is missing");
    return cli::kExitUsage;
  }
  Reporter reporter(options.common.json, options.common.verbosity);
  EventTee events(reporter);
  const std::unique_ptr<Session> opened = open_session(options, reporter, events);
  Session& session = *opened;
  if (!session.hears_leads(reporter) && options.standby) return cli::kExitNotStarted;
  NodePrograms programs(session.lead(), reporter);
  programs.follow_releases();
  PushQueue queue(session.lead(), session.store(), events, programs,
                  [&] { return session.transport().send_errors(); });
  const std::unique_ptr<ControlServer> control =
      open_control(options, session, programs, reporter, &queue);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  cli::MessageRunner runner(options.on_message,
                            [&](const std::string& text) { reporter.error(text); });
  reporter.on_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                            std::span<const uint8_t> bytes) {
    runner.add({reinterpret_cast<const char*>(bytes.data()), bytes.size()},
               {{"PKGDIST_MESSAGE_CLASS", std::to_string(msg_class)},
                {"PKGDIST_MESSAGE_NODE", cli::format_address(node.address)}});
  };
  reporter.json().print("serving", {{"address", address}, {"standby", options.standby}});
  reporter.say(fmt::format("serving on {}{}", address, options.standby ? ", standing by" : ""));
  session.run(
      [&](lead::Time now) {
        if (control) control->run(now);
        programs.run(now);
        if (metrics) metrics->run(session.lead(), programs, session.transport().send_errors(), now);
        return false;
      },
      PushQueue::kTellPeriod);
  reporter.json().print("stopped", {{"signal", cli::signal_name(cli::stop_signal())}},
                        cli::Output::Kind::kResult);
  reporter.say("stopped by " + cli::signal_name(cli::stop_signal()), cli::Output::Kind::kResult);
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
