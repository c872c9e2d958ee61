// From a manifest in incoming to a candidate.
#include "installer.h"

#include <fcntl.h>
#include <fmt/core.h>

#include <algorithm>

#include "installer_places.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr unsigned kReleaseDirectoryMode = 0711;

Fd open_place(const std::string& path) {
  Fd place(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!place) throw_errno("opening", path);
  return place;
}

}  // namespace

Installer::Installer(InstallerOptions options, Disk disk)
    : options_(std::move(options)),
      disk_(std::move(disk)),
      place_(open_place(options_.place)),
      state_directory_(open_place(options_.state_directory)) {}

void Installer::check(const std::optional<InstalledRelease>& ordered) {
  if (ordered && (candidate_ == ordered || is_installed(*ordered) || resume_staged(*ordered))) {
    find_good_parts();
    return disk_.remove(place_.get(), std::string(kIncoming) + "/" + kReleaseDirectory);
  }
  const Incoming incoming = take_incoming();
  const std::vector<Signer> signers =
      verify_signatures(incoming.manifest, incoming.signatures, options_.keys, options_.threshold,
                        first_line(incoming.manifest));
  const Manifest manifest = parse(incoming.manifest, options_.set_id);
  const InstalledRelease release{manifest.version, sha256(bytes_of(incoming.manifest))};
  if (ordered && release != *ordered)
    throw Refused(
        Reason::kNotOrdered,
        fmt::format("the manifest that came is another one, of version {}", manifest.version));
  check_rules(manifest, release, signing_keys(signers));
  check_paths(manifest);
  if (candidate_ == release || is_installed(release)) return;
  (void)parse_leaves(incoming.leaves, manifest);
  stage(incoming, signers, manifest, release);
}

// Taken out whatever comes of it: the next ones are not mixed with these.
Installer::Incoming Installer::take_incoming() const {
  const Fd incoming(open_beneath(place_.get(), kIncoming, O_RDONLY | O_DIRECTORY));
  if (!incoming) throw_errno("opening", kIncoming);
  if (!Fd(open_beneath(incoming.get(), kManifestPath, O_RDONLY)) && errno == ENOENT)
    throw Refused(Reason::kNoRelease, "no manifest has come");
  Incoming taken;
  try {
    taken.manifest = read_beneath(incoming.get(), kManifestPath, kMaxManifestBytes);
    taken.signatures = read_signatures(incoming.get());
    if (Fd(open_beneath(incoming.get(), kLeavesPath, O_RDONLY)))
      taken.leaves = read_beneath(incoming.get(), kLeavesPath, kMaxLeavesBytes);
  } catch (...) {
    disk_.remove(incoming.get(), kReleaseDirectory);
    throw;
  }
  disk_.remove(incoming.get(), kReleaseDirectory);
  return taken;
}

void Installer::check_rules(const Manifest& manifest, const InstalledRelease& release,
                            const std::vector<std::string>& keys) const {
  const InstalledRelease* const installed = installed_that_counts();
  if (manifest.name != options_.name)
    throw Refused(Reason::kName, fmt::format("this is a release of '{}', not of '{}'",
                                             manifest.name, options_.name));
  if (installed && release.version == installed->version && release != *installed)
    throw Refused(Reason::kOtherManifest,
                  fmt::format("another release has the installed version {}", release.version));
  if (options_.now && manifest.expires && *manifest.expires <= options_.now())
    throw Refused(Reason::kExpired, "the release expired on " + *manifest.expires);
  if (state_.allowed == release.version) return;
  if (state_.bad.contains(release.manifest))
    throw Refused(Reason::kKnownBad,
                  "this release was activated before and failed or was rolled back");
  if (installed && release.version < installed->version)
    throw Refused(Reason::kNotNewer, fmt::format("version {} is below the installed {}",
                                                 release.version, installed->version));
  check_floors(release, keys);
}

// The highest of them counts.
void Installer::check_floors(const InstalledRelease& release,
                             const std::vector<std::string>& keys) const {
  auto highest = state_.floors.end();
  for (const std::string& key : keys) {
    const auto floor = state_.floors.find(key);
    if (floor == state_.floors.end()) continue;
    if (highest == state_.floors.end() || floor->second > highest->second) highest = floor;
  }
  if (highest != state_.floors.end() && release.version < highest->second)
    throw Refused(Reason::kFloor, fmt::format("version {} is below {}, the floor of key {}",
                                              release.version, highest->second, highest->first));
}

// Later releases have to be above it. Null: there is none, or fewer of the keys that signed it are
// trusted than have to sign a release: who stole the others could have signed the highest version
// there is. Of one that was signed by fewer, from before the threshold was raised, all have to be.
const InstalledRelease* Installer::installed_that_counts() const {
  const auto is_trusted = [this](const std::string& signer) {
    return std::any_of(options_.keys.begin(), options_.keys.end(),
                       [&](const PublicKey& key) { return key_text(key.id) == signer; });
  };
  const auto& signers = state_.installed_keys;
  const auto trusted = std::count_if(signers.begin(), signers.end(), is_trusted);
  const size_t needed = std::min(options_.threshold, signers.size());
  return state_.installed && static_cast<size_t>(trusted) >= needed ? &*state_.installed : nullptr;
}

void Installer::check_paths(const Manifest& manifest) const {
  for (const Entry& entry : manifest.entries)
    if (entry.kind == Kind::kFile && entry.path.size() > options_.longest_path)
      throw Refused(Reason::kPath,
                    fmt::format("'{}' has {} bytes; here a path has {} at most", entry.path,
                                entry.path.size(), options_.longest_path));
}

// What is whole of an earlier attempt at the same release is kept, and nothing else.
void Installer::stage(const Incoming& incoming, const std::vector<Signer>& signers,
                      const Manifest& manifest, const InstalledRelease& release) {
  forget_candidate();
  clear_incoming();
  const std::string directory = staging_of(release);
  for (const std::string& other : directories_in(kStaging))
    if (other != directory) disk_.remove(place_.get(), other);
  disk_.make_directory(place_.get(), directory, kPrivateDirectory);
  disk_.make_directory(place_.get(), directory + "/" + kReleaseDirectory, kReleaseDirectoryMode);
  disk_.write_file(place_.get(), directory + "/" + kLeavesPath, incoming.leaves);
  stage_signatures(incoming, signers, directory);
  // The last one: a staging directory with a manifest has all that belongs to it.
  disk_.write_file(place_.get(), directory + "/" + kManifestPath, incoming.manifest);
  candidate_ = release;
  build_staging(manifest);
}

// Those that hold, and of an earlier attempt no others.
void Installer::stage_signatures(const Incoming& incoming, const std::vector<Signer>& signers,
                                 const std::string& directory) const {
  const std::string prefix = directory + "/";
  std::set<std::string> staged;
  for (const Signer& signer : signers) {
    const SignatureFile& file = incoming.signatures[signer.file];
    disk_.write_file(place_.get(), prefix + file.path, file.text);
    staged.insert(file.path);
  }
  for (const std::string& path : signature_paths())
    if (!staged.contains(path)) disk_.remove(place_.get(), prefix + path);
}

// The release was begun before, and a failure of the disk or another release came between. Of one
// whose signatures do not do any more the manifest has to come again, with others.
bool Installer::resume_staged(const InstalledRelease& release) {
  const std::string directory = staging_of(release);
  if (!has_manifest(directory) || release_in(directory) != release) return false;
  try {
    (void)keys_of(directory);
  } catch (const Refused&) {
    return false;
  }
  go_on_with(directory, false);
  return true;
}

bool Installer::is_installed(const InstalledRelease& release) const {
  const std::string directory = target_of(release);
  return state_.installed == release && link(kCurrent) == directory && has_manifest(directory);
}

bool Installer::has_manifest(const std::string& directory) const {
  const std::string path = directory + "/" + kManifestPath;
  return static_cast<bool>(Fd(open_beneath(place_.get(), path.c_str(), O_RDONLY)));
}

Manifest Installer::read_release(const std::string& directory) const {
  return parse(
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes),
      SetId::kAllowed);
}

// Empty when there is none, or when it cannot be read: that keeps no later release out.
Manifest Installer::manifest_of_current() const {
  try {
    return read_release(link(kCurrent));
  } catch (const std::runtime_error&) {
    return {};
  }
}

InstalledRelease Installer::release_in(const std::string& directory) const {
  const std::string text =
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes);
  return {parse(text, SetId::kAllowed).version, sha256(bytes_of(text))};
}

// The keys that the release was signed with, checked again: what is stored may be old.
std::vector<std::string> Installer::keys_of(const std::string& directory) const {
  const std::string text =
      read_beneath(place_.get(), (directory + "/" + kManifestPath).c_str(), kMaxManifestBytes);
  return signing_keys(verify_signatures(text, read_signatures(place_.get(), directory),
                                        options_.keys, options_.threshold, first_line(text)));
}

std::string Installer::staging_of(const InstalledRelease& release) const {
  return std::string(kStaging) + "/" + directory_name(release);
}

std::string Installer::target_of(const InstalledRelease& release) const {
  return std::string(kReleases) + "/" + directory_name(release);
}

}  // namespace pkgdist::release
