// From a manifest to a release that is ready.
#include "installer.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "installer_places.h"
#include "refusal.h"
#include "tree.h"

namespace pkgdist::release {

namespace {

constexpr size_t kMaxLeavesBytes = size_t{1} << 30;  // of 2 TiB
constexpr unsigned kPrivateDirectory = 0700;
constexpr unsigned kPlaceMode = 0711;
constexpr uint32_t kPermissions = 07777;

Fd open_place(const std::string& path) {
  Fd place(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!place) throw_errno("opening", path);
  return place;
}

bool is_same_file(int at, const std::string& path, int fd) {
  struct stat by_path {};
  struct stat by_fd {};
  return fstatat(at, path.c_str(), &by_path, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &by_fd) == 0 &&
         by_path.st_dev == by_fd.st_dev && by_path.st_ino == by_fd.st_ino;
}

bool is_release_file(const std::string& path) {
  return path == kManifestPath || path == kSignaturePath || path == kLeavesPath;
}

}  // namespace

Installer::Installer(InstallerOptions options, Disk disk)
    : options_(std::move(options)),
      disk_(std::move(disk)),
      place_(open_place(options_.place)),
      state_directory_(open_place(options_.state_directory)) {}

std::string Installer::staging() const {
  return std::string(kStaging) + "/" + directory_name(*candidate_);
}

size_t Installer::missing() const {
  const std::lock_guard lock(mutex_);
  size_t count = 0;
  for (const auto& [path, expected] : expected_) count += expected.present ? 0 : 1;
  return count;
}

int Installer::ask(const std::string& path, const std::optional<Announced>& announced) const {
  if (is_release_file(path)) {
    if (!announced) return kAccept;
    const size_t most = path == kLeavesPath ? kMaxLeavesBytes : kMaxManifestBytes;
    return announced->link ? EPERM : announced->size > most ? EFBIG : kAccept;
  }
  const std::lock_guard lock(mutex_);
  if (expected_.empty()) return EAGAIN;  // no manifest yet
  const auto at = expected_.find(path);
  if (at == expected_.end()) return EPERM;
  const Expected& expected = at->second;
  if (!announced || expected.entry.kind != Kind::kFile)
    return expected.present ? kPresent : kAccept;
  if (announced->link || announced->size != expected.entry.size ||
      (announced->mode & kPermissions) != expected.entry.mode)
    return EPERM;
  return expected.present ? kPresent : kAccept;
}

// Taken out whatever comes of it: the next ones are not mixed with these.
Installer::Incoming Installer::take_incoming() const {
  const Fd incoming(open_beneath(place_.get(), kIncoming, O_RDONLY | O_DIRECTORY));
  if (!incoming) throw_errno("opening", kIncoming);
  Incoming taken;
  try {
    taken.manifest = read_beneath(incoming.get(), kManifestPath, kMaxManifestBytes);
    taken.signature = read_beneath(incoming.get(), kSignaturePath, kMaxSignatureFileBytes);
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
                            const std::string& key) const {
  if (manifest.name != options_.name)
    throw Refused(Reason::kName, fmt::format("this is a release of '{}', not of '{}'",
                                             manifest.name, options_.name));
  if (state_.bad.contains(release.manifest))
    throw Refused(Reason::kKnownBad, "this release was activated before and failed");
  if (state_.installed && release.version < state_.installed->version)
    throw Refused(Reason::kNotNewer, fmt::format("version {} is below the installed {}",
                                                 release.version, state_.installed->version));
  if (state_.installed && release.version == state_.installed->version &&
      release != *state_.installed)
    throw Refused(Reason::kOtherManifest,
                  fmt::format("another release has the installed version {}", release.version));
  const auto floor = state_.floors.find(key);
  if (floor != state_.floors.end() && release.version < floor->second)
    throw Refused(Reason::kFloor, fmt::format("version {} is below {}, the floor of key {}",
                                              release.version, floor->second, key));
  if (options_.now && manifest.expires && *manifest.expires <= *options_.now)
    throw Refused(Reason::kExpired, "the release expired on " + *manifest.expires);
}

void Installer::check() {
  const Incoming incoming = take_incoming();
  const PublicKey& key = verify_signature(incoming.manifest, incoming.signature, options_.keys,
                                          first_line(incoming.manifest));
  const Manifest manifest = parse(incoming.manifest, options_.set_id);
  const InstalledRelease release{manifest.version, sha256(bytes_of(incoming.manifest))};
  check_rules(manifest, release, key_text(key.id));
  if (candidate_ == release || state_.installed == release) return;
  (void)parse_leaves(incoming.leaves, manifest);
  stage(incoming, manifest, release);
}

void Installer::stage(const Incoming& incoming, const Manifest& manifest,
                      const InstalledRelease& release) {
  forget_candidate();
  disk_.remove(place_.get(), kStaging);
  disk_.make_directory(place_.get(), kStaging, kPrivateDirectory);
  const std::string directory = std::string(kStaging) + "/" + directory_name(release);
  disk_.make_directory(place_.get(), directory, kPrivateDirectory);
  disk_.make_directory(place_.get(), directory + "/" + kReleaseDirectory, kPlaceMode);
  disk_.write_file(place_.get(), directory + "/" + kLeavesPath, incoming.leaves);
  disk_.write_file(place_.get(), directory + "/" + kSignaturePath, incoming.signature);
  // The last one: a staging directory with a manifest has all that belongs to it.
  disk_.write_file(place_.get(), directory + "/" + kManifestPath, incoming.manifest);
  candidate_ = release;
  build_staging(manifest);
}

void Installer::expect(const Manifest& manifest, bool present) {
  std::unordered_map<std::string, Expected> expected;
  for (const Entry& entry : manifest.entries)
    expected[entry.path] = {entry, present || entry.kind != Kind::kFile};
  const std::lock_guard lock(mutex_);
  expected_ = std::move(expected);
}

// Directories and links are made here; files are taken from the current release where it has them.
void Installer::build_staging(const Manifest& manifest) {
  expect(manifest, false);
  disk_.set_mode(place_.get(), staging(), kPrivateDirectory);
  leaf_ = manifest.leaf;
  const auto current = contents_of_current();
  for (const Entry& entry : manifest.entries) {
    const std::string path = staging() + "/" + entry.path;
    if (entry.kind == Kind::kDirectory) {
      disk_.make_directory(place_.get(), path, kPrivateDirectory);
      disk_.set_mode(place_.get(), path, kPrivateDirectory);  // of an attempt that nearly ended
    } else if (entry.kind == Kind::kLink) {
      disk_.remove(place_.get(), path);
      disk_.make_link(entry.target, place_.get(), path);
    } else if (is_staged(entry) || reuse(entry, current)) {
      const std::lock_guard lock(mutex_);
      expected_[entry.path].present = true;
    }
  }
  if (missing() == 0) complete();
}

bool Installer::is_staged(const Entry& entry) const {
  const std::string path = staging() + "/" + entry.path;
  const Fd file(open_beneath(place_.get(), path.c_str(), O_RDONLY));
  if (!file) return false;
  try {
    seal(entry, file.get());
    return true;
  } catch (const Refused&) {
    disk_.remove(place_.get(), path);
    return false;
  }
}

// Checks the content behind the descriptor, and gives it the mode and time that it has to have.
void Installer::seal(const Entry& entry, int fd) const {
  struct stat status {};
  if (fstat(fd, &status) != 0) throw_errno("looking at", entry.path);
  if (!S_ISREG(status.st_mode)) throw Refused(Reason::kTree, "'" + entry.path + "' is no file");
  if (hash_content(fd, entry.size, leaf_).digest != entry.digest)
    throw Refused(Reason::kContent, "'" + entry.path + "' has another content than signed");
  disk_.set_mode_and_time(fd, entry.mode, entry.mtime);
}

std::unordered_map<std::string, std::string> Installer::contents_of_current() const {
  std::unordered_map<std::string, std::string> contents;
  const std::string target = link(kCurrent);
  if (target.empty()) return contents;
  for (const Entry& entry : read_release(target).entries)
    if (entry.kind == Kind::kFile)
      contents.emplace(to_hex(entry.digest), target + "/" + entry.path);
  return contents;
}

// What was copied is checked, not what it was copied from.
bool Installer::reuse(const Entry& entry,
                      const std::unordered_map<std::string, std::string>& current) const {
  const auto at = current.find(to_hex(entry.digest));
  if (at == current.end()) return false;
  const Fd from(open_beneath(place_.get(), at->second.c_str(), O_RDONLY));
  if (!from) return false;
  disk_.copy(from.get(), place_.get(), staging() + "/" + entry.path);
  return is_staged(entry);
}

void Installer::arrived(const std::string& path) {
  if (is_release_file(path)) return;
  const std::string incoming = std::string(kIncoming) + "/" + path;
  Entry entry;
  {
    const std::lock_guard lock(mutex_);
    const auto at = expected_.find(path);
    if (at == expected_.end() || ready_ || !candidate_ || at->second.entry.kind != Kind::kFile)
      return;
    if (at->second.present) return;
    entry = at->second.entry;
  }
  const Fd file(open_beneath(place_.get(), incoming.c_str(), O_RDONLY));
  if (!file) throw_errno("opening", incoming);
  try {
    seal(entry, file.get());
  } catch (const Refused&) {
    disk_.remove(place_.get(), incoming);
    throw;
  }
  const std::string staged = staging() + "/" + path;
  disk_.rename(place_.get(), incoming, place_.get(), staged);
  if (!is_same_file(place_.get(), staged, file.get())) {
    disk_.remove(place_.get(), staged);
    throw Refused(Reason::kContent, "'" + path + "' was exchanged while it was checked");
  }
  {
    const std::lock_guard lock(mutex_);
    expected_[path].present = true;
  }
  if (missing() == 0) complete();
}

// In what the staged tree is not that of the manifest; empty when it is.
std::string Installer::staging_problem(const Manifest& manifest) const {
  try {
    const ScannedTree tree =
        scan_tree(options_.place + "/" + staging(), {manifest.leaf, 0, nullptr});
    const auto different = differences(manifest, tree);
    return different.empty() ? "" : different.front();
  } catch (const Refused& refused) {
    return refused.what();
  }
}

// The tree as a whole, since single files were checked one after the other. Everything is on the
// disk before the rename makes it a release.
void Installer::complete() {
  const Manifest manifest = read_release(staging());
  for (auto entry = manifest.entries.rbegin(); entry != manifest.entries.rend(); ++entry)
    if (entry->kind == Kind::kDirectory)
      disk_.set_mode(place_.get(), staging() + "/" + entry->path, entry->mode);
  if (const std::string problem = staging_problem(manifest); !problem.empty()) {
    disk_.remove(place_.get(), staging());
    forget_candidate();
    throw Refused(Reason::kTree, "the staged tree is not that of the manifest: " + problem);
  }
  const Fd directory(open_beneath(place_.get(), staging().c_str(), O_RDONLY | O_DIRECTORY));
  if (!directory) throw_errno("opening", staging());
  disk_.set_mode(place_.get(), staging(), kReleaseMode);
  disk_.sync_everything(directory.get());
  disk_.remove(place_.get(), target_of(*candidate_));  // of an earlier time, whatever it is
  disk_.rename(place_.get(), staging(), place_.get(), target_of(*candidate_));
  disk_.sync_directory(place_.get(), kReleases);
  disk_.sync_directory(place_.get(), kStaging);
  ready_ = true;
}

}  // namespace pkgdist::release
