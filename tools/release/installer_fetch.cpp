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

bool is_same_file(int at, const std::string& path, const struct stat& file) {
  struct stat status {};
  return fstatat(at, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         status.st_dev == file.st_dev && status.st_ino == file.st_ino;
}

bool is_release_file(const std::string& path) {
  return path == kManifestPath || path == kLeavesPath || is_signature_path(path);
}

size_t most_bytes(const std::string& release_file) {
  if (is_signature_path(release_file)) return kMaxSignatureFileBytes;
  return release_file == kLeavesPath ? kMaxLeavesBytes : kMaxManifestBytes;
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
    return announced->link ? EPERM : announced->size > most_bytes(path) ? EFBIG : kAccept;
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

Installer::Refusals Installer::collect() {
  std::vector<std::string> paths;
  {
    const std::lock_guard lock(mutex_);
    for (const Expected& expected : expected_)
      if (!expected.present) paths.push_back(expected.entry.path);
  }
  return arrived(paths);
}

Installer::Refusals Installer::arrived(const std::vector<std::string>& paths) {
  Refusals refusals;
  try {
    for (size_t at = 0; at < paths.size(); at += kBatch)
      take_batch(std::span(paths).subspan(at, std::min(kBatch, paths.size() - at)), refusals);
  } catch (...) {  // what is staged has to be checked anew
    settled_.clear();
    forget_candidate();
    throw;
  }
  return refusals;
}

// All are moved, which is a change of theirs, before the first is read: so they have settled when
// they are, and what was read need not be read again at the end.
void Installer::take_batch(std::span<const std::string> paths, Refusals& refusals) {
  std::vector<Taken> batch;
  const auto unless_refused = [&refusals](const std::string& path, const auto& work) {
    try {
      work();
    } catch (const Refused& why) {
      refusals.insert_or_assign(path, why.what());
    }
  };
  for (const std::string& path : paths)
    unless_refused(path, [&] {
      if (auto taken = take(path)) batch.push_back(std::move(*taken));
    });
  if (batch.empty()) return;
  SettledFiles::wait();
  for (const Taken& taken : batch) unless_refused(taken.entry.path, [&] { check_taken(taken); });
  if (missing() == 0) complete();
}

// The file that was opened, and not what stands under its name when it is moved. Nothing when it is
// not there.
std::optional<Installer::Taken> Installer::take(const std::string& path) const {
  const std::optional<Entry> entry = wanted(path);
  if (!entry) return std::nullopt;
  const std::string incoming = std::string(kIncoming) + "/" + path;
  Fd file(open_beneath(place_.get(), incoming.c_str(), O_RDONLY));
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
  if (!file) throw_errno("opening", incoming);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) throw_errno("looking at", incoming);
  if (!S_ISREG(status.st_mode)) {
    disk_.remove(place_.get(), incoming);
    throw Refused(Reason::kTree, "'" + path + "' is no file");
  }
  const std::string staged = staging_of(*candidate_) + "/" + path;
  disk_.rename(place_.get(), incoming, place_.get(), staged);
  if (!is_same_file(place_.get(), staged, status)) {
    disk_.remove(place_.get(), staged);
    throw Refused(Reason::kContent, "'" + path + "' was exchanged while it was taken");
  }
  set_mode_and_time(*entry, status, file.get());
  return Taken{*entry, std::move(file)};
}

// Where only this process writes.
void Installer::check_taken(const Taken& taken) {
  try {
    check_content(taken.entry, taken.file.get());
  } catch (const Refused&) {
    disk_.remove(place_.get(), staging_of(*candidate_) + "/" + taken.entry.path);
    throw;
  }
  mark_present(taken.entry.path);
}

}  // namespace pkgdist::release
