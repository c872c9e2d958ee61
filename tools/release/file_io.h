// Small pieces of file access that releases share.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>
#include <utility>

namespace pkgdist::release {

// Owns a file descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ != -1; }
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ != -1) (void)close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// "opening NAME: No such file or directory" for the present errno.
[[noreturn]] void throw_errno(std::string_view doing, std::string_view name);

// Opens beneath a directory: no component may be a symbolic link, and the path may not lead out of
// the directory. Opening a FIFO does not wait. -1 and errno when that fails.
int open_beneath(int directory, const char* path, int flags, unsigned mode = 0);
// The same step by step, where openat2() is not to be had: on kernels before 5.6, and for services
// that systemd keeps from making set-user-ID files (RestrictSUIDSGID=, which DynamicUser= implies).
int open_beneath_by_steps(int directory, const char* path, int flags, unsigned mode = 0);

// The content of a regular file beneath a directory. Throws std::runtime_error when it cannot be
// read, Refused(kTooLarge) when it has more than `most` bytes, Refused(kTree) when it is no file.
std::string read_beneath(int directory, const char* path, size_t most);

// Writes the whole text. Throws std::runtime_error.
void write_all(int fd, std::string_view text, std::string_view name);

}  // namespace pkgdist::release
