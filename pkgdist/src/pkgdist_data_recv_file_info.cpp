// File information: the lead announces a file before its segments.
//
// The announcement is matched to the entry that somebody's request made. A repeat of the current
// transfer only says that the lead is still at it. A new one decides whether the file is needed at
// all, and lays out its segments and bitmaps from nothing. Everything is decided under the receive
// lock; a file that ends here is completed after it.
#include "pkgdist_data_recv_file_info.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "pkgdist_bitmap.h"
#include "pkgdist_codec.h"
#include "pkgdist_confine.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_done.h"
#include "pkgdist_data_recv_file_write.h"
#include "pkgdist_data_recv_gate.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_resume.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Info = pkgdist_data_send_file_info;

namespace {

constexpr char kReporter[] = "pkgdist_data_process_file_info";

// What becomes of the entry after an announcement.
enum class Fate { kStays, kEnds };

bool is_repeat(const Entry& entry, const Info& info) {
  return entry.file_id != 0 && entry.file_id == info.file_id && info.status == 0 &&
         entry.size == info.size && entry.mtime == info.mtime;
}

// Segments of one file: 4 GiB in pieces of 256 bytes. A lead that works stays far below; a forged
// announcement of thousands of millions would keep the file thread walking over them for minutes.
constexpr uint32_t kSegmentsLimit = 1u << 24;

// Without a usable segment size a file has no number of segments; its time-out will ask again.
bool has_usable_sizes(const Info& info) {
  if (info.status != 0 || info.size == 0) return true;
  if (info.segment_size != 0 && segments_of(info.size, info.segment_size) <= kSegmentsLimit)
    return true;
  PKGDIST_ERR_IN(kReporter, "file '%s' size %d has no number of segments or too many of size %d",
                 info.name, info.size, info.segment_size);
  return false;
}

Fate confirm_transfer(Entry& entry) {
  entry.info_pending = 0;
  if (!pkgdist_all_segments_set(entry)) return Fate::kStays;
  entry.status = pkgdist_data_file_rename(entry);
  return Fate::kEnds;
}

void store_info(Entry& entry, const Info& info) {
  file_recv_set_id(entry, info.file_id);
  entry.size = info.size;
  entry.segment_size = info.segment_size;
  entry.status = info.status;
  entry.mode = info.mode;
  entry.mtime = info.mtime;
  entry.info_pending = 0;
  if (info.symlink == 0) return;
  entry.symlink = 1;
  entry.type = PKGDIST_FILE_TYPE_SYMLINK;
}

// A zeroed bitmap in place of an old one.
bool renew_bitmap(uint8_t*& bitmap, uint32_t& count, size_t bytes) {
  std::free(bitmap);
  bitmap = static_cast<uint8_t*>(std::calloc(1, bytes));
  count = 0;
  return bitmap != nullptr;
}

bool lay_out_segments(Entry& entry) {
  entry.segment_count = entry.segment_size != 0 ? segments_of(entry.size, entry.segment_size) : 0;
  if (entry.segment_count == 0) entry.segment_count = 1;  // an empty file has an empty segment
  // A place in the round of a longer transfer would lie outside this one, and walks never reach it.
  entry.first_segment = entry.last_segment = 0;
  const size_t bytes = bitmap_bytes(entry.segment_count);
  if (!renew_bitmap(entry.segment_bitmap, entry.received_count, bytes)) {
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for RECV_FILE_BITMAP failed", bytes);
    return false;
  }
  if (!renew_bitmap(entry.missing_bitmap, entry.missing_count, bytes)) {
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for RECV_FILE_MISS_BITMAP failed", bytes);
    return false;
  }
  return true;
}

// What an interrupted reception under an earlier file id left behind.
void discard_leftover(Entry& entry) {
  if (entry.fd == -1) return;
  if (entry.mapping != MAP_FAILED) (void)munmap(entry.mapping, entry.mapping_size);
  entry.mapping = MAP_FAILED;
  const Stopwatch time(DrsHistogram::kFileUnlinkTime);
  discard_partial(entry);
  time.finish();
}

// Whether the file that is present makes the transfer unnecessary.
bool can_be_skipped(const Entry& entry, uint32_t lead) {
  if (entry.memory != 0) return false;
  struct stat present {};
  if (pkgdist_file_get_stat(entry, present) != 0) return false;
  if (lead == load(G_my_node_ip)) {
    PKGDIST_INFO("DATA Recv File - Same node, skip xfer\n");
    return true;
  }
  if (present.st_size != static_cast<off_t>(entry.size) ||
      static_cast<uint64_t>(present.st_mtime) != entry.mtime ||
      entry.type == PKGDIST_FILE_TYPE_ALWAYS)
    return false;
  PKGDIST_INFO("DATA Recv File - Same size and timestamp, skip xfer\n");
  return true;
}

// With what is there already, if the process says that some of it is good.
Fate go_on(Entry& entry) {
  if (entry.fd != -1) (void)close(entry.fd);
  entry.fd = -1;
  if (!resume_partial(entry)) return Fate::kStays;
  if (!pkgdist_all_segments_set(entry)) {
    ask_for_all_missing(entry, entry.start_time);
    return Fate::kStays;
  }
  entry.status = pkgdist_data_file_rename(entry);
  return Fate::kEnds;
}

Fate start_transfer(Entry& entry, const Info& info, uint32_t lead) {
  store_info(entry, info);
  if (entry.status != 0) {
    count(DrsCounter::kFileBadStatusRecv);
    return Fate::kEnds;
  }
  if (const auto refusal = gate_refusal(PKGDIST_GATE_INFORMATION, entry.location, entry.path,
                                        entry.size, entry.mode, entry.type);
      refusal) {
    discard_leftover(entry);
    entry.status = *refusal;
    return Fate::kEnds;
  }
  if (!lay_out_segments(entry)) {
    entry.status = PKGDIST_ERR_NOMEM;
    return Fate::kEnds;
  }
  entry.start_time = fts_get_stamp_fast();
  entry.timeout_count = 0;
  const bool leftover_stays = may_resume(entry);
  if (!leftover_stays) discard_leftover(entry);
  if (!can_be_skipped(entry, lead)) return leftover_stays ? go_on(entry) : Fate::kStays;
  discard_leftover(entry);
  count(DrsCounter::kFileSkip);
  entry.status = 0;
  return Fate::kEnds;
}

// The announcement's entry when the file ends with it; it is out of the database then.
Entry* handle(const Info& info, uint32_t lead) {
  const FileRecvDbGuard lock(Caller::here(kReporter));
  Entry* entry = file_recv_find(info.name, info.location);
  if (entry == nullptr) {
    count(DrtCounter::kFileNotFound);
    return nullptr;
  }
  record_since(DrtHistogram::kFileInfoTime, entry->start_time);
  if (!has_usable_sizes(info)) {
    count(DrtCounter::kMcBadPktRecv);
    return nullptr;
  }
  const Fate fate =
      is_repeat(*entry, info) ? confirm_transfer(*entry) : start_transfer(*entry, info, lead);
  if (fate == Fate::kStays) return nullptr;
  file_recv_take(entry);
  return entry;
}

}  // namespace

void pkgdist_data_process_file_info(const uint8_t* body, size_t length, uint32_t node_ip) {
  Owned<Info> info;
  if (int error = decode(body, length, *info); error < 0) {
    PKGDIST_ERR("data send file info msg decode failed: %d", error);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  if (!names_this_node(info->node_list, info->node_list_count)) {
    count(DrtCounter::kFileInfoDrop);
    return;
  }
  PKGDIST_INFO("DATA Recv File Info - File %s Id %d Size %d Seg Size %d Status %lx symlink %d\n",
               info->name, info->file_id, info->size, info->segment_size, info->status,
               info->symlink);
  count(DrtCounter::kMcFileInfo);
  if (Entry* ended = handle(*info, node_ip); ended != nullptr)
    (void)pkgdist_file_recv_file_done(ended->status, ended);
}

int pkgdist_file_get_stat(const Entry& entry, struct stat& present) {
  const Stopwatch time(DrsHistogram::kFileStatTime);
  int error = 0;
  const FilePath path(entry.location, entry.path);
  if (Beneath(path)([&](const char* name) { return lstat(name, &present); }) != 0)
    error = errno;
  else if (S_ISDIR(present.st_mode))
    error = EISDIR;
  time.finish();
  return error;
}
