// From a release that is ready to one that is confirmed, and back.
#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "installer.h"
#include "installer_places.h"
#include "refusal.h"
#include "tree.h"

namespace pkgdist::release {

namespace {

// "" when nothing differs.
std::string in_words(const InstalledRelease& release, const std::vector<std::string>& different) {
  constexpr size_t kTold = 5;  // the number of all of them is told, too
  if (different.empty()) return "";
  std::string text =
      fmt::format("the previous release, version {}, is not as it was signed: ", release.version);
  for (size_t i = 0; i < std::min(kTold, different.size()); ++i)
    text += (i == 0 ? "" : ", ") + different[i];
  return different.size() <= kTold ? text
                                   : text + fmt::format(" and {} more", different.size() - kTold);
}

}  // namespace

std::string Installer::link(const char* name) const {
  std::string target(kMaxPathBytes, '\0');
  const ssize_t length = readlinkat(place_.get(), name, target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return target;
}

std::optional<InstalledRelease> Installer::current() const {
  const std::string target = link(kCurrent);
  for (const auto& release : {state_.installed, state_.trial})
    if (release && target == target_of(*release)) return release;
  return std::nullopt;
}

std::string Installer::expires() const {
  return manifest_of_current().expires.value_or("");
}

std::vector<std::string> Installer::signers() const {
  return state_.installed && current() == state_.installed ? state_.installed_keys
                                                           : std::vector<std::string>();
}

// What cannot be written does not hold.
void Installer::save(const InstallState& state) {
  disk_.write_file(state_directory_.get(), options_.name + ".state", format(state));
  state_ = state;
}

void Installer::point(const char* name, const std::string& target) const {
  const std::string next = std::string(name) + ".new";
  disk_.remove(place_.get(), next);
  disk_.make_link(target, place_.get(), next);
  disk_.rename(place_.get(), next, place_.get(), name);
  disk_.sync_directory(place_.get(), ".");
}

void Installer::switch_to(const std::string& target) const {
  if (const std::string current = link(kCurrent); !current.empty() && current != target)
    point(kPrevious, current);
  point(kCurrent, target);
}

// Weeks may have passed since the release became ready: its key may have been taken away, its time
// may be over, and who can write the place may have changed it.
void Installer::require_still_ready() {
  const std::string directory = target_of(*candidate_);
  const std::string text =
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes);
  std::string problem = "another manifest";
  if (sha256(bytes_of(text)) == candidate_->manifest) {
    const Manifest manifest = parse(text, SetId::kAllowed);
    check_rules(manifest, *candidate_, keys_of(directory));
    problem = tree_problem(directory, manifest);
  }
  if (problem.empty()) return;
  forget_candidate();
  if (directory != link(kCurrent) && directory != link(kPrevious))
    disk_.remove(place_.get(), directory);
  throw Refused(Reason::kTree, "the tree that was ready is not that of its manifest: " + problem);
}

void Installer::activate() {
  if (!ready_ || !candidate_) throw Refused(Reason::kNoRelease, "no release is ready");
  require_still_ready();
  InstallState next = state_;
  next.trial = candidate_;
  save(next);
  switch_to(target_of(*candidate_));
}

void Installer::confirm() {
  if (!state_.trial) throw Refused(Reason::kNoRelease, "no release is on trial");
  const InstalledRelease release = *state_.trial;
  const std::string directory = target_of(release);
  InstallState next = state_;
  next.installed_keys = keys_of(directory);
  const bool allowed = next.allowed == release.version;
  const uint64_t signed_floor = read_release(directory).floor;
  for (const std::string& key : next.installed_keys) {
    uint64_t& floor = next.floors[key];
    floor = std::max(floor, signed_floor);
    if (allowed) floor = std::min(floor, release.version);
  }
  if (allowed) {
    next.bad.erase(release.manifest);
    next.allowed.reset();
  }
  next.installed = release;
  next.trial.reset();
  save(next);
  candidate_.reset();
  ready_ = false;
  remove_old_releases();
}

void Installer::fail() {
  if (!state_.trial) throw Refused(Reason::kNoRelease, "no release is on trial");
  InstallState next = state_;
  next.bad.insert(next.trial->manifest);
  if (next.allowed == next.trial->version) next.allowed.reset();
  save(next);
  if (next.installed) {
    point(kCurrent, target_of(*next.installed));
  } else {
    disk_.remove(place_.get(), kCurrent);
    disk_.sync_directory(place_.get(), ".");
  }
  next.trial.reset();
  save(next);
  forget_candidate();
}

// The state first: a crash before the links are changed is mended by recover().
std::string Installer::roll_back(RollBack how) {
  const std::string previous = link(kPrevious);
  const Fd tree(open_beneath(place_.get(), previous.c_str(), O_RDONLY | O_DIRECTORY));
  const InstalledRelease release = release_named(previous);
  if (state_.trial || !tree || previous == link(kCurrent) || previous != target_of(release))
    throw Refused(Reason::kNoRelease, "there is no previous release to go back to");
  std::string problem;
  std::vector<std::string> keys;  // unknown: then the version counts
  try {
    keys = keys_of(previous);
    problem = in_words(release, drift_of(previous));
  } catch (const std::runtime_error& error) {
    problem = in_words(release, {error.what()});
  }
  if (!problem.empty() && how != RollBack::kForced)
    throw Refused(Reason::kTree, problem + "; 'release rollback --force' goes back to it as it is");
  InstallState next = state_;
  next.installed_keys = keys;
  if (next.installed) next.bad.insert(next.installed->manifest);
  next.bad.erase(release.manifest);
  next.installed = release;
  save(next);
  switch_to(previous);
  forget_candidate();
  return problem;
}

std::vector<std::string> Installer::drift_of(const std::string& directory) const {
  if (target_of(release_in(directory)) != directory) return {"another manifest"};
  const Manifest manifest = read_release(directory);
  return differences(
      manifest,
      scan_tree(options_.place + "/" + directory,
                {.leaf = manifest.leaf, .threads = 0, .settled = &settled_, .tolerant = true}));
}

// By its manifest; where that is not the one it was installed with, by its name, in which half of
// the digest is missing.
InstalledRelease Installer::release_named(const std::string& directory) const {
  try {
    const InstalledRelease release = release_in(directory);
    if (target_of(release) == directory) return release;
  } catch (const std::runtime_error&) {
  }
  return parse_directory_name(directory.substr(directory.rfind('/') + 1))
      .value_or(InstalledRelease());
}

void Installer::allow(uint64_t version) {
  InstallState next = state_;
  next.allowed = version;
  save(next);
}

std::vector<std::string> Installer::verify() {
  const std::string current = link(kCurrent);
  if (current.empty()) throw Refused(Reason::kNoRelease, "no release is installed");
  const Manifest manifest = read_release(current);
  auto different =
      differences(manifest, scan_tree(options_.place + "/" + current,
                                      {.leaf = manifest.leaf, .threads = 0, .tolerant = true}));
  if (!different.empty()) settled_.clear();
  return different;
}

// All but the current and the previous one. What is known of files that the current one shares with
// them stays known.
void Installer::remove_old_releases() {
  const std::string current = link(kCurrent);
  struct stat status {};
  std::vector<std::pair<std::string, SettledFiles::Known>> known;
  for (const Expected& expected : expected_) {
    const std::string path = current + "/" + expected.entry.path;
    if (fstatat(place_.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (const auto taken = settled_.take(status)) known.emplace_back(path, *taken);
  }
  for (const std::string& directory : directories_in(kReleases)) {
    if (directory != current && directory != link(kPrevious)) disk_.remove(place_.get(), directory);
  }
  for (const auto& [path, file] : known)
    if (fstatat(place_.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
      settled_.put_back(file, status);
}

}  // namespace pkgdist::release
