#include <fmt/core.h>

#include "commands.h"
#include "control_server.h"
#include "message_runner.h"
#include "metrics.h"
#include "reporter.h"
#include "session.h"

namespace pkgdist::lead_program {

int serve_command(const LeadOptions& options) {
  const std::string address = cli::format_address(require_interface(options));
  if (options.common.locations.empty()) {
    fmt::print(stderr, "pkgdist-lead: --location N=DIR is missing\n");
    return cli::kExitUsage;
  }
  Reporter reporter(options.common.json, options.common.verbosity);
  Session session(options, reporter);
  if (!session.hears_leads(reporter) && options.standby) return cli::kExitFailure;
  const std::unique_ptr<ControlServer> control = open_control(options, session, reporter);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  MessageRunner runner(options.on_message, session.poller(), reporter);
  reporter.on_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                            std::span<const uint8_t> bytes) { runner.add(node, msg_class, bytes); };
  reporter.json().print("serving", {{"address", address}, {"standby", options.standby}});
  reporter.say(fmt::format("serving on {}{}", address, options.standby ? ", standing by" : ""));
  session.run(
      [&](lead::Time now) {
        if (control) control->run(now);
        if (metrics) metrics->run(session.lead(), session.transport().send_errors(), now);
        return false;
      },
      lead::kSecond);
  reporter.json().print("stopped", {});
  reporter.say("stopped");
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
