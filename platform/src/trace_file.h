// The trace file of this process: a header with the directory of rings, then areas.
//
// Rule: areas are added at the end and never move, one for each ring and one for each catalogue. A
// ring is complete before `ring_count` makes it visible, a catalogue before its ring names its
// size. The file is sparse; the header has its space from the start, a ring takes space as its
// records are written.
//
// Threads: the caller's lock serialises all calls.
#ifndef PLATFORM_SRC_TRACE_FILE_H
#define PLATFORM_SRC_TRACE_FILE_H

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "mapped_file.h"
#include "platform/fts.h"
#include "platform/qtrace_layout.h"
#include "unique_fd.h"

namespace platform {

class TraceFile {
 public:
  static constexpr uint32_t kRingCapacity = 64;

  // Areas begin at multiples of this: a multiple of every page size that Linux uses.
  static constexpr uint64_t kAreaAlignment = 64 * 1024;

  // False also in a child of the process that made the file.
  bool is_ours() const noexcept { return pid_ == getpid(); }
  int fd() const noexcept { return fd_; }
  const char* path() const noexcept { return path_; }

  // Makes the file of this process in place of a leftover, as far as it may. 0 or an error number.
  // The descriptor of a parent's file stays open: rings of the parent may still be written to.
  int make() noexcept {
    char path[PATH_MAX];
    const pid_t pid = getpid();
    const char* directory = std::getenv("PKGDIST_TRACE_DIR");
    if (directory == nullptr || directory[0] == '\0') directory = "/dev/shm";
    const int length = std::snprintf(path, sizeof path, "%s/" QTRACE_LAYOUT_FILE_PREFIX "%d",
                                     directory, static_cast<int>(pid));
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) return ENAMETOOLONG;
    unlink(path);
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kSharedFileMode));
    // What another user's process left under the name stays, and this trace has none: it can be
    // read through /proc/PID/fd only, and the process works.
    if (!fd && errno == EEXIST) {
      path[0] = '\0';
      fd.reset(open(directory, O_RDWR | O_TMPFILE | O_CLOEXEC, kSharedFileMode));
    }
    if (!fd) return errno;
    void* header = nullptr;
    const int error = add_area(fd.get(), 0, kHeaderArea, kHeaderArea, &header);
    if (error != 0) {
      unlink(path);
      return error;
    }
    std::snprintf(path_, sizeof path_, "%s", path);
    adopt(pid, fd.release(), static_cast<qtrace_layout_header*>(header));
    return 0;
  }

  // Adds an area for a ring with `size` bytes of records and maps it. `*ring` becomes the directory
  // entry to fill in before publish_ring(). 0 or an error number; until the ring is published
  // nothing has changed for readers and the next call reuses the space.
  int add_ring(uint64_t size, qtrace_layout_ring** ring, void** records) noexcept {
    if (header_->ring_count == kRingCapacity) return ENOSPC;
    const int error = add_area(fd_, end_, size, 0, records);
    if (error != 0) return error;
    *ring = &rings()[header_->ring_count];
    (*ring)->records_offset = end_;
    return 0;
  }

  // Adds an area for a catalogue and maps it until the caller unmaps it. 0 or an error number.
  int add_catalogue(uint64_t size, uint64_t* offset, void** bytes) noexcept {
    const int error = add_area(fd_, end_, size, size, bytes);
    if (error != 0) return error;
    *offset = end_;
    advance(size);
    return 0;
  }

  void publish_ring(uint64_t size) noexcept {
    advance(size);
    std::atomic_ref<uint32_t>(header_->ring_count).fetch_add(1, std::memory_order_release);
  }

 private:
  static constexpr uint64_t kHeaderArea = kAreaAlignment;
  static_assert(sizeof(qtrace_layout_header) + kRingCapacity * sizeof(qtrace_layout_ring) <=
                kHeaderArea);

  static int add_area(int fd, uint64_t offset, uint64_t size, uint64_t space, void** out) noexcept {
    if (ftruncate(fd, static_cast<off_t>(offset + size)) != 0) return errno;
    const int error = space == 0 ? 0 : take_space(fd, offset, space);
    return error != 0 ? error : map_shared(fd, offset, size, out);
  }

  void advance(uint64_t size) noexcept {
    end_ += (size + kAreaAlignment - 1) / kAreaAlignment * kAreaAlignment;
  }

  void adopt(pid_t pid, int fd, qtrace_layout_header* header) noexcept {
    pid_ = pid;
    fd_ = fd;
    header_ = header;
    end_ = kHeaderArea;
    header->version = QTRACE_LAYOUT_VERSION;
    header->pid = static_cast<uint32_t>(pid);
    header->created_realtime_ns = realtime_ns();
    header->created_monotonic_ns = fts_get_stamp_fast();
    header->ring_offset = sizeof *header;
    header->ring_stride = sizeof(qtrace_layout_ring);
    header->ring_capacity = kRingCapacity;
    header->record_size = sizeof(qtrace_layout_record);
    std::atomic_ref<uint64_t>(header->magic).store(QTRACE_LAYOUT_MAGIC, std::memory_order_release);
  }

  qtrace_layout_ring* rings() const noexcept {
    return reinterpret_cast<qtrace_layout_ring*>(header_ + 1);
  }

  pid_t pid_ = 0;
  int fd_ = -1;  // stays open for the life of the process
  qtrace_layout_header* header_ = nullptr;
  uint64_t end_ = 0;  // where the next area begins
  char path_[PATH_MAX] = "";
};

}  // namespace platform

#endif
