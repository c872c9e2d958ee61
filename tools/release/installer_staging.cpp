// The tree that is being made: directories and links are made here, files are taken from the
// current release where it has them, the rest has to come.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "installer.h"
#include "installer_places.h"
#include "refusal.h"
#include "tree.h"

namespace pkgdist::release {

void Installer::expect(const Manifest& manifest, bool present) {
  std::vector<Expected> expected;
  expected.reserve(manifest.entries.size());
  size_t missing = 0;
  for (const Entry& entry : manifest.entries) {
    expected.push_back({entry, present || entry.kind != Kind::kFile});
    if (!expected.back().present) ++missing;
  }
  const std::lock_guard lock(mutex_);
  expected_.swap(expected);  // what was there goes without the lock
  missing_ = missing;
  leaf_ = manifest.leaf;
  coming_ = candidate_ && !present ? staging_of(*candidate_) : "";
  parts_.clear();
}

// Without a candidate when it cannot be built: what is whole stays where it is.
void Installer::build_staging(const Manifest& manifest) {
  try {
    const Contents current = contents_of_current();
    earlier_ = std::exchange(settled_, {});
    disk_.set_mode(place_.get(), staging_of(*candidate_), kPrivateDirectory);
    expect(manifest, false);
    for (const Entry& entry : manifest.entries) make_entry(entry, current);
    check_staged(manifest, current);
    earlier_.clear();
    if (missing() == 0) return complete();
    require_room();
  } catch (...) {
    settled_.clear();
    earlier_.clear();
    forget_candidate();
    throw;
  }
}

void Installer::make_entry(const Entry& entry, const Contents& current) {
  const std::string path = staging_of(*candidate_) + "/" + entry.path;
  if (entry.kind == Kind::kDirectory) {
    disk_.make_directory(place_.get(), path, kPrivateDirectory);
    disk_.set_mode(place_.get(), path, kPrivateDirectory);  // of an attempt that nearly ended
  } else if (entry.kind == Kind::kLink) {
    disk_.remove(place_.get(), path);
    disk_.make_link(entry.target, place_.get(), path);
  } else {
    reuse(entry, current);
  }
}

// After all of them were made: then they are settled, and need not be read again at the end.
void Installer::check_staged(const Manifest& manifest, const Contents& current) {
  SettledFiles::wait();
  for (const Entry& entry : manifest.entries) {
    if (entry.kind != Kind::kFile) continue;
    bool staged = is_staged(entry);
    if (!staged && reuse(entry, current)) staged = is_staged(entry);  // what stood there was wrong
    if (staged) mark_present(entry.path);
  }
}

// Before anything travels that cannot be stored.
void Installer::require_room() const {
  uint64_t bytes = 0;
  for (const Expected& expected : expected_)
    if (!expected.present) bytes += expected.entry.size;
  bytes -= std::min(bytes, partial_bytes());
  struct statvfs room {};
  if (fstatvfs(place_.get(), &room) != 0) return;
  const uint64_t blocks = geteuid() == 0 ? room.f_bfree : room.f_bavail;
  const uint64_t free_bytes = blocks * room.f_frsize;
  if (bytes > free_bytes)
    throw Refused(
        Reason::kNoSpace,
        fmt::format("the disk is full: {} bytes are missing, {} are free", bytes, free_bytes));
}

bool Installer::is_staged(const Entry& entry) {
  const std::string path = staging_of(*candidate_) + "/" + entry.path;
  const Fd file(open_beneath(place_.get(), path.c_str(), O_RDONLY));
  if (!file) return false;
  struct stat status {};
  if (fstat(file.get(), &status) != 0) throw_errno("looking at", path);
  try {
    if (!S_ISREG(status.st_mode)) throw Refused(Reason::kTree, "'" + entry.path + "' is no file");
    set_mode_and_time(entry, status, file.get());
    check_content(entry, file.get());
    return true;
  } catch (const Refused&) {
    disk_.remove(place_.get(), path);
    return false;
  }
}

// Not again, which would be a change.
void Installer::set_mode_and_time(const Entry& entry, const struct stat& status, int fd) const {
  if ((status.st_mode & kPermissions) == entry.mode && status.st_mtim.tv_sec == entry.mtime &&
      status.st_mtim.tv_nsec == 0)
    return;
  disk_.set_mode_and_time(fd, entry.mode, entry.mtime);
}

void Installer::check_content(const Entry& entry, int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) throw_errno("looking at", entry.path);
  if (settled_.find(status) == entry.digest) return;
  const timespec began = SettledFiles::clock();
  if (hash_content(fd, entry.size, leaf_).digest != entry.digest)
    throw Refused(Reason::kContent, "'" + entry.path + "' has another content than signed");
  settled_.add(status, began, entry.digest);
}

Installer::Contents Installer::contents_of_current() const {
  Contents contents;
  const std::string target = link(kCurrent);
  for (const Entry& entry : manifest_of_current().entries)
    if (entry.kind == Kind::kFile)
      contents.emplace(to_hex(entry.digest),
                       Reusable{target + "/" + entry.path, entry.mode, entry.mtime});
  return contents;
}

// Takes a file from the current release, unless something stands under its name. What was copied is
// checked later, not what it was copied from. A file that cannot be copied, because the disk is
// full or has become unreadable there, has to come like any other.
bool Installer::reuse(const Entry& entry, const Contents& current) {
  const auto at = current.find(to_hex(entry.digest));
  if (at == current.end()) return false;
  const Reusable& source = at->second;
  const std::string to = staging_of(*candidate_) + "/" + entry.path;
  const bool same = source.mode == entry.mode && source.mtime == entry.mtime;
  try {
    if (options_.hard_links && same && link_known(source.path, to)) return true;
    const Fd from(open_beneath(place_.get(), source.path.c_str(), O_RDONLY));
    return from && disk_.copy(from.get(), place_.get(), to, entry.mode, entry.mtime);
  } catch (const std::runtime_error&) {
    disk_.remove(place_.get(), to);
    return false;
  }
}

// What is known of the file stays known.
bool Installer::link_known(const std::string& from, const std::string& to) {
  struct stat status {};
  std::optional<SettledFiles::Known> known;
  if (fstatat(place_.get(), from.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    known = earlier_.take(status);
    if (!known) known = settled_.take(status);  // of a file that the release has twice
  }
  const bool linked = disk_.hard_link(place_.get(), from, to);
  if (known && fstatat(place_.get(), from.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
    settled_.put_back(*known, status);
  return linked;
}

// In what the tree is not that of its manifest; empty when it is.
std::string Installer::tree_problem(const std::string& directory, const Manifest& manifest) const {
  try {
    const ScannedTree tree =
        scan_tree(options_.place + "/" + directory, {manifest.leaf, 0, nullptr, &settled_});
    const auto different = differences(manifest, tree);
    return different.empty() ? "" : different.front();
  } catch (const Refused& refused) {
    return refused.what();
  }
}

// The tree as a whole, since single files were checked one after the other. Everything is on the
// disk before the rename makes it a release.
void Installer::complete() {
  constexpr unsigned kReleaseMode = 0755;
  constexpr unsigned kReleaseFileMode = 0644;
  const std::string staging = staging_of(*candidate_);
  const std::string target = target_of(*candidate_);
  const Manifest manifest = read_release(staging);
  for (auto entry = manifest.entries.rbegin(); entry != manifest.entries.rend(); ++entry)
    if (entry->kind == Kind::kDirectory)
      disk_.set_mode(place_.get(), staging + "/" + entry->path, entry->mode);
  if (const std::string problem = tree_problem(staging, manifest); !problem.empty()) {
    disk_.remove(place_.get(), staging);
    throw Refused(Reason::kTree, "the staged tree is not that of the manifest: " + problem);
  }
  const Fd directory(open_beneath(place_.get(), staging.c_str(), O_RDONLY | O_DIRECTORY));
  if (!directory) throw_errno("opening", staging);
  std::vector<std::string> files = signatures_in(place_.get(), staging);
  files.insert(files.end(), {kManifestPath, kLeavesPath});
  const std::string before = staging + "/";
  for (const std::string& file : files)
    disk_.set_mode(place_.get(), before + file, kReleaseFileMode);
  disk_.set_mode(place_.get(), staging + "/" + kReleaseDirectory, kReleaseMode);
  disk_.set_mode(place_.get(), staging, kReleaseMode);
  disk_.sync_everything(directory.get());
  disk_.replace(place_.get(), staging, target);
  disk_.sync_directory(place_.get(), kReleases);
  disk_.sync_directory(place_.get(), kStaging);
  ready_ = true;
}

}  // namespace pkgdist::release
