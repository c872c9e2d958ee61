#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <filesystem>

#include "commands.h"
#include "counted.h"
#include "output.h"
#include "push_checksums.h"
#include "push_preview.h"
#include "push_run.h"

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

// Why nothing may be removed on nodes, although it was asked for; null when it may.
const char* why_no_mirror(const LeadOptions& options, const lead::FileTree& tree) {
  if (!options.files_from.empty()) return "--delete: not with --files-from, which is a part of it";
  if (tree.walked.empty()) return "--delete: none of the paths is a directory";
  return nullptr;
}

QueuedPush queued_push(const LeadOptions& options, const std::string& root,
                       const std::vector<std::string>& paths, lead::FileTree& tree,
                       const std::optional<lead::FileTree>& whole) {
  QueuedPush push{.name = name_of(options, paths),
                  .root = std::filesystem::absolute(root).string(),
                  .request = {}};
  push.tree = push_tree(tree, whole, options.filter);
  push.tree.only_list = options.dry_run;
  push.request = push_request(options, tree);
  if (options.durable) push.durable_seconds = options.durable_seconds;
  return push;
}

// push --dry-run. Nodes are asked only for what --delete would remove.
int preview_all(const LeadOptions& options, bool serving, const lead::FileTree& tree,
                const QueuedPush& push, Reporter& reporter) {
  const int status = preview(options, tree, reporter);
  if (!push.tree.mirror) return status;
  const bool listed =
      serving ? list_through(options, push, reporter) : list_here(options, push, reporter);
  return listed ? status : cli::kExitFailure;
}

int push_files(const LeadOptions& options, bool serving, const std::string& root) {
  const std::vector<std::string> paths = paths_of(options);
  if (paths.empty()) return usage_error("push: no PATH and no --files-from");
  lead::FileTree tree = lead::collect_files(root, paths);
  if (const char* why = why_no_mirror(options, tree);
      options.mirror && tree.problems.empty() && why)
    return usage_error(why);
  const bool mirror = options.mirror && tree.all_read;
  const auto whole = mirror ? std::optional(tree) : std::nullopt;
  select(tree, options.filter);
  for (const std::string& warning : tree.warnings) cli::complain("warning: " + warning);
  if (refuses(tree, options.strict)) return cli::kExitUsage;

  Reporter reporter(options.common.json, options.common.verbosity);
  reporter.quiet = options.quiet;
  reporter.names = options.node_names;
  tell_left_out(tree, "left out: ");
  if (options.mirror && !mirror)
    reporter.error("--delete: nothing is removed, because a directory could not be read");
  else if (mirror && !options.filter.exclude.empty())
    reporter.say("--delete: names that --exclude leaves out stay on the nodes");
  const lead::FileTree shown = options.dry_run ? tree : lead::FileTree();
  QueuedPush push = queued_push(options, root, paths, tree, whole);
  if (options.dry_run) return preview_all(options, serving, shown, push, reporter);
  left_out_events(tree, reporter);
  PushChecksums checksums;
  if (options.checksum) checksums = make_checksums(root, push.request.files, options, reporter);
  push.tree.checksums = std::move(checksums.parts);
  const bool complete =
      serving ? push_through(options, push, reporter).good() : push_here(options, push, reporter);
  if (!tree.left_out.empty())
    reporter.say(cli::counted(tree.left_out.size(), "entry of the tree was left out",
                              "entries of the tree were left out"));
  const bool whole_tree = tree.left_out.empty() && checksums.left_out == 0;
  return complete && whole_tree && mirror == options.mirror ? cli::kExitOk : cli::kExitFailure;
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
  return push_files(options, serving.has_value(), location->second.path);
}

}  // namespace pkgdist::lead_program
