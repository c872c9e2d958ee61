#include "file_io.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "refusal.h"

namespace pkgdist::release {

void throw_errno(std::string_view doing, std::string_view name) {
  const int error = errno;
  throw std::runtime_error(std::string(doing) + " " + std::string(name) + ": " +
                           std::strerror(error));
}

namespace {

// Beside those of the caller. Nothing is opened with O_PATH, and no FIFO waits there.
int flags_beneath(int flags) {
  return flags | O_CLOEXEC | O_NOFOLLOW | ((flags & O_PATH) != 0 ? 0 : O_NONBLOCK);
}

int refused(int error) {
  errno = error;
  return -1;
}

// The directory of this name, which is no link. openat() says of a link that it is no directory.
int enter(int directory, const std::string& name) {
  const int fd = openat(directory, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0 || errno != ENOTDIR) return fd;
  struct stat found {};
  const bool link =
      fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(found.st_mode);
  return refused(link ? ELOOP : ENOTDIR);
}

}  // namespace

int open_beneath(int directory, const char* path, int flags, unsigned mode) {
  open_how how = {};
  how.flags = static_cast<uint64_t>(flags_beneath(flags));
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  for (;;) {
    const long fd = syscall(SYS_openat2, directory, path, &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    if (errno == ENOSYS) return open_beneath_by_steps(directory, path, flags, mode);
    if (errno != EINTR && errno != EAGAIN) return -1;
  }
}

int open_beneath_by_steps(int directory, const char* path, int flags, unsigned mode) {
  if (*path == '/') return refused(EXDEV);
  for (Fd at;;) {
    const size_t length = std::strcspn(path, "/");
    const std::string name(path, length);
    path += length + std::strspn(path + length, "/");
    if (name == "..") return refused(EXDEV);
    const int from = at ? at.get() : directory;
    if (*path == '\0') return openat(from, name.c_str(), flags_beneath(flags), mode);
    at = Fd(enter(from, name));
    if (!at) return -1;
  }
}

std::string read_beneath(int directory, const char* path, size_t most) {
  const Fd file(open_beneath(directory, path, O_RDONLY));
  if (!file) throw_errno("opening", path);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) throw_errno("looking at", path);
  if (!S_ISREG(status.st_mode)) throw Refused(Reason::kTree, std::string(path) + " is no file");
  std::string text;
  char block[65536];
  for (;;) {
    const ssize_t got = read(file.get(), block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw_errno("reading", path);
    if (got == 0) return text;
    text.append(block, static_cast<size_t>(got));
    if (text.size() > most)
      throw Refused(Reason::kTooLarge, std::string(path) + " is larger than it may be");
  }
}

void write_all(int fd, std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw_errno("writing", name);
    text.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace pkgdist::release
