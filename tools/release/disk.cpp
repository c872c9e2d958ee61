#include "disk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "file_io.h"

namespace pkgdist::release {

namespace {

constexpr unsigned kPrivate = 0600;

std::vector<std::string> names_in(int at, const std::string& path) {
  Fd fd(open_beneath(at, path.c_str(), O_RDONLY | O_DIRECTORY));
  if (!fd) throw_errno("opening", path);
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(fd.get()), closedir);
  if (directory == nullptr) throw_errno("reading", path);
  (void)fd.release();
  std::vector<std::string> names;
  while (const dirent* item = readdir(directory.get())) {
    const std::string name = item->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

void copy_bytes(int from, int to, const std::string& path) {
  off_t at = 0;
  for (;;) {
    constexpr size_t kMost = size_t{1} << 30;
    const ssize_t copied = copy_file_range(from, &at, to, nullptr, kMost, 0);
    if (copied == 0) return;
    if (copied < 0 && errno != EINTR) throw_errno("copying", path);
  }
}

}  // namespace

void Disk::make_directory(int at, const std::string& path, unsigned mode) const {
  before("make directory");
  if (mkdirat(at, path.c_str(), mode) != 0 && errno != EEXIST) throw_errno("making", path);
}

void Disk::rename(int from_at, const std::string& from, int to_at, const std::string& to) const {
  before("rename");
  if (renameat(from_at, from.c_str(), to_at, to.c_str()) != 0) throw_errno("renaming", from);
}

void Disk::replace(int at, const std::string& directory, const std::string& path) const {
  before("replace");
  if (renameat2(at, directory.c_str(), at, path.c_str(), RENAME_EXCHANGE) == 0)
    return remove(at, directory);
  if (errno != ENOENT) remove(at, path);
  rename(at, directory, at, path);
}

bool Disk::hard_link(int at, const std::string& from, const std::string& to) const {
  before("hard link");
  return linkat(at, from.c_str(), at, to.c_str(), 0) == 0;
}

void Disk::make_link(const std::string& target, int at, const std::string& path) const {
  before("make link");
  if (symlinkat(target.c_str(), at, path.c_str()) != 0) throw_errno("making link", path);
}

void Disk::remove(int at, const std::string& path) const {
  struct stat status {};
  if (fstatat(at, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return;
    throw_errno("looking at", path);
  }
  if (S_ISDIR(status.st_mode)) {
    constexpr unsigned kOwner = 0700;
    (void)fchmodat(at, path.c_str(), kOwner, 0);  // trees may have directories that nobody writes
    for (const std::string& name : names_in(at, path)) remove(at, path + "/" + name);
  }
  before("remove");
  if (unlinkat(at, path.c_str(), S_ISDIR(status.st_mode) ? AT_REMOVEDIR : 0) != 0 &&
      errno != ENOENT)
    throw_errno("removing", path);
}

void Disk::write_file(int at, const std::string& path, std::string_view text) const {
  const std::string next = path + ".new";
  before("write");
  {
    const Fd file(open_beneath(at, next.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kPrivate));
    if (!file) throw_errno("opening", next);
    write_all(file.get(), text, next);
    before("sync file");
    if (fsync(file.get()) != 0) throw_errno("writing", next);
  }
  rename(at, next, at, path);
  const size_t slash = path.rfind('/');
  sync_directory(at, slash == std::string::npos ? "." : path.substr(0, slash));
}

bool Disk::copy(int from, int at, const std::string& path, unsigned mode, uint32_t mtime) const {
  before("copy");
  const Fd to(open_beneath(at, path.c_str(), O_WRONLY | O_CREAT | O_EXCL, kPrivate));
  if (!to && errno == EEXIST) return false;
  if (!to) throw_errno("making", path);
  if (ioctl(to.get(), FICLONE, from) != 0) copy_bytes(from, to.get(), path);
  set_mode_and_time(to.get(), mode, mtime);
  return true;
}

void Disk::set_mode(int at, const std::string& path, unsigned mode) const {
  before("set mode");
  const Fd file(open_beneath(at, path.c_str(), O_RDONLY));
  if (!file) throw_errno("opening", path);
  if (fchmod(file.get(), mode) != 0) throw_errno("setting the mode of", path);
}

void Disk::set_mode_and_time(int fd, unsigned mode, uint32_t mtime) const {
  before("set mode and time");
  const timespec times[2] = {{mtime, 0}, {mtime, 0}};
  if (fchmod(fd, mode) != 0 || futimens(fd, times) != 0)
    throw_errno("setting mode and time of", "a file");
}

void Disk::sync_directory(int at, const std::string& path) const {
  before("sync directory");
  const Fd directory(open_beneath(at, path.c_str(), O_RDONLY | O_DIRECTORY));
  if (!directory) throw_errno("opening", path);
  if (fsync(directory.get()) != 0) throw_errno("writing", path);
}

void Disk::sync_everything(int directory) const {
  before("sync everything");
  if (syncfs(directory) != 0) throw_errno("writing", "the file system");
}

}  // namespace pkgdist::release
