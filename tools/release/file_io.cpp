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

int open_beneath(int directory, const char* path, int flags, unsigned mode) {
  open_how how = {};
  const int nonblock = (flags & O_PATH) != 0 ? 0 : O_NONBLOCK;  // nothing is opened with O_PATH
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | nonblock | O_NOFOLLOW);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  for (;;) {
    const long fd = syscall(SYS_openat2, directory, path, &how, sizeof how);
    if (fd >= 0 || (errno != EINTR && errno != EAGAIN)) return static_cast<int>(fd);
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
