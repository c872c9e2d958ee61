// Traces and statistics that the platform writes in this process, and copies of them to spoil.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/qtrace.h"
#include "platform/qtrace_catalogue.h"
#include "platform/qtrace_layout.h"
#include "temp_dir.h"

inline std::string bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Changes one byte of a file; the destructor puts it back.
class ChangedByte {
 public:
  ChangedByte(int fd, size_t at, int value) : fd_(fd), at_(static_cast<off_t>(at)) {
    EXPECT_EQ(1, pread(fd_, &before_, 1, at_));
    const auto byte = static_cast<unsigned char>(value);
    EXPECT_EQ(1, pwrite(fd_, &byte, 1, at_));
  }
  ChangedByte(const ChangedByte&) = delete;
  ChangedByte& operator=(const ChangedByte&) = delete;
  ~ChangedByte() { EXPECT_EQ(1, pwrite(fd_, &before_, 1, at_)); }

 private:
  int fd_;
  off_t at_;
  unsigned char before_ = 0;
};

inline uint64_t inode_of(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

// The directory of this process's trace file; it is chosen once in a process.
inline const std::string& trace_directory_of_tests() {
  static const TempDir directory;
  setenv("PKGDIST_TRACE_DIR", directory.path().c_str(), 1);
  return directory.path();
}

inline std::string own_trace_path() {
  return trace_directory_of_tests() + "/" QTRACE_LAYOUT_FILE_PREFIX + std::to_string(getpid());
}

inline constexpr qtrace_point kTestPoints[] = {
    {"src/one.cpp", "first_function", "ERR:%s: number %d\n", "sd", 11, 1, 0},
    {"src/two.cpp", "second_function", "name %s size %zu\n", "sD", 22, 2, 1},
    {"src/two.cpp", "third_function", "%d %d %s\n", "dds", 33, 1, 1},
};

// A ring of this process with the test's catalogue.
inline qtrace_handle_t open_test_ring(const char* name, uint32_t records,
                                      const char* catalogue_id = "build 1", bool described = true) {
  trace_directory_of_tests();
  qtrace_handle_t handle = 0;
  EXPECT_EQ(0, qtrace_open_internal(name, records, 3, "tree/lib", catalogue_id, 0, &handle));
  if (described) {
    EXPECT_EQ(0, qtrace_describe(handle, kTestPoints, 3));
  }
  return handle;
}
