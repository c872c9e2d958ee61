// From a release that is ready to one that is confirmed, and back.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "installer.h"
#include "installer_places.h"
#include "refusal.h"
#include "tree.h"

namespace pkgdist::release {

namespace {

constexpr size_t kMaxStateBytes = 1 << 20;

std::string state_name(const std::string& name) {
  return name + ".state";
}

// In order, so that two runs do the same.
std::vector<std::string> directories_in(const std::string& place, const char* where) {
  std::vector<std::string> directories;
  for (const auto& item : std::filesystem::directory_iterator(place + "/" + where))
    directories.push_back(std::string(where) + "/" + item.path().filename().string());
  std::sort(directories.begin(), directories.end());
  return directories;
}

}  // namespace

std::string Installer::link(const char* name) const {
  std::string target(kMaxPathBytes, '\0');
  const ssize_t length = readlinkat(place_.get(), name, target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return target;
}

std::string Installer::target_of(const InstalledRelease& release) const {
  return std::string(kReleases) + "/" + directory_name(release);
}

Manifest Installer::read_release(const std::string& directory) const {
  return parse(
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes),
      SetId::kAllowed);
}

// The key that the release was signed with, checked again: what is stored may be old.
std::string Installer::key_of(const std::string& directory) const {
  const std::string text =
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes);
  const std::string signature = read_beneath(
      place_.get(), (directory + "/" + kSignaturePath).c_str(), kMaxSignatureFileBytes);
  return key_text(verify_signature(text, signature, options_.keys, first_line(text)).id);
}

void Installer::save() const {
  disk_.write_file(state_directory_.get(), state_name(options_.name), format(state_));
}

void Installer::point(const char* name, const std::string& target) const {
  const std::string next = std::string(name) + ".new";
  disk_.remove(place_.get(), next);
  disk_.make_link(target, place_.get(), next);
  disk_.rename(place_.get(), next, place_.get(), name);
  disk_.sync_directory(place_.get(), ".");
}

void Installer::forget_candidate() {
  candidate_.reset();
  ready_ = false;
  const std::lock_guard lock(mutex_);
  expected_.clear();
}

void Installer::recover() {
  constexpr unsigned kPrivate = 0700;
  constexpr unsigned kPlace = 0711;
  disk_.make_directory(place_.get(), kReleaseDirectory, kPlace);
  for (const char* directory : {kIncoming, kStaging})
    disk_.make_directory(place_.get(), directory, kPrivate);
  disk_.make_directory(place_.get(), kReleases, kPlace);
  struct stat status {};
  if (fstatat(state_directory_.get(), state_name(options_.name).c_str(), &status, 0) == 0)
    state_ = parse_state(
        read_beneath(state_directory_.get(), state_name(options_.name).c_str(), kMaxStateBytes));
  if (state_.trial) {
    // Only a release that was switched to can be to blame.
    if (link(kCurrent) == target_of(*state_.trial)) {
      fail();
    } else {
      state_.trial.reset();
      save();
    }
  }
  find_candidate();
}

// What an earlier process had staged, or made ready.
void Installer::find_candidate() {
  for (const char* where : {kReleases, kStaging}) {
    for (const std::string& directory : directories_in(options_.place, where)) {
      try {
        if (adopt(directory, where == std::string_view(kReleases))) return;
      } catch (const Refused&) {  // its key may have been taken away since
        forget_candidate();
        disk_.remove(place_.get(), directory);
      }
    }
  }
  if (const std::string current = link(kCurrent); !current.empty())
    expect(read_release(current), true);
}

// False when the directory holds no release that could follow the installed one.
bool Installer::adopt(const std::string& directory, bool ready) {
  const std::string path = directory + "/" + kManifestPath;
  if (!Fd(open_beneath(place_.get(), path.c_str(), O_RDONLY))) return false;
  const std::string text = read_beneath(place_.get(), path.c_str(), kMaxManifestBytes);
  const Manifest manifest = parse(text, options_.set_id);
  const InstalledRelease release{manifest.version, sha256(bytes_of(text))};
  if (state_.installed && release.version <= state_.installed->version) return false;
  if (state_.bad.contains(release.manifest)) return false;
  check_rules(manifest, release, key_of(directory));
  candidate_ = release;
  ready_ = ready;
  if (ready)
    expect(manifest, true);
  else
    build_staging(manifest);
  return true;
}

void Installer::activate() {
  if (!ready_ || !candidate_) throw Refused(Reason::kNoRelease, "no release is ready");
  (void)key_of(target_of(*candidate_));
  state_.trial = candidate_;
  save();
  if (const std::string current = link(kCurrent); !current.empty()) point(kPrevious, current);
  point(kCurrent, target_of(*candidate_));
}

void Installer::confirm() {
  if (!state_.trial) throw Refused(Reason::kNoRelease, "no release is on trial");
  const std::string directory = target_of(*state_.trial);
  uint64_t& floor = state_.floors[key_of(directory)];
  floor = std::max(floor, read_release(directory).floor);
  state_.installed = state_.trial;
  state_.trial.reset();
  save();
  candidate_.reset();
  ready_ = false;
  remove_old_releases();
}

void Installer::fail() {
  if (!state_.trial) throw Refused(Reason::kNoRelease, "no release is on trial");
  state_.bad.insert(state_.trial->manifest);
  save();
  if (state_.installed) {
    point(kCurrent, target_of(*state_.installed));
  } else {
    disk_.remove(place_.get(), kCurrent);
    disk_.sync_directory(place_.get(), ".");
  }
  state_.trial.reset();
  save();
  forget_candidate();
}

InstalledRelease Installer::roll_back() {
  const std::string previous = link(kPrevious);
  const std::string current = link(kCurrent);
  if (state_.trial || previous.empty() || previous == current)
    throw Refused(Reason::kNoRelease, "there is no previous release to go back to");
  const std::string text =
      read_beneath(place_.get(), (previous + "/" + kManifestPath).c_str(), kMaxManifestBytes);
  const InstalledRelease release{parse(text, SetId::kAllowed).version, sha256(bytes_of(text))};
  if (state_.installed) state_.bad.insert(state_.installed->manifest);
  point(kCurrent, previous);
  point(kPrevious, current);
  state_.installed = release;
  save();
  forget_candidate();
  return release;
}

std::vector<std::string> Installer::verify() const {
  const std::string current = link(kCurrent);
  if (current.empty()) throw Refused(Reason::kNoRelease, "no release is installed");
  const Manifest manifest = read_release(current);
  return differences(manifest,
                     scan_tree(options_.place + "/" + current, {manifest.leaf, 0, nullptr}));
}

// All but the current and the previous one.
void Installer::remove_old_releases() const {
  for (const std::string& directory : directories_in(options_.place, kReleases)) {
    if (directory != link(kCurrent) && directory != link(kPrevious))
      disk_.remove(place_.get(), directory);
  }
}

}  // namespace pkgdist::release
