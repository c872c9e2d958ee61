// Carries out orders about the releases of one place, one after the other, and tells the state of
// the place.
//
// Everything runs on one thread and may take long: it hashes, copies, and waits for the health
// command. What fails becomes the phase and the problem of the state; Interrupted passes through.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "installer.h"
#include "release_messages.h"

namespace pkgdist::node_program {

// Thrown by an installer's disk when the process is to end.
struct Interrupted {};

class ReleaseHandler {
 public:
  // The check of a release that `current` names by now: why it is not to stay, "" when it is.
  using Health = std::function<std::string(uint64_t version)>;
  // Hears the state whenever its phase or its problem changes, without number, location and name.
  using OnChange = std::function<void(const cli::ReleaseState&)>;

  // A file that came so many times with another content than signed is not asked for again.
  static constexpr unsigned kMaxMismatches = release::kMaxReceptions;

  ReleaseHandler(std::shared_ptr<release::Installer> installer, Health health, OnChange on_change);

  // Goes on with what an earlier process was making. First.
  void resume();
  // The orders of a lead, and of the host's owner, who means whatever release is ready.
  void check(const cli::ReleaseId& release);
  void fetched(const cli::ReleaseId& release);
  void activate(const std::optional<cli::ReleaseId>& release);
  void verify();
  void roll_back(release::Installer::RollBack how);
  void allow(uint64_t version);
  // Files stand in incoming.
  void arrived(const std::vector<std::string>& paths);

  cli::ReleaseState state() const;

 private:
  // What came of the last order, where the installer does not say it.
  struct Outcome {
    cli::ReleasePhase phase = cli::ReleasePhase::kRefused;
    std::string problem;
  };

  void run(cli::ReleasePhase phase, const std::function<void()>& order);
  void tell() const { on_change_(state()); }
  bool is_confirmed(const release::InstalledRelease& release) const;
  void mismatched(const std::string& path, const std::string& problem);
  void try_release(const release::InstalledRelease& release);
  void go_back(const std::string& problem);
  cli::ReleasePhase phase() const;
  std::string problem() const;
  std::string expires() const;

  const std::shared_ptr<release::Installer> installer_;
  const Health health_;
  const OnChange on_change_;
  std::optional<cli::ReleasePhase> working_;
  std::optional<Outcome> outcome_;
  std::map<std::string, unsigned> mismatches_;  // by path
  std::string mismatch_;                        // the last one, in words
  std::optional<std::vector<std::string>> drift_;
  // When the release that was current last expires.
  mutable std::pair<std::optional<release::InstalledRelease>, std::string> expiry_;
};

}  // namespace pkgdist::node_program
