// Opening and writing the destination of a file that is being received.
//
// A disk file is written under its partial name, opened on the first segment and kept open. A
// failed write closes it and is tried again on a fresh descriptor; when the disk is full the
// partial file is deleted, so the attempts end there. A memory location is a shared mapping of the
// whole object.
#include "pkgdist_data_recv_file_write.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_segment_run.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"
#include "pkgdist_status.h"
#include "platform/inst_common.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;

namespace {

constexpr char kReporter[] = "pkgdist_data_process_file_segment";
constexpr int kAttempts = 3;
constexpr mode_t kMemoryObjectMode = 0777;

PkgdistStatus open_memory_object(Entry& entry) {
  const FilePath name(entry.location, entry.path);
  entry.fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, kMemoryObjectMode);
  if (entry.fd < 0) {
    const int error = errno;
    entry.fd = -1;
    PKGDIST_ERR_IN(kReporter, "data file recv shm_open %s failed, rc=%d(%s)", name.c_str(), error,
                   std::strerror(error));
    return pkgdist_status_from_errno(error);
  }
  if (ftruncate(entry.fd, static_cast<off_t>(entry.size)) != 0) {
    const int error = errno;
    PKGDIST_ERR_IN(kReporter, "data file recv ftruncate %s failed, rc=%d(%s)", name.c_str(), error,
                   std::strerror(error));
    return pkgdist_status_from_errno(error);
  }
  if (entry.size == 0) return 0;  // nothing can be mapped, and nothing will be written
  entry.mapping = mmap(nullptr, entry.size, PROT_READ | PROT_WRITE, MAP_SHARED, entry.fd, 0);
  if (entry.mapping == MAP_FAILED) {
    const int error = errno;
    PKGDIST_ERR_IN(kReporter, "data file recv mmap failed, path %s rc=%d(%s)", name.c_str(), error,
                   std::strerror(error));
    return pkgdist_status_from_errno(error);
  }
  entry.mapping_size = entry.size;
  return 0;
}

// Opens the partial file, making its directories. The error number of the last failure, or 0.
int open_partial(Entry& entry, const char* path) {
  int error = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    entry.fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, entry.mode);
    if (entry.fd >= 0) return 0;
    error = errno;
    entry.fd = -1;
    if (error != ENOENT || instcomm_create_filepath_dirs(path) == 0) continue;
    error = errno;
    PKGDIST_ERR_TEXT("ERR:%s: Failed to create dir %s, errno %d(%s)", kReporter, path, error,
                     std::strerror(error));
    count(DrsCounter::kFileError);
    return error;
  }
  return error;
}

PkgdistStatus open_disk_file(Entry& entry) {
  const FilePath path(entry.location, entry.path, kPartialSuffix);
  const Stopwatch time(DrsHistogram::kFileOpenTime);
  const int error = open_partial(entry, path.c_str());
  time.finish();
  if (error == 0) return 0;
  PKGDIST_ERR_IN(kReporter, "failed to open %s for writing, rc=%d (%s)", path.c_str(), error,
                 std::strerror(error));
  count(DrsCounter::kFileError);
  return pkgdist_status_from_errno(error);
}

// The path of the partial file, which only failures need.
FilePath partial_path(const Entry& entry) {
  return FilePath(entry.location, entry.path, kPartialSuffix);
}

// One attempt. Sets `error` to the error number of what failed; 0 after a short write.
PkgdistStatus write_once(Entry& entry, uint32_t offset, uint32_t length, const uint8_t* data,
                         int& error) {
  const char* const function = "pkgdist_file_write_data";
  error = 0;
  if (lseek(entry.fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    error = errno;
    PKGDIST_ERR_IN(function, "data file write seek failed, path '%s' offset %d rc=%d(%s)",
                   partial_path(entry).c_str(), offset, error, std::strerror(error));
    return pkgdist_status_from_errno(error);
  }
  const Stopwatch time(DrsHistogram::kFileWriteTime);
  const ssize_t written = write(entry.fd, data, length);
  if (written < 0) {
    error = errno;
    PKGDIST_ERR_IN(function, "data file write failed, path '%s' offset %d rc=%d(%s)",
                   partial_path(entry).c_str(), offset, error, std::strerror(error));
    return pkgdist_status_from_errno(error);
  }
  if (static_cast<size_t>(written) != length) {
    PKGDIST_ERR_IN(function, "data file write incomplete, path '%s' writesize=%zd expected=%d",
                   partial_path(entry).c_str(), written, length);
    return PKGDIST_ERR_WRITE;
  }
  time.finish();
  return 0;
}

// After a failed attempt: the next one begins with a fresh descriptor, if the file is still there.
void recover(Entry& entry, int error) {
  (void)close(entry.fd);
  entry.fd = -1;
  if (error == ENOSPC) {
    const FilePath path = partial_path(entry);
    PKGDIST_ERR_TEXT("ERR:%s: Deleting partially downloaded file '%s' as there is no space \n",
                     "pkgdist_file_write_data", path.c_str());
    (void)unlink(path.c_str());
  }
  count(DrsCounter::kFileError);
}

}  // namespace

PkgdistStatus pkgdist::open_destination(Entry& entry) {
  return entry.memory != 0 ? open_memory_object(entry) : open_disk_file(entry);
}

PkgdistStatus pkgdist_file_write_data(Entry& entry, uint32_t offset, uint32_t length,
                                      const uint8_t* data) {
  PkgdistStatus status = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (entry.fd == -1) {
      const FilePath path = partial_path(entry);
      entry.fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
      if (entry.fd < 0) {
        const int error = errno;
        entry.fd = -1;
        PKGDIST_ERR("data file write data open failed, path '%s' rc=%d(%s)", path.c_str(), error,
                    std::strerror(error));
        return pkgdist_status_from_errno(error);
      }
    }
    int error = 0;
    status = write_once(entry, offset, length, data, error);
    if (status == 0) return 0;
    recover(entry, error);
  }
  return status;
}

bool pkgdist::write_segments(Entry& entry, std::span<const pkgdist_data_send_segment> segments) {
  std::array<iovec, SegmentRun::kMax> parts;
  uint64_t bytes = 0;
  for (size_t i = 0; i < segments.size(); ++i) {
    parts[i] = {const_cast<uint8_t*>(segments[i].data), segments[i].data_size};
    bytes += segments[i].data_size;
  }
  const auto offset = static_cast<off_t>(uint64_t{entry.segment_size} * segments.front().segment);
  const Stopwatch time(DrsHistogram::kFileWriteTime);
  const ssize_t written =
      pwritev(entry.fd, parts.data(), static_cast<int>(segments.size()), offset);
  if (written < 0 || static_cast<uint64_t>(written) != bytes) return false;
  time.finish(static_cast<uint32_t>(segments.size()));
  return true;
}
