#include "release_push.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <utility>

#include "counted.h"

namespace pkgdist::lead_program {

namespace {

using cli::ReleaseOrder;
using cli::ReleasePhase;
using cli::ReleaseState;
using Phase = ReleasePush::Phase;
using Stage = ReleasePush::Stage;

constexpr const char* kNoAnswer = "no answer";
constexpr const char* kNotThere = "does not have this release";
constexpr const char* kNotDone = "answers, but does not do what was ordered";

// In the order of the enumerations.
constexpr std::array kPhases{"describe", "ask", "check", "fetch", "verify", "activate", "ended"};
constexpr std::array kStages{"unreached", "silent",    "working", "fetching",
                             "ready",     "confirmed", "refused", "failed"};
static_assert(kPhases.size() == static_cast<size_t>(Phase::kEnded) + 1);
static_assert(kStages.size() == static_cast<size_t>(Stage::kFailed) + 1);

ReleaseOrder order_of(Phase phase) {
  return phase == Phase::kCheck      ? ReleaseOrder::kCheck
         : phase == Phase::kVerify   ? ReleaseOrder::kFetched
         : phase == Phase::kActivate ? ReleaseOrder::kActivate
                                     : ReleaseOrder::kState;
}

// Of the nodes that the order of a phase goes to.
Stage stage_before(Phase phase) {
  return phase == Phase::kVerify     ? Stage::kFetching
         : phase == Phase::kActivate ? Stage::kReady
                                     : Stage::kWorking;
}

// Of the lists of files in states.
bool is_set(const std::vector<uint8_t>& bits, size_t index) {
  constexpr size_t kBits = 8;
  return index / kBits < bits.size() && (bits[index / kBits] >> (index % kBits) & 1u) != 0;
}

void add_bits(std::vector<uint8_t>& bits, const std::vector<uint8_t>& more) {
  bits.resize(std::max(bits.size(), more.size()));
  for (size_t i = 0; i < more.size(); ++i) bits[i] |= more[i];
}

std::string missing_text(uint64_t files) {
  return cli::counted(files, "file is missing", "files are missing");
}

std::string given_up_text(const ReleaseState& state) {
  return fmt::format("{} after {} attempts{}{}", missing_text(state.missing),
                     ReleasePush::kMaxRounds, state.problem.empty() ? "" : ": ", state.problem);
}

}  // namespace

ReleasePush::ReleasePush(Settings settings, const std::vector<uint32_t>& nodes)
    : settings_(std::move(settings)),
      phase_(settings_.present ? Phase::kAsk : Phase::kDescribe),
      watch_(kAskAgain, settings_.silence),
      number_(settings_.first_number) {
  for (const uint32_t node : nodes) nodes_[node];
}

// --- What the owner tells ---

void ReleasePush::leave_out(uint32_t node, const std::string& why) {
  nodes_[node] = {.stage = Stage::kUnreached, .problem = why};
}

void ReleasePush::described(const std::map<uint32_t, std::string>& lacks) {
  for (const auto& [address, why] : lacks) {
    nodes_[address];
    if (!why.empty()) leave_out(address, why);
  }
  phase_ = Phase::kCheck;
}

void ReleasePush::fetched() {
  phase_ = Phase::kVerify;
}

void ReleasePush::on_state(uint32_t node, const ReleaseState& state, lead::Time now) {
  const auto found = nodes_.find(node);
  if (found == nodes_.end() || state.location != settings_.location) return;
  watch_.heard(node, now);
  const ReleaseState before = std::exchange(found->second.said, state);
  // What it says about an earlier order may be out of date.
  if (!watch_.waits_for(node) || state.number < phase_number_) return;
  if (state.phase == ReleasePhase::kFetching && state.candidate == settings_.release)
    take_fetching(node, before, now);
  else
    take(node, state);
}

void ReleasePush::take(uint32_t node, const ReleaseState& state) {
  Progress& progress = progress_[node];
  progress.idle = false;
  progress.missing_since = 0;
  const bool refused =
      state.phase == ReleasePhase::kRefused || state.phase == ReleasePhase::kFailed;
  if (phase_ == Phase::kAsk && refused && has_release(state))
    return settle_as(node, state.current == settings_.release ? Stage::kConfirmed : Stage::kReady);
  if (refused)
    return settle_as(node, state.phase == ReleasePhase::kFailed ? Stage::kFailed : Stage::kRefused,
                     state.problem);
  if (state.phase == ReleasePhase::kChecking || state.phase == ReleasePhase::kActivating ||
      state.phase == ReleasePhase::kVerifying) {
    nodes_[node].stage = Stage::kWorking;
    return;
  }
  if (state.phase == ReleasePhase::kReady && state.candidate == settings_.release &&
      phase_ != Phase::kActivate)
    return settle_as(node, Stage::kReady);
  if (state.phase != ReleasePhase::kReady && state.current == settings_.release)
    return settle_as(node, Stage::kConfirmed);
  if (phase_ == Phase::kAsk) return settle_as(node, Stage::kFailed, kNotThere);
  progress.idle = true;
}

// Whatever the node was ordered last, and however that ended.
bool ReleasePush::has_release(const ReleaseState& state) const {
  return state.current == settings_.release ||
         (state.candidate == settings_.release && state.missing == 0);
}

void ReleasePush::take_fetching(uint32_t node, const ReleaseState& before, lead::Time now) {
  Progress& progress = progress_[node];
  const uint64_t missing = nodes_[node].said.missing;
  progress.idle = phase_ == Phase::kActivate;
  if (phase_ == Phase::kAsk) return settle_as(node, Stage::kFailed, missing_text(missing));
  if (phase_ == Phase::kCheck) return settle_as(node, Stage::kFetching);
  if (progress.missing_since == 0 || missing != before.missing) progress.missing_since = now;
}

void ReleasePush::settle_as(uint32_t node, Stage stage, const std::string& problem) {
  nodes_[node].stage = stage;
  nodes_[node].problem = problem;
  watch_.answered(node);
}

// --- What comes next ---

ReleasePush::Step ReleasePush::next(lead::Time now) {
  if (phase_ == Phase::kEnded) return end();
  if (phase_ == Phase::kDescribe) {
    Step step{.action = Action::kPushDescription};
    for (const auto& [address, node] : nodes_) step.nodes.push_back(address);
    return step;
  }
  if (phase_ == Phase::kFetch)
    return {.action = Action::kPushFiles, .nodes = fetch_nodes_, .files = fetch_files_};
  if (!begun_) return begin(phase_, now);
  settle(now);
  for (const uint32_t node : watch_.take_silent(now)) settle_as(node, Stage::kSilent, kNoAnswer);
  if (auto step = ask_again(now)) return *step;
  if (watch_.waits()) return {.action = Action::kWait, .until = deadline()};
  return advance(now);
}

// Nodes whose files stay missing have said it all.
void ReleasePush::settle(lead::Time now) {
  if (phase_ != Phase::kVerify) return;
  for (const auto& [node, progress] : progress_)
    if (progress.missing_since != 0 && lead::elapsed(now, progress.missing_since) >= kSettle &&
        watch_.waits_for(node))
      settle_as(node, Stage::kFetching);
}

lead::Time ReleasePush::deadline() const {
  lead::Time deadline = watch_.deadline();
  for (const auto& [node, progress] : progress_)
    if (progress.missing_since != 0 && watch_.waits_for(node))
      deadline = std::min(deadline, progress.missing_since + kSettle);
  return deadline;
}

// A node that says nothing is asked how it stands; one that does something else has not heard the
// order, or has lost what it is about.
std::optional<ReleasePush::Step> ReleasePush::ask_again(lead::Time now) {
  std::vector<uint32_t> idle;
  for (const uint32_t node : watch_.take_due(now)) {
    Progress& progress = progress_[node];
    if (!progress.idle)
      unheard_.push_back(node);
    else if (progress.orders++ < kMaxOrders)
      idle.push_back(node);
    else
      settle_as(node, Stage::kFailed, kNotDone);
  }
  if (!idle.empty()) return order(order_of(phase_), std::move(idle));
  if (!unheard_.empty()) return order(ReleaseOrder::kState, std::exchange(unheard_, {}));
  return std::nullopt;
}

ReleasePush::Step ReleasePush::order(ReleaseOrder what, std::vector<uint32_t> nodes) {
  return {.action = Action::kOrder,
          .nodes = std::move(nodes),
          .question = {.number = number_++,
                       .location = settings_.location,
                       .name = settings_.name,
                       .release = settings_.release,
                       .order = what}};
}

ReleasePush::Step ReleasePush::begin(Phase phase, lead::Time now) {
  phase_ = phase;
  begun_ = true;
  phase_number_ = number_;
  progress_.clear();
  unheard_.clear();
  std::vector<uint32_t> nodes = at(stage_before(phase));
  watch_.begin(nodes, now);
  return nodes.empty() ? advance(now) : order(order_of(phase), std::move(nodes));
}

// All that were waited for have answered, or dropped out.
ReleasePush::Step ReleasePush::advance(lead::Time now) {
  begun_ = false;
  if (phase_ == Phase::kActivate) return end();
  if (phase_ == Phase::kAsk || at(Stage::kFetching).empty()) return begin_activation(now);
  if (rounds_ < kMaxRounds) return begin_fetch(now);
  for (const uint32_t node : at(Stage::kFetching))
    settle_as(node, Stage::kFailed, given_up_text(nodes_[node].said));
  return begin_activation(now);
}

ReleasePush::Step ReleasePush::begin_fetch(lead::Time now) {
  ++rounds_;
  fetch_nodes_.clear();
  fetch_files_.clear();
  for (const uint32_t node : at(Stage::kFetching))
    if (nodes_[node].said.missing != 0) fetch_nodes_.push_back(node);
  if (fetch_nodes_.empty()) return begin(Phase::kVerify, now);
  std::vector<uint8_t> missing;
  for (const uint32_t node : fetch_nodes_) add_bits(missing, nodes_[node].said.files);
  for (size_t file = 0; file < settings_.files; ++file)
    if (is_set(missing, file)) fetch_files_.push_back(static_cast<uint32_t>(file));
  // A node that does not name its files may miss any.
  if (fetch_files_.empty())
    for (size_t file = 0; file < settings_.files; ++file)
      fetch_files_.push_back(static_cast<uint32_t>(file));
  phase_ = Phase::kFetch;
  return next(now);
}

ReleasePush::Step ReleasePush::begin_activation(lead::Time now) {
  return settings_.policy.allows(ready(), total()) ? begin(Phase::kActivate, now) : end();
}

ReleasePush::Step ReleasePush::end() {
  phase_ = Phase::kEnded;
  return {.action = Action::kEnd};
}

// --- How it stands ---

std::vector<uint32_t> ReleasePush::at(Stage stage) const {
  std::vector<uint32_t> found;
  for (const auto& [address, node] : nodes_)
    if (node.stage == stage) found.push_back(address);
  return found;
}

size_t ReleasePush::count(Stage stage) const {
  return at(stage).size();
}

bool ReleasePush::held_back() const {
  return settings_.policy.kind != ActivationPolicy::Kind::kNever && count(Stage::kReady) != 0;
}

bool ReleasePush::complete() const {
  const bool activates = settings_.policy.kind != ActivationPolicy::Kind::kNever;
  return total() != 0 && (activates ? count(Stage::kConfirmed) : ready()) == total();
}

const char* phase_name(Phase phase) {
  return kPhases.at(static_cast<size_t>(phase));
}

const char* stage_name(Stage stage) {
  return kStages.at(static_cast<size_t>(stage));
}

}  // namespace pkgdist::lead_program
