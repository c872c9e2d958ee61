#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>

#include "commands.h"
#include "control_server.h"
#include "durability.h"
#include "metrics.h"
#include "output.h"
#include "progress.h"
#include "push_preview.h"
#include "push_view.h"
#include "session.h"

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kDrawPeriod = 200 * lead::kMillisecond;
// How often rates are measured. With many nodes a look at all of them takes milliseconds, in which
// nothing is sent.
constexpr lead::Time kLookPeriod = lead::kSecond;
constexpr size_t kManyNodes = 100;
// Lines in a log: seldom enough to be read.
constexpr lead::Time kLinePeriod = 5 * lead::kSecond;
constexpr lead::Time kJsonPeriod = lead::kSecond;

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

// Shows a push while it runs: bars on a terminal, lines or events otherwise.
class Display {
 public:
  Display(Reporter& reporter, PushView& view, bool json, lead::Time node_timeout)
      : reporter_(reporter), view_(view), node_timeout_(node_timeout) {
    bars_wanted_ = !json && !reporter.quiet && ::isatty(STDOUT_FILENO) == 1;
    look_period_ = bars_wanted_ ? kDrawPeriod : kLookPeriod;
    show_period_ = bars_wanted_ ? kDrawPeriod : json ? kJsonPeriod : kLinePeriod;
    if (bars_wanted_) reporter_.before_line = [this] { return bars_.erasure(); };
  }
  ~Display() {
    bars_.erase();
    reporter_.before_line = nullptr;
  }
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  lead::Time period() const { return look_period_; }

  void run(lead::Lead& lead, lead::Time now) {
    if (lead::elapsed(now, looked_) < look_period_) return;
    const lead::PushReport report = lead.push_progress();
    looked_ = now;
    if (!report.started) return wait(report, now);
    waiting_shown_ = 0;
    meter_.update(report, now);
    if (report.nodes.size() > kManyNodes) look_period_ = kLookPeriod;
    if (shown_ == 0) shown_ = report.started_at;
    if (lead::elapsed(now, shown_) < show_period_) return;
    shown_ = now;
    if (bars_wanted_)
      bars_.draw(report, meter_, overall_line(report, meter_, lead, now));
    else
      view_.progress(report, meter_, lead, now);
  }

 private:
  // Most nodes are heard within a second: that is not told.
  static constexpr lead::Time kSoon = 1500 * lead::kMillisecond;

  void wait(const lead::PushReport& report, lead::Time now) {
    const lead::Time waited = lead::elapsed(now, report.started_at);
    if (report.finished || waited < kSoon || absent_nodes(report) == 0) return;
    if (lead::elapsed(now, waiting_shown_) < (bars_wanted_ ? kDrawPeriod : kLinePeriod)) return;
    waiting_shown_ = now;
    const double left = static_cast<double>(node_timeout_ - std::min(waited, node_timeout_)) /
                        static_cast<double>(lead::kSecond);
    const std::string line = waiting_line(report, left);
    if (bars_wanted_)
      bars_.draw_line(line);
    else
      view_.waiting(report, line, left);
  }

  Reporter& reporter_;
  PushView& view_;
  lead::Time node_timeout_;
  lead::Time waiting_shown_ = 0;
  PushMeter meter_;
  ProgressBars bars_;
  bool bars_wanted_ = false;
  lead::Time look_period_ = kLookPeriod;
  lead::Time show_period_ = kLinePeriod;
  lead::Time looked_ = 0;
  lead::Time shown_ = 0;
};

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
  (void)session.hears_leads(reporter);
  const std::unique_ptr<ControlServer> control = open_control(options, session, reporter);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  const Course course(session.lead(), request.node_timeout);
  PushView view(reporter);
  bool ran = false;
  {
    Display display(reporter, view, options.common.json, request.node_timeout);
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
