#include "partial_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <tuple>

#include "beneath.h"
#include "pkgdist/status.h"

namespace pkgdist::node_program {

namespace {

const std::string kSuffix = kPartialSuffix;
constexpr size_t kMaxListed = 65'536;  // names that are remembered

// Whether the status may be that of a write or of the last step, the rename to the final name: that
// one meets a directory, a mount point or a file that this user may not replace.
bool may_leave_partial(uint64_t status) {
  constexpr std::array kErrors{ENOSPC, EDQUOT, EIO, EFBIG, EISDIR, EXDEV, EBUSY, EACCES, EPERM};
  if (status == PKGDIST_ERR_WRITE) return true;
  for (const int error : kErrors)
    if (status == PKGDIST_STATUS_FROM_ERRNO(static_cast<uint64_t>(error))) return true;
  return false;
}

struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Identity&) const = default;
};
Identity identity_of(const struct stat& status) {
  return {status.st_dev, status.st_ino};
}

bool is_before(const timespec& one, const timespec& other) {
  return std::tie(one.tv_sec, one.tv_nsec) < std::tie(other.tv_sec, other.tv_nsec);
}

// Removes the file under the name if `wanted` agrees to what stands there.
template <class Wanted>
void remove_beneath(int location, const std::string& name, Wanted&& wanted) {
  const auto [parent, last] = open_place_beneath(location, name);
  if (!parent) return;
  struct stat status {};
  if (::fstatat(parent.get(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid() &&
      wanted(status))
    (void)::unlinkat(parent.get(), last.c_str(), 0);
}

std::optional<std::string> path_of(int fd) {
  std::string path(PATH_MAX, '\0');
  const std::string link = std::string(kOwnDescriptors) + '/' + std::to_string(fd);
  const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
  if (length <= 0) return std::nullopt;
  path.resize(static_cast<size_t>(length));
  return path;
}

}  // namespace

PartialFiles::PartialFiles() {
  (void)::clock_gettime(CLOCK_REALTIME_COARSE, &since_);  // which is that of files' times
}

PartialFiles::~PartialFiles() {
  for (const auto& [number, fd] : locations_) ::close(fd);
}

void PartialFiles::add_location(uint32_t number, const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) locations_[number] = fd;
}

void PartialFiles::note_listed(uint32_t location, const std::string& name) {
  const std::lock_guard lock(mutex_);
  if (name.ends_with(kSuffix) && listed_.size() < kMaxListed) listed_.emplace(location, name);
}

// More names may have been listed than are remembered.
bool PartialFiles::may_be_listed(uint32_t location, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return listed_.size() >= kMaxListed || listed_.contains({location, name});
}

void PartialFiles::on_ended(uint32_t location, const std::string& name, uint64_t status) {
  const auto found = locations_.find(location);
  const std::string partial = name + kSuffix;
  if (found == locations_.end() || !may_leave_partial(status)) return;
  if (may_be_listed(location, partial)) return;
  remove_beneath(found->second, partial, [&](const struct stat& file) {
    return !is_before(file.st_ctim, since_) && !is_open_for_writing(file.st_dev, file.st_ino);
  });
}

void PartialFiles::remove_open_at(uint32_t location, int directory, int fd) {
  struct stat status {};
  const std::optional<std::string> path = path_of(fd);
  const std::optional<std::string> top = path_of(directory);
  if (!path || !top || ::fstat(fd, &status) != 0) return;
  if (!path->ends_with(kSuffix) || !path->starts_with(*top + '/')) return;
  const std::string name = path->substr(top->size() + 1);
  if (may_be_listed(location, name)) return;
  remove_beneath(directory, name,
                 [&](const struct stat& file) { return identity_of(file) == identity_of(status); });
}

void PartialFiles::remove_open() {
  for (const int fd : own_descriptors())
    for (const auto& [number, directory] : locations_)
      if (writes(fd)) remove_open_at(number, directory, fd);
}

}  // namespace pkgdist::node_program
