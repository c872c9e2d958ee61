#include "shell/beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <vector>

namespace pkgdist::lead {

namespace {

constexpr int kMostLinks = 40;    // as the kernel
constexpr int kMostAttempts = 8;  // when directories are renamed meanwhile

Descriptor failed(int error) {
  errno = error;
  return Descriptor();
}

// The directories from the given one down to where the walk has come, and the components ahead of
// it, the next one last.
class Walk {
 public:
  Walk(int directory, const std::string& name) : base_(directory) { put(name); }

  Descriptor open(int flags) {
    while (pending_.size() > 1)
      if (const int error = step(); error != 0) return failed(error);
    if (pending_.empty() || pending_.back() == "..") return failed(EISDIR);
    return Descriptor(::openat(at(), pending_.back().c_str(), flags));
  }

 private:
  int at() const { return below_.empty() ? base_ : below_.back().get(); }

  // Before what is ahead already.
  void put(const std::string& path) {
    for (size_t end = path.size(); end != std::string::npos && end != 0;) {
      const size_t slash = path.rfind('/', end - 1);
      const size_t start = slash == std::string::npos ? 0 : slash + 1;
      const std::string component = path.substr(start, end - start);
      if (!component.empty() && component != ".") pending_.push_back(component);
      end = slash;
    }
  }

  int step() {
    const std::string component = std::move(pending_.back());
    pending_.pop_back();
    if (component == "..") {
      if (below_.empty()) return EXDEV;
      below_.pop_back();
      return 0;
    }
    Descriptor next(::openat(at(), component.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (!next || ::fstat(next.get(), &found) != 0) return errno;
    if (S_ISLNK(found.st_mode)) return follow(next.get());
    if (!S_ISDIR(found.st_mode)) return ENOTDIR;
    below_.push_back(std::move(next));
    return 0;
  }

  int follow(int link) {
    std::string target;
    if (const int error = read_link(link, PATH_MAX, target); error != 0) return error;
    if (++links_ > kMostLinks) return ELOOP;
    if (target.starts_with('/')) return EXDEV;
    put(target);
    return 0;
  }

  const int base_;
  std::vector<Descriptor> below_;
  std::vector<std::string> pending_;
  int links_ = 0;
};

}  // namespace

Descriptor open_beneath(int directory, const std::string& name, int flags) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_NOFOLLOW | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int i = 0; i < kMostAttempts; ++i) {
    const long fd = ::syscall(SYS_openat2, directory, name.c_str(), &how, sizeof how);
    if (fd >= 0) return Descriptor(static_cast<int>(fd));
    if (errno != EAGAIN) break;
  }
  // A kernel before 5.6, or a filter of system calls that does not know this one.
  if (errno == ENOSYS || errno == EPERM) return open_beneath_by_walk(directory, name, flags);
  return Descriptor();
}

Descriptor open_beneath_by_walk(int directory, const std::string& name, int flags) {
  return Walk(directory, name).open(flags | O_NOFOLLOW | O_CLOEXEC);
}

int read_link(int link, size_t longest, std::string& target) {
  target.assign(longest, '\0');
  const ssize_t length = ::readlinkat(link, "", target.data(), target.size());
  if (length < 0) return errno;
  target.resize(static_cast<size_t>(length));
  return 0;
}

}  // namespace pkgdist::lead
