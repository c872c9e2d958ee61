// Helpers for files that a process shares with readers outside: name them, make them afresh, give
// them space, map them.
#ifndef PLATFORM_SRC_MAPPED_FILE_H
#define PLATFORM_SRC_MAPPED_FILE_H

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace platform {

constexpr mode_t kSharedFileMode = 0644;  // everybody may read, nobody else may write

// Takes space for a range of the file, so that a store into its mapping cannot fail later because
// the file system is full. 0 or an error number; a file system that cannot do it counts as success.
inline int take_space(int fd, uint64_t offset, uint64_t size) noexcept {
  for (;;) {
    if (fallocate(fd, 0, static_cast<off_t>(offset), static_cast<off_t>(size)) == 0) return 0;
    if (errno == EOPNOTSUPP) return 0;
    if (errno != EINTR) return errno;
  }
}

// Maps a range of the file for reading and writing; it stays mapped for the life of the process.
// 0 or an error number.
inline int map_shared(int fd, uint64_t offset, uint64_t size, void** out) noexcept {
  void* mapped =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
  if (mapped == MAP_FAILED) return errno;
  *out = mapped;
  return 0;
}

inline uint64_t realtime_ns() noexcept {
  constexpr uint64_t kNsPerSecond = 1000000000;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace platform

#endif
