#include "release_view.h"

#include <fmt/core.h>

#include <cstring>
#include <nlohmann/json.hpp>

namespace pkgdist::lead_program {

namespace {

using cli::format_address;
using cli::ReleasePhase;
using cli::ReleaseState;
using Json = nlohmann::ordered_json;
using Phase = ReleasePush::Phase;
using Stage = ReleasePush::Stage;

std::string counted(size_t count, const char* one) {
  return fmt::format("{} {}{}", count, one, count == 1 ? "" : "s");
}

std::string size_text(uint64_t bytes) {
  return format_bytes(static_cast<double>(bytes));
}

std::string phase_text(const ReleaseView::PhaseText& now) {
  const std::string nodes = counted(now.nodes, "node");
  switch (now.phase) {
    case Phase::kDescribe:
      return fmt::format("sending the signed manifest ({})", size_text(now.bytes));
    case Phase::kAsk:
      return "asking " + nodes;
    case Phase::kCheck:
      return nodes + ": checking the manifest, copying what is there already";
    case Phase::kFetch:
      return fmt::format("sending {} of {} ({}) to {}", now.files, counted(now.all, "file"),
                         size_text(now.bytes), nodes);
    case Phase::kVerify:
      return nodes + ": verifying what came";
    case Phase::kActivate:
      return nodes + ": activating";
    case Phase::kEnded:
      break;
  }
  return "";
}

// Whether there is anything to tell.
bool is_news(const ReleaseState& before, const ReleaseState& now) {
  return before.phase != now.phase || before.current != now.current ||
         before.candidate != now.candidate || before.missing != now.missing ||
         before.problem != now.problem;
}

Json state_event(uint32_t node, const ReleaseState& state) {
  return {{"node", format_address(node)},
          {"location", state.location},
          {"name", state.name},
          {"state", cli::phase_name(state.phase)},
          {"current", release_json(state.current)},
          {"candidate", release_json(state.candidate)},
          {"missing", state.missing},
          {"text", state.problem}};
}

}  // namespace

std::string trimmed(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::string release_text(const std::optional<cli::ReleaseId>& release) {
  return release ? std::to_string(release->version) : "-";
}

Json release_json(const std::optional<cli::ReleaseId>& release) {
  if (!release) return {};
  return {{"version", release->version}, {"manifest", release->manifest}};
}

void ReleaseView::phase(const PhaseText& now) {
  reporter_.json().print("release-phase", {{"phase", phase_name(now.phase)},
                                           {"nodes", now.nodes},
                                           {"files", now.files},
                                           {"bytes", now.bytes}});
  reporter_.say(fmt::format("{} {}: {}", name_, release_.version, phase_text(now)));
}

void ReleaseView::state(uint32_t node, const ReleaseState& state) {
  const auto known = told_.find(node);
  if (known != told_.end() && !is_news(known->second, state)) return;
  ReleaseState& told = told_[node] = state;
  told.files = {};
  reporter_.json().print("release-state", state_event(node, state));
  if (state.phase == ReleasePhase::kRefused || state.phase == ReleasePhase::kFailed)
    reporter_.say(fmt::format("node {}: {}: {}", reporter_.label(node),
                              cli::phase_name(state.phase), state.problem));
}

// --- The end ---

std::vector<uint32_t> ReleaseView::sorted(const ReleasePush& push) const {
  std::vector<uint32_t> nodes;
  for (const auto& [address, node] : push.nodes()) nodes.push_back(address);
  std::stable_sort(nodes.begin(), nodes.end(), [this](uint32_t a, uint32_t b) {
    return ::strverscmp(reporter_.label(a).c_str(), reporter_.label(b).c_str()) < 0;
  });
  return nodes;
}

void ReleaseView::table(const ReleasePush& push) {
  reporter_.say(fmt::format("{:<15} {:<11} {:<9} {}", "node", "state", "current", "why"), kResult);
  for (const uint32_t address : sorted(push)) {
    const ReleasePush::Node& node = push.nodes().at(address);
    reporter_.say(
        trimmed(fmt::format("{:<15} {:<11} {:<9} {}", reporter_.label(address),
                            stage_name(node.stage), release_text(node.said.current), node.problem)),
        kResult);
  }
}

void ReleaseView::end(const ReleasePush& push, const std::string& policy,
                      const ReleaseEffort& effort) {
  const double seconds = cli::rounded(
      static_cast<double>(effort.time) / static_cast<double>(lead::kSecond), cli::kSecondDecimals);
  Json nodes = Json::array();
  for (const uint32_t address : sorted(push)) {
    const ReleasePush::Node& node = push.nodes().at(address);
    nodes.push_back({{"node", format_address(address)},
                     {"state", stage_name(node.stage)},
                     {"current", release_json(node.said.current)},
                     {"text", node.problem}});
  }
  reporter_.json().print("release-finished",
                         {{"name", name_},
                          {"version", release_.version},
                          {"manifest", release_.manifest},
                          {"complete", push.complete()},
                          {"held_back", push.held_back()},
                          {"total", push.total()},
                          {"ready", push.count(Stage::kReady)},
                          {"confirmed", push.count(Stage::kConfirmed)},
                          {"bytes_sent", effort.bytes_sent},
                          {"seconds", seconds},
                          {"nodes", nodes}},
                         kResult);
  if (!push.complete() || !reporter_.quiet) table(push);
  if (push.held_back())
    reporter_.say(fmt::format("not activated: {} of {} are ready (--activate {})", push.ready(),
                              counted(push.total(), "node"), policy),
                  kResult);
  const bool prepared = push.count(Stage::kConfirmed) == 0 && push.ready() != 0;
  reporter_.say(fmt::format("{} {} is {} on {} of {}; {} sent in {:.1f} s", name_, release_.version,
                            prepared ? "ready" : "confirmed",
                            prepared ? push.ready() : push.count(Stage::kConfirmed),
                            counted(push.total(), "node"), size_text(effort.bytes_sent), seconds),
                push.complete() ? cli::Output::Kind::kEvent : kResult);
}

}  // namespace pkgdist::lead_program
