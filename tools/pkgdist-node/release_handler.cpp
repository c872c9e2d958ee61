#include "release_handler.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "refusal.h"

namespace pkgdist::node_program {

namespace {

using cli::ReleaseId;
using cli::ReleasePhase;
using release::InstalledRelease;

// Paths that are told; the number of all of them is told, too.
constexpr size_t kToldDrift = 20;

ReleaseId id_of(const InstalledRelease& release) {
  return {release.version, release::to_hex(release.manifest)};
}

InstalledRelease release_of(const ReleaseId& id) {
  return {id.version, release::digest_from_hex(id.manifest).value_or(release::Digest{})};
}

std::optional<ReleaseId> id_of(const std::optional<InstalledRelease>& release) {
  return release ? std::optional(id_of(*release)) : std::nullopt;
}

// "content differs: etc/settings" without what differs.
std::string path_in(const std::string& difference) {
  const size_t colon = difference.find(": ");
  return colon == std::string::npos ? difference : difference.substr(colon + 2);
}

}  // namespace

ReleaseHandler::ReleaseHandler(std::shared_ptr<release::Installer> installer, Health health,
                               OnChange on_change)
    : installer_(std::move(installer)),
      health_(std::move(health)),
      on_change_(std::move(on_change)) {}

// --- Orders ---

// An order that throws is refused, with the reason.
void ReleaseHandler::run(ReleasePhase phase, const std::function<void()>& order) {
  outcome_.reset();
  drift_.reset();
  working_ = phase;
  tell();
  try {
    order();
  } catch (const std::exception& error) {
    outcome_ = {ReleasePhase::kRefused, error.what()};
  }
  working_.reset();
  tell();
}

void ReleaseHandler::resume() {
  run(ReleasePhase::kChecking, [this] { installer_->resume(); });
}

void ReleaseHandler::check(const ReleaseId& release) {
  run(ReleasePhase::kChecking, [&] {
    mismatches_.clear();
    mismatch_.clear();
    installer_->check(release_of(release));
    if (is_confirmed(release_of(release))) outcome_ = {ReleasePhase::kConfirmed, ""};
  });
}

void ReleaseHandler::fetched(const ReleaseId& release) {
  run(ReleasePhase::kChecking, [&] {
    if (is_confirmed(release_of(release))) {
      outcome_ = {ReleasePhase::kConfirmed, ""};
      return;
    }
    if (installer_->candidate() != release_of(release))
      throw std::runtime_error("this release is not being fetched here");
    for (const auto& [path, problem] : installer_->collect()) mismatched(path, problem);
  });
}

void ReleaseHandler::activate(const std::optional<ReleaseId>& release) {
  run(ReleasePhase::kActivating, [&] {
    if (release && is_confirmed(release_of(*release))) {
      outcome_ = {ReleasePhase::kConfirmed, ""};
      return;
    }
    const std::optional<InstalledRelease> candidate = installer_->candidate();
    if (!candidate || !installer_->ready() || (release && candidate != release_of(*release)))
      throw std::runtime_error("this release is not ready here");
    try_release(*candidate);
  });
}

// Confirmed or gone back at the end.
void ReleaseHandler::try_release(const InstalledRelease& release) {
  try {
    installer_->activate();
    tell();  // what is current now
    if (const std::string problem = health_(release.version); !problem.empty())
      return go_back(problem);
    installer_->confirm();
  } catch (const std::exception& error) {
    if (installer_->state().trial) return go_back(error.what());
    if (!is_confirmed(release)) throw;  // nothing was switched
    // What failed is the removal of older releases.
    outcome_ = {ReleasePhase::kConfirmed, error.what()};
    return;
  }
  outcome_ = {ReleasePhase::kConfirmed, ""};
}

void ReleaseHandler::go_back(const std::string& problem) {
  outcome_ = {ReleasePhase::kFailed, problem};
  try {
    installer_->fail();
  } catch (const std::exception& error) {
    outcome_->problem += fmt::format("; going back: {}", error.what());
  }
}

// What else was under way stays as it is.
void ReleaseHandler::verify() {
  const std::optional<Outcome> before = outcome_;
  run(ReleasePhase::kVerifying, [&] {
    drift_ = installer_->verify();
    outcome_ = before;
  });
}

void ReleaseHandler::roll_back(release::Installer::RollBack how) {
  run(ReleasePhase::kActivating, [&] {
    const std::string problem = installer_->roll_back(how);
    outcome_ = {ReleasePhase::kConfirmed, problem};
  });
}

void ReleaseHandler::allow(uint64_t version) {
  run(ReleasePhase::kChecking, [&] { installer_->allow(version); });
}

// --- Files ---

void ReleaseHandler::arrived(const std::vector<std::string>& paths) {
  const std::pair before(phase(), problem());
  try {
    const release::Installer::Refusals refusals = installer_->arrived(paths);
    for (const std::string& path : paths)
      if (!refusals.contains(path)) mismatches_.erase(path);
    for (const auto& [path, problem] : refusals) mismatched(path, problem);
  } catch (const std::exception& error) {
    outcome_ = {ReleasePhase::kRefused, error.what()};
  }
  if (installer_->ready()) mismatch_.clear();
  if (std::pair(phase(), problem()) != before) tell();
}

void ReleaseHandler::mismatched(const std::string& path, const std::string& problem) {
  const unsigned times = ++mismatches_[path];
  mismatch_ = times < kMaxMismatches ? problem : fmt::format("{}, {} times", problem, times);
}

// --- How it stands ---

bool ReleaseHandler::is_confirmed(const InstalledRelease& release) const {
  return installer_->state().installed == release && installer_->current() == release &&
         !installer_->state().trial;
}

ReleasePhase ReleaseHandler::phase() const {
  if (working_) return *working_;
  if (outcome_) return outcome_->phase;
  if (!installer_->candidate()) return ReleasePhase::kIdle;
  if (installer_->ready()) return ReleasePhase::kReady;
  const bool given_up = std::any_of(mismatches_.begin(), mismatches_.end(),
                                    [](const auto& one) { return one.second >= kMaxMismatches; });
  return given_up ? ReleasePhase::kRefused : ReleasePhase::kFetching;
}

std::string ReleaseHandler::problem() const {
  if (working_) return "";
  return outcome_ ? outcome_->problem : mismatch_;
}

// Read once for each release: manifests are large.
std::string ReleaseHandler::expires() const {
  const std::optional<InstalledRelease> current = installer_->current();
  if (!current) return "";
  if (expiry_.first != current) expiry_ = {current, installer_->expires()};
  return expiry_.second;
}

cli::ReleaseState ReleaseHandler::state() const {
  cli::ReleaseState state;
  state.phase = phase();
  state.problem = problem();
  state.current = id_of(installer_->current());
  state.candidate = id_of(installer_->candidate());
  if (installer_->candidate()) state.missing = installer_->missing();
  if (state.phase == ReleasePhase::kFetching) state.files = installer_->missing_files();
  state.expires = expires();
  state.signers = installer_->signers();
  if (!drift_) return state;
  state.drifted = drift_->size();
  for (const std::string& difference : *drift_)
    if (state.drift.size() < kToldDrift) state.drift.push_back(path_in(difference));
  return state;
}

}  // namespace pkgdist::node_program
