// releases: which node runs which release, which one it has ready, and whether what it runs is what
// was signed.
#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "expiry.h"
#include "pkgdist_lead/udp_transport.h"
#include "release_survey.h"
#include "release_view.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;
using States = std::map<uint32_t, cli::ReleaseState>;

constexpr const char* kNoReleaseAnswer = "no answer";

// What is wrong with it, and that it expires.
std::string why_text(const cli::ReleaseState& state) {
  const std::string warning = cli::expiry_warning(state.expires, std::time(nullptr));
  if (state.problem.empty() || warning.empty()) return state.problem + warning;
  return state.problem + "; " + warning;
}

// In words, or why it was not verified.
std::string drift_text(const cli::ReleaseState& state) {
  if (!state.drifted) return why_text(state);
  if (*state.drifted == 0) return "whole";
  std::string text = fmt::format("{} differ", *state.drifted);
  for (const std::string& path : state.drift) text += fmt::format(", {}", path);
  return text;
}

class List {
 public:
  List(Reporter& reporter, const LeadOptions& options) : reporter_(reporter), options_(options) {
    reporter_.say(fmt::format("{:<15} {:<11} {:>9} {:>10}  {:<11} {}", "node", "name", "current",
                              "candidate", "state", options.verify ? "verified" : "why"),
                  kResult);
  }

  void add(uint32_t node, const cli::ReleaseState& state) {
    Json event{{"node", cli::format_address(node)},
               {"location", state.location},
               {"name", state.name},
               {"state", cli::phase_name(state.phase)},
               {"current", release_json(state.current)},
               {"candidate", release_json(state.candidate)},
               {"missing", state.missing},
               {"text", state.problem}};
    if (!state.expires.empty()) event["expires"] = state.expires;
    if (options_.verify) event["drifted"] = state.drifted ? Json(*state.drifted) : Json();
    if (options_.verify) event["drift"] = state.drift;
    reporter_.json().print("release", event, kResult);
    line(node, state.name, release_text(state.current), release_text(state.candidate),
         cli::phase_name(state.phase), options_.verify ? drift_text(state) : why_text(state));
    good_ = good_ && (!options_.verify || state.drifted.value_or(1) == 0);
  }

  void add_without(uint32_t node, const std::string& why) {
    reporter_.json().print("release",
                           {{"node", cli::format_address(node)},
                            {"location", options_.location},
                            {"name", Json()},
                            {"state", "unknown"},
                            {"current", Json()},
                            {"candidate", Json()},
                            {"missing", 0},
                            {"text", why}},
                           kResult);
    line(node, "-", "-", "-", "unknown", why);
    good_ = false;
  }

  // Every node has answered, and what it runs is whole.
  bool good() const { return good_; }

 private:
  void line(uint32_t node, const std::string& name, const std::string& current,
            const std::string& candidate, const char* state, const std::string& why) {
    reporter_.say(trimmed(fmt::format("{:<15} {:<11} {:>9} {:>10}  {:<11} {}",
                                      reporter_.label(node), name, current, candidate, state, why)),
                  kResult);
  }

  Reporter& reporter_;
  const LeadOptions& options_;
  bool good_ = true;
};

}  // namespace

int releases_command(const LeadOptions& given) {
  const ReleaseWay way = find_release_way(given);
  const LeadOptions& options = way.options;
  if (!way.serving && options.nodes.empty() && options.node_count == 0)
    throw CLI::ValidationError("--nodes is missing: no lead serves here that knows its nodes");
  Reporter reporter(options.common.json, options.common.verbosity);
  reporter.names = options.node_names;
  const std::unique_ptr<ReleaseLink> link = way.open(reporter);
  const auto patience = static_cast<lead::Time>(options.answer_seconds * 1e9);
  const HeardNodes heard = link->gather(options.nodes, options.node_count, patience);
  std::vector<uint32_t> nodes = options.nodes.empty() ? heard.takers : options.nodes;
  const ReleaseSurvey survey{
      .location = options.location, .verify = options.verify, .silence = patience};
  const auto states = survey.ask(*link, heard, nodes);
  if (!states) return cli::kExitFailure;
  std::sort(nodes.begin(), nodes.end());
  List list(reporter, options);
  for (const uint32_t node : nodes) {
    const auto state = states->find(node);
    if (state != states->end())
      list.add(node, state->second);
    else
      list.add_without(node, heard.takes(node) ? kNoReleaseAnswer : heard.lack(node));
  }
  return list.good() ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::lead_program
