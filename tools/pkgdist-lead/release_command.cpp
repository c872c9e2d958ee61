// push --release, activate: bring a signed release to the nodes, and switch them to it.
#include <fmt/format.h>

#include <CLI/Error.hpp>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "commands.h"
#include "expiry.h"
#include "order_numbers.h"
#include "output.h"
#include "pkgdist_lead/udp_transport.h"
#include "release_course.h"
#include "release_survey.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kMaxDifferenceLines = 50;

int release_usage_error(const std::string& text) {
  cli::complain(text);
  return cli::kExitUsage;
}

// False when nothing is to be pushed, which is told.
bool open(const LeadOptions& options, ReleaseSource& source) {
  try {
    OpenedRelease opened = open_release(options.release, options.verify);
    const auto& different = opened.differences;
    for (size_t i = 0; i < std::min(different.size(), kMaxDifferenceLines); ++i)
      cli::complain(different[i]);
    source = std::move(opened.source);
    const std::string warning = cli::expiry_warning(source.expires, std::time(nullptr));
    if (!warning.empty())
      cli::complain(fmt::format("{}: the release {}", options.release, warning));
    if (different.empty()) return true;
    cli::complain(
        fmt::format("{}: {} of the entries are not as the manifest says; nothing is pushed",
                    options.release, different.size()));
  } catch (const std::runtime_error& error) {
    cli::complain(fmt::format("{}: no release to push: {}", options.release, error.what()));
  }
  return false;
}

// Once it runs, something was begun, whatever happens to the lead that serves.
bool run_course(ReleaseCourse& course) {
  try {
    return course.run();
  } catch (const CLI::Error&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw cli::NotDone(error.what());
  }
}

// Runs it to its end, and tells that. The exit status.
int run(const LeadOptions& options, const ReleaseSource* source, ReleaseLink& link,
        Reporter& reporter, ReleasePush::Settings settings, const std::vector<uint32_t>& nodes,
        const HeardNodes* heard = nullptr) {
  const lead::Time began = lead::monotonic_now();
  settings.name = source != nullptr ? source->name : options.release;
  settings.location = options.location;
  settings.policy = options.activation;
  settings.first_number = first_order_number();
  ReleaseView view(reporter, settings.name, settings.release);
  ReleasePush push(settings, nodes);
  for (const uint32_t node : nodes)
    if (const std::string why = heard != nullptr ? heard->lack(node) : ""; !why.empty())
      push.leave_out(node, why);
  ReleaseCourse course(options, source, link, push, view);
  const bool ran = run_course(course);
  if (!ran) reporter.error("interrupted: nodes keep what they have so far");
  view.end(push, policy_text(options.activation),
           {course.bytes_sent(), lead::elapsed(lead::monotonic_now(), began)});
  return ran && push.complete() ? cli::kExitOk : cli::kExitFailure;
}

void tell_request(const LeadOptions& options, const ReleaseSource& source, Reporter& reporter) {
  uint64_t bytes = 0;
  for (const lead::PushFile& file : source.files) bytes += file.size;
  reporter.json().print(
      "release-requested",
      {{"name", source.name},
       {"version", source.id.version},
       {"manifest", source.id.manifest},
       {"root", source.directory},
       {"location", options.location},
       {"files", source.files.size()},
       {"bytes", bytes},
       {"nodes", options.nodes.empty() ? options.node_count : options.nodes.size()},
       {"activate", policy_text(options.activation)}},
      cli::Output::Kind::kResult);
}

// The release that the nodes mean by this version: its manifest. Throws NotDone when none of them
// has it, or they mean different ones.
cli::ReleaseId release_of(const std::map<uint32_t, cli::ReleaseState>& states,
                          const std::string& name, uint64_t version) {
  std::set<std::string> manifests;
  for (const auto& [node, state] : states)
    for (const auto& release : {state.candidate, state.current})
      if (state.name == name && release && release->version == version)
        manifests.insert(release->manifest);
  if (manifests.empty())
    throw cli::NotDone(fmt::format("none of the nodes that answer has {} {}", name, version));
  if (manifests.size() > 1)
    throw cli::NotDone(fmt::format("the nodes have {} different releases {} {}: {}",
                                   manifests.size(), name, version, fmt::join(manifests, ", ")));
  return {version, *manifests.begin()};
}

}  // namespace

int push_release_command(const LeadOptions& given) {
  ReleaseWay way = find_release_way(given);
  LeadOptions& options = way.options;
  ReleaseSource source;
  if (!open(options, source)) return cli::kExitUsage;
  if (source.directory.size() > 1 && source.directory.ends_with('/')) source.directory.pop_back();
  options.common.locations[options.location] = {.number = options.location,
                                                .path = source.directory};
  options.paths = {options.release};
  if (options.push_name.empty())
    options.push_name = fmt::format("{} {}", source.name, source.id.version);
  Reporter reporter(options.common.json, options.common.verbosity);
  reporter.quiet = options.quiet;
  reporter.names = options.node_names;
  options.quiet = !options.common.json;  // of its single pushes, only what goes wrong is told
  const std::unique_ptr<ReleaseLink> link = way.open(reporter);
  tell_request(options, source, reporter);
  return run(options, &source, *link, reporter,
             {.release = source.id,
              .files = source.files.size(),
              .expected_nodes = options.node_count,
              .silence = static_cast<lead::Time>(options.timeout_seconds * 1e9)},
             options.nodes);
}

int activate_command(const LeadOptions& given) {
  const ReleaseWay way = find_release_way(given);
  const LeadOptions& options = way.options;
  if (options.activation.kind == ActivationPolicy::Kind::kNever)
    return release_usage_error("activate: --activate no leaves nothing to do");
  Reporter reporter(options.common.json, options.common.verbosity);
  reporter.names = options.node_names;
  const std::unique_ptr<ReleaseLink> link = way.open(reporter);
  const auto patience = static_cast<lead::Time>(options.answer_seconds * 1e9);
  const HeardNodes heard = link->gather(options.nodes, options.node_count, patience);
  const std::vector<uint32_t> nodes = options.nodes.empty() ? heard.takers : options.nodes;
  const auto states =
      ReleaseSurvey{.location = options.location, .silence = patience}.ask(*link, heard, nodes);
  if (!states) return cli::kExitFailure;
  return run(options, nullptr, *link, reporter,
             {.release = release_of(*states, options.release, options.release_version),
              .expected_nodes = options.node_count,
              .present = true,
              .silence = patience},
             nodes, &heard);
}

}  // namespace pkgdist::lead_program
