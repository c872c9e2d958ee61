// Opening what is below a directory, and nothing else.
//
// A name has no ".." component, so without symbolic links it cannot leave the directory. With them
// it could: a node that asks for `old/shadow` would get a file of the host behind `old -> /etc`. So
// the kernel resolves names beneath the directory (openat2); where it cannot, a walk does the same.
// Links that stay inside work. A name that would leave fails with EXDEV, one whose links never end
// with ELOOP, and so does one whose last component is a link.
#pragma once

#include <unistd.h>

#include <string>
#include <utility>

namespace pkgdist::lead {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// `name`: relative, without empty, "." and ".." components. `flags`: of open(), without O_CREAT;
// O_NOFOLLOW and O_CLOEXEC are added. Without a descriptor errno says why not.
Descriptor open_beneath(int directory, const std::string& name, int flags);

// The same by looking at every component, for kernels without openat2().
Descriptor open_beneath_by_walk(int directory, const std::string& name, int flags);

// The target of a link that was opened with O_PATH. 0, or an errno value.
int read_link(int link, size_t longest, std::string& target);

}  // namespace pkgdist::lead
