// Every change that installing a release makes to the disk. One place, so that a test can stop or
// fail the installation before any of them.
//
// Paths are relative to a directory descriptor, and links in them are not followed where a
// function opens them. Functions throw std::runtime_error.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace pkgdist::release {

class Disk {
 public:
  // Called with the name of the operation before each one; may throw.
  using Before = std::function<void(const char*)>;
  explicit Disk(Before before = nullptr) : before_(std::move(before)) {}

  // No error when it is there.
  void make_directory(int at, const std::string& path, unsigned mode) const;
  void rename(int from_at, const std::string& from, int to_at, const std::string& to) const;
  void make_link(const std::string& target, int at, const std::string& path) const;
  // A file, link or whole directory; no error when nothing is there.
  void remove(int at, const std::string& path) const;
  // Replaces the file at once, and is on the disk when this returns.
  void write_file(int at, const std::string& path, std::string_view text) const;
  // The directory takes the name, at once where the file system can; what has it now is removed.
  void replace(int at, const std::string& directory, const std::string& path) const;
  // Another name of the file. False when the file system does not want that, or the name is taken.
  bool hard_link(int at, const std::string& from, const std::string& to) const;
  // A new file with the content of the other: shared blocks where the file system can, else a copy.
  // False when the name is taken.
  bool copy(int from, int at, const std::string& path, unsigned mode, uint32_t mtime) const;
  void set_mode(int at, const std::string& path, unsigned mode) const;
  void set_mode_and_time(int fd, unsigned mode, uint32_t mtime) const;
  void sync_directory(int at, const std::string& path) const;
  // All of the file system that the directory is on.
  void sync_everything(int directory) const;

 private:
  void before(const char* operation) const {
    if (before_) before_(operation);
  }
  Before before_;
};

}  // namespace pkgdist::release
