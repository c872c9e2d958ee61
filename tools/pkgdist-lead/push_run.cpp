#include "push_run.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "counted.h"

namespace pkgdist::lead_program {

namespace {

void tell_counters(Reporter& reporter, const PushEnd& end) {
  const lead::Counters& c = end.counters;
  reporter.json().print("counters",
                        {{"segments_sent", c.segments_sent},
                         {"repairs_sent", c.repairs_sent},
                         {"segments_requested", c.segments_requested},
                         {"infos_sent", c.infos_sent},
                         {"miss_done_sent", c.miss_done_sent},
                         {"polls_sent", c.polls_sent},
                         {"control_sent", c.control_sent},
                         {"control_resent", c.control_resent},
                         {"data_bytes_sent", c.data_bytes_sent},
                         {"bad_datagrams", c.bad_datagrams},
                         {"other_lead_heard", c.other_lead_heard},
                         {"send_errors", end.send_errors}},
                        cli::Output::Kind::kResult);
}

// The doctor's command line for this lead: the options that differ from the usual ones, too.
std::string doctor_command(const cli::CommonOptions& common) {
  const cli::CommonOptions usual;
  std::string command = "pkgdist-doctor --interface " + cli::format_address(common.interface);
  const auto group = [&](const char* option, const cli::Endpoint& value,
                         const cli::Endpoint& other) {
    if (value.address != other.address || value.port != other.port)
      command += fmt::format(" {} {}", option, cli::format_endpoint(value));
  };
  const auto port = [&](const char* option, uint16_t value, uint16_t other) {
    if (value != other) command += fmt::format(" {} {}", option, value);
  };
  group("--ctrl-group", common.ctrl_group, usual.ctrl_group);
  group("--data-group", common.data_group, usual.data_group);
  port("--lead-port", common.lead_port, usual.lead_port);
  port("--node-port", common.node_port, usual.node_port);
  port("--req-port", common.req_port, usual.req_port);
  return command + " --wait 60 lead";
}

// When nobody came, the network is what to look at.
void tell_doctor(Reporter& reporter, const lead::PushReport& report,
                 const cli::CommonOptions& common) {
  if (std::any_of(report.nodes.begin(), report.nodes.end(),
                  [](const lead::PushNodeReport& node) { return node.heard; }))
    return;
  const std::string command = doctor_command(common);
  reporter.json().print("nobody-heard", {{"command", command}}, cli::Output::Kind::kResult);
  reporter.say("no node was heard; run this here, and the doctor on a node at the same time:",
               cli::Output::Kind::kResult);
  reporter.say("  " + command, cli::Output::Kind::kResult);
}

// Of a push to a list of nodes: who was heard beside them.
void tell_others(Reporter& reporter, const PushEnd& end, const lead::PushRequest& request) {
  if (!end.began || request.nodes.empty()) return;
  const auto listed = static_cast<size_t>(
      std::count_if(end.report.nodes.begin(), end.report.nodes.end(),
                    [](const lead::PushNodeReport& node) { return node.heard; }));
  if (end.nodes_heard <= listed) return;
  const size_t others = end.nodes_heard - listed;
  reporter.json().print("others-heard", {{"nodes", others}}, cli::Output::Kind::kResult);
  reporter.say(fmt::format("{} heard; the push was not for {}",
                           cli::counted(others, "other node was", "other nodes were"),
                           others == 1 ? "it" : "them"));
}

}  // namespace

bool tell_absent(Reporter& reporter, const lead::PushReport& report,
                 const cli::CommonOptions& common) {
  const size_t absent = absent_nodes(report);
  if (absent == 0) return false;
  reporter.say(fmt::format("{} of {} nodes never appeared", absent, report.expected_nodes),
               cli::Output::Kind::kResult);
  tell_doctor(reporter, report, common);
  return true;
}

bool tell_end(const LeadOptions& options, const lead::PushRequest& request, Reporter& reporter,
              PushView& view, PushEnd end) {
  reporter.sort_by_name(end.report.nodes);
  if (end.blocked_by != 0)
    reporter.error(fmt::format("another lead, {}, leads", cli::format_address(end.blocked_by)));
  else if (end.began && !end.interrupted)
    tell_doctor(reporter, end.report, options.common);
  if (end.interrupted) view.interrupted(end.report);
  if (!options.quiet || !end.report.complete()) view.summary(end.report, request, end.counters);
  tell_others(reporter, end, request);
  tell_counters(reporter, end);
  return end.report.complete();
}

}  // namespace pkgdist::lead_program
