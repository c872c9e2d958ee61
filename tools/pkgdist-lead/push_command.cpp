#include <fmt/core.h>

#include <algorithm>

#include "commands.h"
#include "control_server.h"
#include "durability.h"
#include "metrics.h"
#include "output.h"
#include "push_description.h"
#include "push_display.h"
#include "push_preview.h"
#include "push_view.h"
#include "session.h"

namespace pkgdist::lead_program {

namespace {

int usage_error(const std::string& text) {
  cli::complain(text);
  return cli::kExitUsage;
}

// Why nothing of the tree is pushed, told; false when it is.
bool refuses(const lead::FileTree& tree, bool strict) {
  if (!tree.problems.empty()) {
    const size_t more = tree.problems.size() - 1;
    usage_error(more == 0 ? tree.problems[0]
                          : fmt::format("{} (and {} more like this)", tree.problems[0], more));
    return true;
  }
  if (tree.left_out.empty() || (!strict && !tree.files.empty())) return false;
  tell_left_out(tree, "");
  return true;
}

lead::PushRequest push_request(const LeadOptions& options, lead::FileTree& tree) {
  lead::PushRequest request;
  request.files = std::move(tree.files);
  if (!options.keep_directory_links) request.directories = std::move(tree.directories);
  request.location = options.location;
  request.type = options.type;
  request.priority = options.priority;
  request.nodes = options.nodes;
  request.node_count = options.node_count;
  request.node_timeout = static_cast<lead::Time>(options.timeout_seconds * 1e9);
  request.slow_nodes = options.slow_nodes;
  request.max_time = static_cast<lead::Time>(options.max_seconds * 1e9);
  return request;
}

// Whether another lead is in the way. A push waits for it to fall silent, as long as it waits for
// nodes, and is given up when a lead that began earlier turns up.
class Course {
 public:
  Course(const lead::Lead& lead, lead::Time patience)
      : lead_(lead), until_(lead::monotonic_now() + patience) {}

  bool blocked(lead::Time now) const { return stands_by() && now >= until_; }
  void tell(Reporter& reporter) const {
    if (stands_by())
      reporter.error(
          fmt::format("another lead, {}, leads", cli::format_address(lead_.other_lead())));
  }

 private:
  bool stands_by() const { return lead_.role() == lead::Role::kStandingBy; }

  const lead::Lead& lead_;
  lead::Time until_;
};

void tell_counters(Reporter& reporter, Session& session) {
  const lead::Counters& c = session.lead().counters();
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
                         {"send_errors", session.transport().send_errors()}},
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
void tell_doctor(Reporter& reporter, Session& session, const cli::CommonOptions& common) {
  const lead::PushReport report = session.lead().push_progress();
  if (std::any_of(report.nodes.begin(), report.nodes.end(),
                  [](const lead::PushNodeReport& node) { return node.heard; }))
    return;
  const std::string command = doctor_command(common);
  reporter.json().print("nobody-heard", {{"command", command}}, cli::Output::Kind::kResult);
  reporter.say("no node was heard; run this here, and the doctor on a node at the same time:",
               cli::Output::Kind::kResult);
  reporter.say("  " + command, cli::Output::Kind::kResult);
}

// Asks the nodes to write to their disks, and waits for their answers; true when all have.
bool make_durable(const LeadOptions& options, Session& session, Reporter& reporter) {
  lead::Lead& lead = session.lead();
  Durability durability(reporter, lead.push_transaction(), options.location);
  reporter.takes_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                               std::span<const uint8_t> bytes) {
    return durability.on_message(node.address, msg_class, bytes);
  };
  durability.ask(lead, lead.push_report(), static_cast<lead::Time>(options.durable_seconds * 1e9),
                 lead::monotonic_now());
  session.run([&](lead::Time now) { return durability.ended(now); }, lead::kSecond / 10);
  reporter.takes_message = nullptr;
  return durability.report();
}

std::vector<std::string> paths_of(const LeadOptions& options) {
  std::vector<std::string> paths = options.paths;
  if (!options.files_from.empty())
    for (std::string& name : names_from(options.files_from)) paths.push_back(std::move(name));
  return paths;
}

// Of a push to a list of nodes: who was heard beside them.
void tell_others(Reporter& reporter, Session& session, const lead::PushReport& report,
                 const lead::PushRequest& request) {
  if (request.nodes.empty()) return;
  const auto listed = static_cast<size_t>(
      std::count_if(report.nodes.begin(), report.nodes.end(),
                    [](const lead::PushNodeReport& node) { return node.heard; }));
  const size_t heard = session.lead().node_counts().heard;
  if (heard <= listed) return;
  reporter.json().print("others-heard", {{"nodes", heard - listed}}, cli::Output::Kind::kResult);
  reporter.say(fmt::format("{} other nodes were heard; the push was not for them", heard - listed));
}

}  // namespace

int push_command(const LeadOptions& options) {
  (void)require_interface(options);
  const auto location = options.common.locations.find(options.location);
  if (location == options.common.locations.end())
    return usage_error(fmt::format("--location {}=DIR is missing", options.location));
  const std::vector<std::string> paths = paths_of(options);
  if (paths.empty()) return usage_error("push: no PATH and no --files-from");
  lead::FileTree tree = lead::collect_files(location->second.path, paths);
  select(tree, options.filter);
  for (const std::string& warning : tree.warnings) cli::complain("warning: " + warning);
  if (refuses(tree, options.strict)) return cli::kExitUsage;

  Reporter reporter(options.common.json, options.common.verbosity);
  reporter.quiet = options.quiet;
  reporter.names = options.node_names;
  tell_left_out(tree, "left out: ");
  if (options.dry_run) return preview(options, tree, reporter);
  const lead::PushRequest request = push_request(options, tree);
  left_out_events(tree, reporter);
  Session session(options, reporter);
  if (const char* problem = session.lead().start_push(request, lead::monotonic_now()))
    return usage_error(problem);
  reporter.json().print("push-requested", push_description(options, request),
                        cli::Output::Kind::kResult);
  (void)session.hears_leads(reporter);
  const std::unique_ptr<ControlServer> control = open_control(options, session, reporter);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  const Course course(session.lead(), request.node_timeout);
  PushView view(reporter);
  bool ran = false;
  {
    PushDisplay display(reporter, view, options, request.node_timeout);
    ran = session.run(
        [&](lead::Time now) {
          display.run(session.lead(), now);
          if (control) control->run(now);
          if (metrics) metrics->run(session.lead(), session.transport().send_errors(), now);
          return course.blocked(now) ||
                 (!session.lead().push_running() && (!control || !control->busy()));
        },
        display.period());
  }
  course.tell(reporter);
  if (ran && !course.blocked(lead::monotonic_now())) tell_doctor(reporter, session, options.common);
  if (session.lead().push_running()) session.lead().stop_push(lead::monotonic_now());
  lead::PushReport report = session.lead().push_report();
  reporter.sort_by_name(report.nodes);
  if (!ran) view.interrupted(report);
  if (!options.quiet || !report.complete())
    view.summary(report, request, session.lead().counters());
  tell_others(reporter, session, report, request);
  tell_counters(reporter, session);
  const bool durable = !options.durable || (ran && make_durable(options, session, reporter));
  if (!tree.left_out.empty())
    reporter.say(fmt::format("{} entries of the tree were left out", tree.left_out.size()));
  return report.complete() && durable && tree.left_out.empty() ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::lead_program
