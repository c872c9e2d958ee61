// The callback is set once, before the threads that ask it exist: it is read without a lock.
#include "pkgdist_data_recv_resume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "pkgdist_atomic.h"
#include "pkgdist_confine.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;

pkgdist_data_resume_cb pkgdist::resume = nullptr;

namespace {

void* resume_context = nullptr;

// What the process may speak of.
struct Parts {
  Entry& entry;
  uint64_t present;  // bytes of the partial file
};

// Marks the segments that lie inside of the part, whole.
void mark_good(uint64_t first, uint64_t size, void* context) {
  const auto& [entry, present] = *static_cast<Parts*>(context);
  const uint64_t most = std::min<uint64_t>(entry.size, present);
  if (first >= most || size == 0) return;
  const uint64_t end = size > most - first ? most : first + size;
  const uint64_t segment = entry.segment_size;
  const uint64_t behind = end == entry.size ? entry.segment_count : end / segment;
  for (uint64_t k = (first + segment - 1) / segment; k < behind; ++k)
    pkgdist_set_segment(entry, static_cast<uint32_t>(k));
}

// Like a file that this process would make now. A umask may have taken bits from its mode.
bool could_be_own(const struct stat& opened, uint32_t mode) {
  constexpr mode_t kPermissions = 07777;
  return S_ISREG(opened.st_mode) && opened.st_uid == geteuid() && opened.st_nlink == 1 &&
         (opened.st_mode & kPermissions & ~mode) == 0;
}

uint32_t first_received(const Entry& entry) {
  uint32_t segment = 0;
  while (!pkgdist_is_segment_set(entry, segment)) ++segment;
  return segment;
}

// False when nothing of it can be used.
bool ask_about(Entry& entry, const struct stat& opened) {
  Parts parts{entry, static_cast<uint64_t>(opened.st_size)};
  load(resume)(entry.location, entry.path, entry.size, mark_good, &parts, resume_context);
  if (entry.received_count == 0) return false;
  const bool too_long = opened.st_size > static_cast<off_t>(entry.size);
  return !too_long || ftruncate(entry.fd, static_cast<off_t>(entry.size)) == 0;
}

}  // namespace

bool pkgdist::may_resume(const Entry& entry) {
  return load(resume) != nullptr && entry.memory == 0 && entry.symlink == 0 && entry.size != 0;
}

bool pkgdist::keeps_partial(const Entry& entry) {
  return load(resume) != nullptr && entry.memory == 0;
}

bool pkgdist::resume_partial(Entry& entry) {
  const FilePath path(entry.location, entry.path, kPartialSuffix);
  entry.fd = Beneath(path)(
      [](const char* name) { return open(name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); });
  if (entry.fd < 0) {
    entry.fd = -1;
    return false;
  }
  struct stat opened {};
  const uint32_t mode = entry.mode & load(G_data_recv_mode_mask);
  if (fstat(entry.fd, &opened) == 0 && could_be_own(opened, mode) && ask_about(entry, opened)) {
    entry.first_segment = entry.last_segment = first_received(entry);
    PKGDIST_INFO("DATA Recv File - File %s goes on with %d of %d segments\n", entry.path,
                 entry.received_count, entry.segment_count);
    return true;
  }
  (void)close(entry.fd);
  entry.fd = -1;
  return false;
}

extern "C" PKGDIST_EXPORT PkgdistStatus
instcomm_pkgdist_data_set_resume(pkgdist_data_resume_cb asked, void* ctx) {
  if (asked == nullptr || load(G_data_req_socket) != -1) {
    PKGDIST_ERR("data resume is NULL or the data side has been started");
    return PKGDIST_ERR_INVALID;
  }
  resume_context = ctx;
  store(resume, asked);
  return 0;
}
