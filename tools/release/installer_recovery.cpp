// What a crash or a restart left behind.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "installer.h"
#include "installer_places.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr size_t kMaxStateBytes = 1 << 20;
constexpr unsigned kPlaceMode = 0711;

}  // namespace

void Installer::recover() {
  disk_.make_directory(place_.get(), kReleaseDirectory, kPlaceMode);
  for (const char* directory : {kIncoming, kStaging})
    disk_.make_directory(place_.get(), directory, kPrivateDirectory);
  disk_.make_directory(place_.get(), kReleases, kPlaceMode);
  for (const char* directory : {kReleaseDirectory, kReleases})
    disk_.set_mode(place_.get(), directory, kPlaceMode);  // whatever the umask is
  const std::string name = options_.name + ".state";
  struct stat status {};
  if (fstatat(state_directory_.get(), name.c_str(), &status, 0) == 0)
    state_ = parse_state(read_beneath(state_directory_.get(), name.c_str(), kMaxStateBytes));
  if (state_.trial) {
    // Only a release that was switched to can be to blame.
    if (link(kCurrent) == target_of(*state_.trial)) return fail();
    InstallState next = state_;
    next.trial.reset();
    save(next);
  }
  // The state is written before the links.
  if (!state_.installed) return;
  const std::string installed = target_of(*state_.installed);
  if (link(kCurrent) != installed && has_manifest(installed)) switch_to(installed);
}

void Installer::resume() {
  find_candidate();
  if (candidate_ && !ready_) (void)collect();
  find_good_parts();
  clear_incoming();
}

// What an earlier process had staged, or made ready.
void Installer::find_candidate() {
  for (const char* where : {kReleases, kStaging}) {
    for (const std::string& directory : directories_in(where)) {
      try {
        if (adopt(directory, where == std::string_view(kReleases))) return;
      } catch (const Refused& refused) {  // its key may have been taken away since
        forget_candidate();
        if (refused.reason() == Reason::kNoSpace) throw;
        if (directory != link(kCurrent) && directory != link(kPrevious))
          disk_.remove(place_.get(), directory);
      }
    }
  }
  expect(manifest_of_current(), true);
}

// False when the directory holds no release that could follow the installed one.
bool Installer::adopt(const std::string& directory, bool ready) {
  if (!has_manifest(directory)) return false;
  const InstalledRelease release = release_in(directory);
  if (is_installed(release) || link(kCurrent) == directory) return false;
  const bool allowed = state_.allowed == release.version;
  const InstalledRelease* const installed = installed_that_counts();
  if (!allowed && installed != nullptr && release.version < installed->version) return false;
  if (!allowed && state_.bad.contains(release.manifest)) return false;
  go_on_with(directory, ready);
  return true;
}

void Installer::go_on_with(const std::string& directory, bool ready) {
  const InstalledRelease release = release_in(directory);
  const Manifest manifest = parse(
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes),
      options_.set_id);
  check_rules(manifest, release, keys_of(directory));
  check_paths(manifest);
  candidate_ = release;
  ready_ = ready;
  if (ready)
    expect(manifest, true);
  else
    build_staging(manifest);
}

void Installer::forget_candidate() {
  candidate_.reset();
  ready_ = false;
  expect(Manifest(), false);
}

// In order, so that two runs do the same.
std::vector<std::string> Installer::directories_in(const char* where) const {
  std::vector<std::string> directories;
  for (const auto& item : std::filesystem::directory_iterator(options_.place + "/" + where))
    directories.push_back(std::string(where) + "/" + item.path().filename().string());
  std::sort(directories.begin(), directories.end());
  return directories;
}

}  // namespace pkgdist::release
