#include "partial_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <optional>
#include <system_error>
#include <tuple>
#include <vector>

#include "pkgdist/status.h"

namespace pkgdist::node_program {

namespace {

namespace fs = std::filesystem;

const std::string kSuffix = ".tmp";
constexpr size_t kMaxListed = 65'536;  // names that are remembered
constexpr char kOwnDescriptors[] = "/proc/self/fd";

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

// The numbers of this process's descriptors.
std::vector<int> own_descriptors() {
  std::vector<int> numbers;
  std::error_code error;
  for (fs::directory_iterator at(kOwnDescriptors, error), end; !error && at != end;
       at.increment(error))
    numbers.push_back(std::stoi(at->path().filename().string()));
  return numbers;
}

bool writes(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_RDONLY;
}

bool is_open(const Identity& file) {
  for (const int fd : own_descriptors()) {
    struct stat status {};
    if (writes(fd) && ::fstat(fd, &status) == 0 && identity_of(status) == file) return true;
  }
  return false;
}

// The directory of a path below a location, opened without leaving it or following a link.
int open_parent(int location, const std::string& name) {
  const size_t slash = name.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : name.substr(0, slash);
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return static_cast<int>(::syscall(SYS_openat2, location, directory.c_str(), &how, sizeof how));
}

// Removes the file under the name if `wanted` agrees to what stands there.
template <class Wanted>
void remove_beneath(int location, const std::string& name, Wanted&& wanted) {
  const int parent = open_parent(location, name);
  if (parent < 0) return;
  const std::string last = name.substr(name.rfind('/') + 1);
  struct stat status {};
  if (::fstatat(parent, last.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid() &&
      wanted(status))
    (void)::unlinkat(parent, last.c_str(), 0);
  ::close(parent);
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
  if (name.ends_with(kSuffix) && listed_.size() < kMaxListed) listed_.emplace(location, name);
}

void PartialFiles::on_ended(uint32_t location, const std::string& name, uint64_t status) {
  const auto found = locations_.find(location);
  const std::string partial = name + kSuffix;
  if (found == locations_.end() || !may_leave_partial(status)) return;
  if (listed_.size() >= kMaxListed || listed_.contains({location, partial})) return;
  remove_beneath(found->second, partial, [&](const struct stat& file) {
    return !is_before(file.st_ctim, since_) && !is_open(identity_of(file));
  });
}

void PartialFiles::remove_open_at(uint32_t location, int directory, int fd) {
  struct stat status {};
  const std::optional<std::string> path = path_of(fd);
  const std::optional<std::string> top = path_of(directory);
  if (!path || !top || ::fstat(fd, &status) != 0) return;
  if (!path->ends_with(kSuffix) || !path->starts_with(*top + '/')) return;
  const std::string name = path->substr(top->size() + 1);
  if (listed_.contains({location, name})) return;
  remove_beneath(directory, name,
                 [&](const struct stat& file) { return identity_of(file) == identity_of(status); });
}

void PartialFiles::remove_open() {
  if (listed_.size() >= kMaxListed) return;
  for (const int fd : own_descriptors())
    for (const auto& [number, directory] : locations_)
      if (writes(fd)) remove_open_at(number, directory, fd);
}

}  // namespace pkgdist::node_program
