// Opening and writing the destination of a file that is being received.
//
// A disk file is written under its partial name, opened on the first segment and kept open. A
// failed write closes it and is tried again on a fresh descriptor; when the disk is full the
// partial file is deleted, so the attempts end there. A memory location is a shared mapping of the
// whole object.
//
// Under the partial name something may stand already: of a process that died, of another user, a
// link or a device. What is not a file that this process could just have made is removed, and the
// partial file is made anew, or not at all. Nothing is emptied before that is known: it may be a
// second name of somebody's file.
#include "pkgdist_data_recv_file_write.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "pkgdist_confine.h"
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

// Whether the file is like one that this process has just made with this mode. A umask or the
// directory's rules may make another mode of it; then it is made twice, which does no harm.
bool is_fresh(const struct stat& opened, mode_t mode) {
  constexpr mode_t kPermissions = 07777;
  return S_ISREG(opened.st_mode) && opened.st_uid == geteuid() && opened.st_nlink == 1 &&
         (opened.st_mode & kPermissions) == (mode & kPermissions);
}

// Empties an opened file that this process may have left behind. 0 or the error number; EEXIST
// when it is something else, which is left as it is.
int take_over(int fd, mode_t mode) {
  struct stat opened {};
  if (fstat(fd, &opened) != 0 || !is_fresh(opened, mode)) return EEXIST;
  return opened.st_size == 0 || ftruncate(fd, 0) == 0 ? 0 : errno;
}

// Whether the open may have failed because of what stands under the name.
bool is_in_the_way(int error) {
  return error == EACCES || error == EPERM || error == ELOOP || error == ENXIO || error == ETXTBSY;
}

// One attempt. 0 or the error number. `exclusive` (O_EXCL or 0) is what the next one has to add.
int open_once(Entry& entry, const FilePath& path, int& exclusive) {
  const Beneath checked(path);
  const mode_t mode = entry.mode & load(G_data_recv_mode_mask);
  entry.fd = checked([&](const char* name) {
    return open(name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | exclusive, mode);
  });
  const bool opened = entry.fd >= 0;
  int error = opened ? 0 : errno;
  if (opened && exclusive == 0) error = take_over(entry.fd, mode);
  if (error == 0) return 0;
  if (opened) (void)close(entry.fd);
  entry.fd = -1;
  const bool is_something_else = opened && error == EEXIST;
  if (exclusive != 0 || (!is_something_else && !is_in_the_way(error))) return error;
  (void)checked(unlink);
  exclusive = O_EXCL;
  return error;
}

// Opens the partial file, making its directories. The error number of the last failure, or 0.
int open_partial(Entry& entry, const FilePath& path) {
  int error = 0;
  int exclusive = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    error = open_once(entry, path, exclusive);
    if (error == 0) return 0;
    if (error != ENOENT || instcomm_create_filepath_dirs(path.c_str()) == 0) continue;
    error = errno;
    PKGDIST_ERR_TEXT("ERR:%s: Failed to create dir %s, errno %d(%s)", kReporter, path.c_str(),
                     error, std::strerror(error));
    count(DrsCounter::kFileError);
    return error;
  }
  return error;
}

PkgdistStatus open_disk_file(Entry& entry) {
  const FilePath path(entry.location, entry.path, kPartialSuffix);
  const Stopwatch time(DrsHistogram::kFileOpenTime);
  const int error = open_partial(entry, path);
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
    (void)Beneath(path)(unlink);
  }
  count(DrsCounter::kFileError);
}

// What stands under the entry's partial name, or as its memory object. False when nothing does.
bool look_at_partial(const Entry& entry, const FilePath& path, struct stat& found) {
  if (entry.memory == 0)
    return Beneath(path)([&](const char* name) { return lstat(name, &found); }) == 0;
  const int fd = shm_open(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return false;
  const bool looked = fstat(fd, &found) == 0;
  (void)close(fd);
  return looked;
}

}  // namespace

void pkgdist::discard_partial(Entry& entry) {
  const FilePath path(entry.location, entry.path, entry.memory != 0 ? "" : kPartialSuffix);
  struct stat made {};
  struct stat found {};
  const bool is_own = fstat(entry.fd, &made) == 0 && look_at_partial(entry, path, found) &&
                      made.st_dev == found.st_dev && made.st_ino == found.st_ino;
  (void)close(entry.fd);
  entry.fd = -1;
  if (!is_own) return;
  if (entry.memory != 0)
    (void)shm_unlink(path.c_str());
  else
    (void)Beneath(path)(unlink);
}

PkgdistStatus pkgdist::open_destination(Entry& entry) {
  return entry.memory != 0 ? open_memory_object(entry) : open_disk_file(entry);
}

PkgdistStatus pkgdist_file_write_data(Entry& entry, uint32_t offset, uint32_t length,
                                      const uint8_t* data) {
  PkgdistStatus status = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (entry.fd == -1) {
      const FilePath path = partial_path(entry);
      entry.fd = Beneath(path)(
          [](const char* name) { return open(name, O_RDWR | O_NOFOLLOW | O_CLOEXEC); });
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
