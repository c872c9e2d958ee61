// Confinement of names to their storage location: by the kernel, or by a walk.
//
// The walk keeps two texts: what is resolved so far, made of real directories only, and what is
// still to be resolved. A link replaces itself in the second by its target. An absolute target, or
// a
// ".." with nothing resolved before it, leads out.
#include "pkgdist_confine.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace pkgdist {

namespace {

constexpr int kMostLinks = 40;    // as the kernel
constexpr int kMostAttempts = 8;  // when directories are renamed under the check

thread_local ConfinementMemory* remembered = nullptr;

// A descriptor that names a directory and can do nothing else. -1 with errno.
int open_directory(int from, const char* path, uint64_t resolve) {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = resolve;
  return static_cast<int>(syscall(SYS_openat2, from, path, &how, sizeof how));
}

// 0, or the error number with which `relative` does not resolve to a directory beneath `base`.
int resolve_beneath(const ConfinedDirectory& directory) {
  const int base = open_directory(AT_FDCWD, directory.base, 0);
  if (base < 0) return errno;
  int found = -1;
  int error = EAGAIN;
  for (int i = 0; i < kMostAttempts && error == EAGAIN; ++i) {
    found = open_directory(base, directory.relative, RESOLVE_BENEATH);
    error = found < 0 ? errno : 0;
  }
  if (found >= 0) (void)close(found);
  (void)close(base);
  return error;
}

// A path of limited length that is made longer and shorter by components.
struct Walk {
  char resolved[PATH_MAX];  // begins with the base, which `floor` bytes are never taken from
  size_t floor;
  char pending[PATH_MAX];

  explicit Walk(const ConfinedDirectory& directory) {
    floor = static_cast<size_t>(
        std::snprintf(resolved, sizeof resolved, "%s", static_cast<const char*>(directory.base)));
    (void)std::snprintf(pending, sizeof pending, "%s",
                        static_cast<const char*>(directory.relative));
  }

  // Takes the first component off what is pending. False at the end.
  bool next(char (&component)[NAME_MAX + 1], int& error) {
    const char* from = pending;
    while (*from == '/') ++from;
    const size_t length = std::strcspn(from, "/");
    if (length > NAME_MAX) error = ENAMETOOLONG;
    if (length == 0 || error != 0) return false;
    std::memcpy(component, from, length);
    component[length] = '\0';
    std::memmove(pending, from + length, std::strlen(from + length) + 1);
    return true;
  }

  int leave_directory() {
    if (resolved[floor] == '\0') return EXDEV;
    *std::strrchr(resolved, '/') = '\0';
    return 0;
  }

  int enter(const char* component) {
    const size_t length = std::strlen(resolved);
    const int added = std::snprintf(resolved + length, sizeof resolved - length, "/%s", component);
    return static_cast<size_t>(added) < sizeof resolved - length ? 0 : ENAMETOOLONG;
  }

  // Puts the target of the link that was just entered before what is pending.
  int follow_link() {
    char target[PATH_MAX];
    const ssize_t size = readlink(resolved, target, sizeof target - 1);
    if (size < 0) return errno;
    target[size] = '\0';
    if (target[0] == '/') return EXDEV;
    const size_t length = static_cast<size_t>(size);
    if (length + 1 + std::strlen(pending) >= sizeof pending) return ENAMETOOLONG;
    std::memmove(pending + length + 1, pending, std::strlen(pending) + 1);
    std::memcpy(pending, target, length);
    pending[length] = '/';
    return leave_directory();
  }
};

int resolve_by_walk(const ConfinedDirectory& directory) {
  Walk walk(directory);
  char component[NAME_MAX + 1];
  int error = 0;
  for (int links = 0; walk.next(component, error);) {
    if (std::strcmp(component, ".") == 0) continue;
    const bool up = std::strcmp(component, "..") == 0;
    error = up ? walk.leave_directory() : walk.enter(component);
    if (error != 0) return error;
    struct stat found {};
    if (!up && lstat(walk.resolved, &found) != 0) return errno;
    if (up || !S_ISLNK(found.st_mode)) continue;
    if (++links > kMostLinks) return ELOOP;
    if (error = walk.follow_link(); error != 0) return error;
  }
  return error;
}

// Where the directory is missing, no directory or may not be looked into, a call fails by itself.
int leave_to_call(int error) {
  return error == ENOENT || error == ENOTDIR || error == EACCES ? 0 : error;
}

}  // namespace

ConfinedDirectory::ConfinedDirectory(const FilePath& path) : base{'.'}, relative{} {
  const char* name = path.c_str() + path.base_length();
  if (path.base_length() != 0) std::memcpy(base, path.c_str(), path.base_length());
  while (*name == '/') ++name;
  if (const char* end = std::strrchr(name, '/'); end != nullptr)
    std::memcpy(relative, name, static_cast<size_t>(end - name));
}

bool ConfinedDirectory::operator==(const ConfinedDirectory& other) const {
  return std::strcmp(base, other.base) == 0 && std::strcmp(relative, other.relative) == 0;
}

ConfinementMemory::ConfinementMemory() {
  remembered = this;
}

ConfinementMemory::~ConfinementMemory() {
  remembered = nullptr;
}

void ConfinementMemory::forget() {
  if (remembered != nullptr) remembered->count_ = 0;
}

bool ConfinementMemory::knows(const ConfinedDirectory& directory) const {
  const auto end = passed_.begin() + static_cast<ptrdiff_t>(std::min(count_, kMost));
  return std::find(passed_.begin(), end, directory) != end;
}

void ConfinementMemory::remember(const ConfinedDirectory& directory) {
  passed_[count_++ % kMost] = directory;
}

int confinement_error(const FilePath& path) {
  const ConfinedDirectory directory(path);
  if (directory.relative[0] == '\0') return 0;
  if (remembered != nullptr && remembered->knows(directory)) return 0;
  int error = resolve_beneath(directory);
  // A kernel before 5.6, or a filter of system calls that does not know this one.
  if (error == ENOSYS || error == EPERM) error = resolve_by_walk(directory);
  error = leave_to_call(error);
  if (error == 0 && remembered != nullptr) remembered->remember(directory);
  return error;
}

int confinement_error_by_walk(const FilePath& path) {
  return leave_to_call(resolve_by_walk(ConfinedDirectory(path)));
}

}  // namespace pkgdist
