// Finishing files.
//
// A disk file gets the lead's modification time and then its final name in one rename, so that the
// final name never shows partial content. A shared-memory object already has its name; a symbolic
// link was made when its one segment arrived. The report to the lead is sent once: when it is lost,
// the lead asks and is answered from the stat database.
#include "pkgdist_data_recv_done.h"

#include <sys/mman.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "pkgdist_confine.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_datagram.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"
#include "pkgdist_status.h"
#include "platform/inst_common.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Header = pkgdist_data_msg_hdr;
using Body = pkgdist_data_send_req_done;

namespace {

constexpr size_t kPacketBytes = 301;

// Sets access and modification time; a failure is only logged.
void set_times(const char* function, const Beneath& path, uint64_t mtime) {
  if (mtime == 0) return;
  const utimbuf times = {static_cast<time_t>(mtime), static_cast<time_t>(mtime)};
  if (path([&](const char* name) { return utime(name, &times); }) != 0)
    PKGDIST_ERR_IN(function, "data file recv futime %s failed, rc=%d(%s)", path.c_str(), errno,
                   std::strerror(errno));
}

PkgdistStatus rename_disk_file(const char* function, Entry& entry) {
  const Stopwatch time(DrsHistogram::kFileRenameTime);
  PkgdistStatus status = 0;
  (void)close(entry.fd);
  entry.fd = -1;
  const FilePath partial(entry.location, entry.path, kPartialSuffix);
  const FilePath final_path(entry.location, entry.path);
  const Beneath checked(partial);  // both stand in one directory
  set_times(function, checked, entry.mtime);
  if (checked([&](const char* from) { return std::rename(from, final_path.c_str()); }) != 0) {
    const int error = errno;
    PKGDIST_ERR_IN(function, "data file recv rename %s to %s failed, rc=%d(%s)", partial.c_str(),
                   final_path.c_str(), error, std::strerror(error));
    status = pkgdist_status_from_errno(error);
    count(DrsCounter::kFileError);
  }
  time.finish();
  return status;
}

void close_memory_file(Entry& entry) {
  if (entry.mapping != MAP_FAILED) (void)munmap(entry.mapping, entry.mapping_size);
  entry.mapping = MAP_FAILED;
  (void)close(entry.fd);
  entry.fd = -1;
}

}  // namespace

PkgdistStatus pkgdist_data_file_rename(Entry& entry) {
  if (entry.symlink != 0) return 0;
  if (entry.memory == 0) return rename_disk_file(__func__, entry);
  close_memory_file(entry);
  return 0;
}

PkgdistStatus pkgdist_data_file_symlink(const Entry& entry, size_t length, const uint8_t* target) {
  const Stopwatch time(DrsHistogram::kSymlinkTime);
  PkgdistStatus status = 0;
  const FilePath link(entry.location, entry.path);
  char text[PKGDIST_SYMLINK_TARGET_MAX + 1] = {};
  if (length != 0) std::memcpy(text, target, std::min(length, size_t{PKGDIST_SYMLINK_TARGET_MAX}));
  const Beneath checked(link);
  (void)checked(unlink);
  if (checked([&](const char* path) { return inst_symlink(text, path); }) != 0) {
    const int error = errno;
    PKGDIST_ERR("data file recv symlink %s failed, rc=%d(%s)", link.c_str(), error,
                std::strerror(error));
    status = pkgdist_status_from_errno(error);
    count(DrsCounter::kFileError);
  }
  ConfinementMemory::forget();
  set_times(__func__, checked, entry.mtime);
  time.finish();
  return status;
}

PkgdistStatus pkgdist_data_send_file_done(uint32_t file_id, PkgdistStatus status, const char* path,
                                          uint32_t location) {
  Owned<Header> header;
  qidl::set<&Header::msg_id>(*header, PKGDIST_DATA_MSG_REQ_DONE);
  qidl::set<&Header::node_ip>(*header, load(G_my_node_ip));
  Owned<Body> body;
  qidl::set<&Body::file_id>(*body, file_id);
  qidl::set<&Body::status>(*body, status);
  qidl::set<&Body::name>(*body, strdup(path));
  qidl::set<&Body::location>(*body, location);
  if (body->name == nullptr) {
    PKGDIST_ERR("stddup() for DATA_SEND_FILE_DONE_NAME failed");
    return PKGDIST_ERR_NOMEM;
  }
  Datagram datagram(kPacketBytes);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for DATA_SEND_REQ_DONE failed", kPacketBytes);
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  datagram.put_body(*body);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("data req done encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("data req done encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  PKGDIST_INFO("DATA Send File Done - File Id %d Name %s Status %lx\n", file_id, path, status);
  const Stopwatch time(DrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_data_req_socket), load(G_data_req_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("data req done uc sendto of %zd bytes failed, rc=%zd, errno=%d(%s)",
                datagram.total(), sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  count(DrtCounter::kUcSendDoneSent);
  return 0;
}
