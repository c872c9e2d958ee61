// What the network may bring, and what becomes of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "installer.h"
#include "installer_places.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

bool is_same_file(int at, const std::string& path, int fd) {
  struct stat by_path {};
  struct stat by_fd {};
  return fstatat(at, path.c_str(), &by_path, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &by_fd) == 0 &&
         by_path.st_dev == by_fd.st_dev && by_path.st_ino == by_fd.st_ino;
}

bool is_regular(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

bool is_release_file(const std::string& path) {
  return path == kManifestPath || path == kSignaturePath || path == kLeavesPath;
}

}  // namespace

const Installer::Expected* Installer::find(const std::string& path) const {
  const auto at = std::lower_bound(
      expected_.begin(), expected_.end(), path,
      [](const Expected& expected, const std::string& name) { return expected.entry.path < name; });
  return at != expected_.end() && at->entry.path == path ? &*at : nullptr;
}

Installer::Expected* Installer::find(const std::string& path) {
  return const_cast<Expected*>(std::as_const(*this).find(path));
}

size_t Installer::missing() const {
  const std::lock_guard lock(mutex_);
  return missing_;
}

std::vector<uint8_t> Installer::missing_files() const {
  constexpr size_t kBits = 8;
  const std::lock_guard lock(mutex_);
  std::vector<uint8_t> bits;
  size_t number = 0;
  for (const Expected& expected : expected_) {
    if (expected.entry.kind != Kind::kFile) continue;
    if (number % kBits == 0) bits.push_back(0);
    if (!expected.present) bits.back() |= static_cast<uint8_t>(1u << number % kBits);
    ++number;
  }
  return bits;
}

int Installer::ask(const std::string& path, const std::optional<Announced>& announced) const {
  if (is_release_file(path)) {
    if (!announced) return kAccept;
    const size_t most = path == kLeavesPath ? kMaxLeavesBytes : kMaxManifestBytes;
    return announced->link ? EPERM : announced->size > most ? EFBIG : kAccept;
  }
  const std::lock_guard lock(mutex_);
  if (expected_.empty()) return EAGAIN;  // no manifest yet
  const Expected* expected = find(path);
  if (expected == nullptr) return EPERM;
  const Entry& entry = expected->entry;
  const int answer = expected->present ? kPresent : kAccept;
  if (!announced || entry.kind != Kind::kFile) return answer;
  const bool as_signed = !announced->link && announced->size == entry.size &&
                         (announced->mode & kPermissions) == entry.mode;
  return as_signed ? answer : EPERM;
}

void Installer::make_way(const std::string& path) const {
  if (is_release_file(path))
    (void)unlinkat(place_.get(), (std::string(kIncoming) + "/" + path).c_str(), 0);
  forget_parts_of_nothing(path);
}

// A file of the candidate that is missing.
std::optional<Entry> Installer::wanted(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const Expected* expected = candidate_ && !ready_ ? find(path) : nullptr;
  if (expected == nullptr || expected->present) return std::nullopt;
  return expected->entry;
}

void Installer::mark_present(const std::string& path) {
  const std::lock_guard lock(mutex_);
  find(path)->present = true;
  --missing_;
}

void Installer::arrived(const std::string& path) {
  const std::optional<Entry> entry = wanted(path);
  if (!entry) return;
  const std::string incoming = std::string(kIncoming) + "/" + path;
  const Fd file(open_beneath(place_.get(), incoming.c_str(), O_RDONLY));
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return;
  if (!file) throw_errno("opening", incoming);
  if (!is_regular(file.get())) {
    disk_.remove(place_.get(), incoming);
    throw Refused(Reason::kTree, "'" + path + "' is no file");
  }
  take(*entry, file);
  check_taken(*entry, file);
  if (missing() != 0) return;
  try {
    complete();
  } catch (...) {
    forget_candidate();
    throw;
  }
}

// From incoming into staging: the file that was opened, and not what stands under its name now.
void Installer::take(const Entry& entry, const Fd& file) {
  const std::string staged = staging_of(*candidate_) + "/" + entry.path;
  try {
    disk_.rename(place_.get(), std::string(kIncoming) + "/" + entry.path, place_.get(), staged);
  } catch (...) {
    forget_candidate();
    throw;
  }
  if (is_same_file(place_.get(), staged, file.get())) return;
  disk_.remove(place_.get(), staged);
  throw Refused(Reason::kContent, "'" + entry.path + "' was exchanged while it was taken");
}

// Where only this process writes, and behind the rename, which is a change of the file, too: so
// what is hashed here can be settled. After a crash in between, what is staged is checked anew.
void Installer::check_taken(const Entry& entry, const Fd& file) {
  try {
    seal(entry, file.get());
  } catch (const Refused&) {
    disk_.remove(place_.get(), staging_of(*candidate_) + "/" + entry.path);
    throw;
  }
  mark_present(entry.path);
}

std::vector<std::pair<std::string, std::string>> Installer::collect() {
  std::vector<std::string> paths;
  {
    const std::lock_guard lock(mutex_);
    for (const Expected& expected : expected_)
      if (!expected.present) paths.push_back(expected.entry.path);
  }
  std::vector<std::pair<std::string, std::string>> refused;
  for (const std::string& path : paths) {
    try {
      arrived(path);
    } catch (const Refused& why) {
      if (!candidate_) throw;
      refused.emplace_back(path, why.what());
    }
  }
  return refused;
}

}  // namespace pkgdist::release
