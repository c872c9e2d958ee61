#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <filesystem>

#include "commands.h"
#include "control_server.h"
#include "durability.h"
#include "metrics.h"
#include "node_programs.h"
#include "output.h"
#include "push_description.h"
#include "push_display.h"
#include "push_preview.h"
#include "push_run.h"
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
  // The other lead; 0: none.
  uint32_t in_the_way() const { return stands_by() ? lead_.other_lead() : 0; }

 private:
  bool stands_by() const { return lead_.role() == lead::Role::kStandingBy; }

  const lead::Lead& lead_;
  lead::Time until_;
};

// Asks the nodes to write to their disks, and waits for their answers; true when all have.
bool make_durable(const LeadOptions& options, Session& session, NodePrograms& programs,
                  Reporter& reporter) {
  lead::Lead& lead = session.lead();
  Durability durability(lead.push_transaction(), options.location);
  programs.takes_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                               std::span<const uint8_t> bytes) {
    return durability.on_message(node.address, msg_class, bytes);
  };
  durability.ask(lead, lead.push_report(), static_cast<lead::Time>(options.durable_seconds * 1e9),
                 lead::monotonic_now());
  session.run([&](lead::Time now) { return durability.ended(now); }, lead::kSecond / 10);
  programs.takes_message = nullptr;
  return report_durability(reporter, durability.outcomes());
}

// In a lead of this process. True when every node has everything.
bool push_here(const LeadOptions& options, const lead::PushRequest& request, Reporter& reporter) {
  const std::unique_ptr<Session> opened = open_session(options, reporter, reporter);
  Session& session = *opened;
  lead::Lead& lead = session.lead();
  if (const char* problem = lead.start_push(request, lead::monotonic_now()))
    throw CLI::ValidationError(problem);
  reporter.json().print("push-requested", push_description(options, request),
                        cli::Output::Kind::kResult);
  (void)session.hears_leads(reporter);
  NodePrograms programs(lead, reporter);
  programs.push_begins(request.location);
  const std::unique_ptr<ControlServer> control = open_control(options, session, programs, reporter);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  const Course course(lead, request.node_timeout);
  OwnPush push(lead);
  PushView view(reporter);
  bool ran = false;
  {
    PushDisplay display(reporter, view, options, request.node_timeout);
    ran = session.run(
        [&](lead::Time now) {
          display.run(push, now);
          programs.run(now);
          if (control) control->run(now);
          if (metrics) metrics->run(lead, session.transport().send_errors(), now);
          return course.blocked(now) ||
                 (!lead.push_running() && !programs.busy(now) && (!control || !control->busy()));
        },
        display.period());
  }
  const uint32_t in_the_way = course.in_the_way();
  if (lead.push_running()) lead.stop_push(lead::monotonic_now());
  const bool complete = tell_end(options, request, reporter, view,
                                 {.report = lead.push_report(),
                                  .counters = lead.counters(),
                                  .send_errors = session.transport().send_errors(),
                                  .interrupted = !ran,
                                  .blocked_by = in_the_way,
                                  .nodes_heard = lead.node_counts().heard});
  const bool durable =
      !options.durable || (ran && make_durable(options, session, programs, reporter));
  return complete && durable;
}

std::vector<std::string> paths_of(const LeadOptions& options) {
  std::vector<std::string> paths = options.paths;
  if (!options.files_from.empty())
    for (std::string& name : names_from(options.files_from)) paths.push_back(std::move(name));
  return paths;
}

// By which a push is listed: what was given, or its paths.
std::string name_of(const LeadOptions& options, const std::vector<std::string>& paths) {
  constexpr size_t kMaxName = 100;
  if (!options.push_name.empty()) return options.push_name;
  std::string name;
  for (const std::string& path : paths) {
    if (name.size() > kMaxName) break;
    name += (name.empty() ? "" : " ") + path;
  }
  return name.substr(0, kMaxName);
}

// What a lead that serves has been told at its start.
const char* setting_of_the_lead(const LeadOptions& options) {
  const LeadOptions usual;
  return options.rate_bits != 0       ? "--rate"
         : options.max_rate_bits != 0 ? "--max-rate"
         : options.metrics            ? "--metrics"
         : options.ttl != usual.ttl   ? "--ttl"
         : options.multi_homed        ? "--multi-homed"
                                      : nullptr;
}

// The options as the push has them: what the lead that serves was told at its start counts there.
LeadOptions with_settings_of(const ServingLead& lead, LeadOptions options) {
  cli::CommonOptions& common = options.common;
  common.interface = lead.address();
  common.ctrl_group = lead.group("ctrl_group");
  common.data_group = lead.group("data_group");
  if (const std::string root = lead.root(options.location);
      common.locations.count(options.location) == 0 && !root.empty())
    common.locations[options.location] = {.number = options.location, .path = root};
  return options;
}

int push_tree(const LeadOptions& options, bool serving, const std::string& root) {
  const std::vector<std::string> paths = paths_of(options);
  if (paths.empty()) return usage_error("push: no PATH and no --files-from");
  lead::FileTree tree = lead::collect_files(root, paths);
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
  const bool complete =
      serving ? push_through(
                    options,
                    {.name = name_of(options, paths),
                     .root = std::filesystem::absolute(root).string(),
                     .request = request,
                     .durable_seconds =
                         options.durable ? std::optional(options.durable_seconds) : std::nullopt},
                    reporter)
              : push_here(options, request, reporter);
  if (!tree.left_out.empty())
    reporter.say(fmt::format("{} entries of the tree were left out", tree.left_out.size()));
  return complete && tree.left_out.empty() ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace

int push_command(const LeadOptions& given) {
  if (given.control_path.empty()) (void)require_interface(given);
  const std::optional<ServingLead> serving = find_serving_lead(given);
  if (!serving) (void)require_interface(given);
  const LeadOptions options = serving ? with_settings_of(*serving, given) : given;
  const auto location = options.common.locations.find(options.location);
  if (location == options.common.locations.end())
    return usage_error(
        serving ? fmt::format("the lead that serves here has no location {}", options.location)
                : fmt::format("--location {}=DIR is missing", options.location));
  if (const char* setting = setting_of_the_lead(options); serving && setting != nullptr)
    return usage_error(
        fmt::format("{}: the lead that serves here was told at its start; leave it out", setting));
  return push_tree(options, serving.has_value(), location->second.path);
}

}  // namespace pkgdist::lead_program
