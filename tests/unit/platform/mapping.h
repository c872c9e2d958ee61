// A file or shared-memory object seen the way a reader outside the process sees it: a read-only
// mapping of its own.
#ifndef TESTS_UNIT_PLATFORM_MAPPING_H
#define TESTS_UNIT_PLATFORM_MAPPING_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

class Mapping {
 public:
  static Mapping of_object(const std::string& name) {
    return Mapping(shm_open(name.c_str(), O_RDONLY, 0));
  }
  static Mapping of_file(const std::string& path) {
    return Mapping(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (base_ != nullptr) munmap(base_, size_);
  }

  explicit operator bool() const { return base_ != nullptr; }
  size_t size() const { return size_; }
  uint64_t disk_bytes() const { return disk_bytes_; }

  template <typename T>
  const T* at(uint64_t offset) const {
    return reinterpret_cast<const T*>(static_cast<const char*>(base_) + offset);
  }

 private:
  explicit Mapping(int fd) {
    if (fd < 0) return;
    struct stat found = {};
    if (fstat(fd, &found) == 0 && found.st_size > 0) {
      size_ = static_cast<size_t>(found.st_size);
      disk_bytes_ = static_cast<uint64_t>(found.st_blocks) * 512;
      void* mapped = mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd, 0);
      base_ = mapped == MAP_FAILED ? nullptr : mapped;
    }
    close(fd);
  }

  void* base_ = nullptr;
  size_t size_ = 0;
  uint64_t disk_bytes_ = 0;
};

#endif
