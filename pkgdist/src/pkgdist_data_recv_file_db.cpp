// The file receive and stat databases.
#include "pkgdist_data_recv_file_db.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "pkgdist_bitmap.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_done.h"
#include "pkgdist_data_recv_file_write.h"
#include "pkgdist_data_recv_resume.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

extern "C" {
PKGDIST_EXPORT pkgdist::ModuleDb<pkgdist_file_recv_entry> G_file_recv_db;
PKGDIST_EXPORT pkgdist::ModuleDb<pkgdist_file_stat_entry> G_file_stat_db;
}

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Stat = pkgdist_file_stat_entry;

namespace {

// Lookups beside the queues; guarded by the database's mutex.
Index<Entry, &Entry::by_id> recv_by_id;
Index<Entry, &Entry::by_path> recv_by_path;
Index<Stat, &Stat::by_id> stat_by_id;
Index<Stat, &Stat::by_path> stat_by_path;
uint64_t next_recv_serial = 1;
uint64_t next_stat_serial = 1;

bool paths_match(const char* path, uint32_t location, const pkgdist_file_path_key& key) {
  return std::strcmp(path, key.path) == 0 && (key.location == 0 || key.location == location);
}

struct EntryFreer {
  void operator()(Entry* entry) const {
    std::free(entry->path);
    std::free(entry->xacts);
    std::free(entry->segment_bitmap);
    std::free(entry->missing_bitmap);
    std::free(entry);
  }
};
using OwnedEntry = std::unique_ptr<Entry, EntryFreer>;

struct StatFreer {
  void operator()(Stat* entry) const { pkgdist_file_stat_db_free(entry); }
};
using OwnedStat = std::unique_ptr<Stat, StatFreer>;

void append(Entry* entry) {
  entry->serial = next_recv_serial++;
  G_file_recv_db.append(entry);
  recv_by_path.add(entry, hash_text(entry->path));
}

void append(Stat* entry) {
  entry->serial = next_stat_serial++;
  G_file_stat_db.append(entry);
  if (entry->file_id != 0) stat_by_id.add(entry, hash_number(entry->file_id));
  stat_by_path.add(entry, hash_text(entry->path));
}

void take(Stat* entry) {
  stat_by_id.remove(entry);
  stat_by_path.remove(entry);
  G_file_stat_db.remove(entry);
}

// Closes an unfinished file and deletes what it left, unless a new request for the same file may
// have begun to write under the same partial name meanwhile, or the next transfer may go on with
// it.
void discard_unfinished(Entry& entry) {
  const FileRecvDbGuard lock(Caller::here("pkgdist_file_recv_db_free"));
  const Entry* heir = file_recv_find(entry.path, entry.location);
  if (!keeps_partial(entry) && (heir == nullptr || heir->fd == -1)) {
    discard_partial(entry);
    return;
  }
  (void)close(entry.fd);
  entry.fd = -1;
}

// Ends the lead's transactions among `xacts` that no file waits for any more.
PkgdistStatus end_finished_xacts(PkgdistStatus status, const pkgdist_file_xact* xacts,
                                 int32_t count, PkgdistStatus result) {
  const FileRecvDbGuard lock(Caller::here("pkgdist_file_recv_file_done"));
  for (int32_t i = 0; i < count; ++i) {
    if (xacts[i].kind != kFileRecvId || file_recv_holds_xact(xacts[i].xact_id)) continue;
    result =
        pkgdist_data_file_invoke_cb(status, kXactDoneRecvId, xacts[i].xact_id, nullptr, 0, 0, 0);
  }
  return result;
}

}  // namespace

int pkgdist_file_recv_db_lock(Caller caller) {
  return mutex_lock(G_file_recv_db.mutex, caller);
}
int pkgdist_file_recv_db_unlock(Caller caller) {
  return mutex_unlock(G_file_recv_db.mutex, caller);
}
int pkgdist_file_stat_db_lock(Caller caller) {
  return mutex_lock(G_file_stat_db.mutex, caller);
}
int pkgdist_file_stat_db_unlock(Caller caller) {
  return mutex_unlock(G_file_stat_db.mutex, caller);
}

PkgdistStatus pkgdist_file_recv_add_file(const char* path, uint32_t type, uint32_t location,
                                         uint32_t priority, uint32_t kind, uint32_t xact_id) {
  if (const PkgdistStatus status = pkgdist_data_recv_rx_start(); status != 0) return status;
  OwnedEntry entry(static_cast<Entry*>(std::calloc(1, sizeof(Entry))));
  if (entry == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for FILE_RECV_DB failed", sizeof(Entry));
    return PKGDIST_ERR_NOMEM;
  }
  entry->path = strdup(path);
  if (entry->path == nullptr) {
    PKGDIST_ERR("stddup() for RECV_FILE_DB_FILE_PATH failed");
    return PKGDIST_ERR_NOMEM;
  }
  entry->xacts = static_cast<pkgdist_file_xact*>(std::malloc(sizeof(pkgdist_file_xact)));
  if (entry->xacts == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for FILE_RECV_XACT_LIST failed", sizeof(pkgdist_file_xact));
    return PKGDIST_ERR_NOMEM;
  }
  entry->xacts[0] = {xact_id, kind};
  entry->xact_count = 1;
  entry->type = type;
  entry->location = location;
  entry->priority = priority;
  entry->memory = is_memory_location(location) ? 1 : 0;
  entry->info_pending = 1;
  entry->fd = -1;
  entry->mapping = MAP_FAILED;
  entry->start_time = fts_get_stamp_fast();
  count(DrsCounter::kFileAdd);
  append(entry.release());
  return 0;
}

PkgdistStatus pkgdist_file_recv_add_xact(Entry& entry, uint32_t type, uint32_t priority,
                                         uint32_t kind, uint32_t xact_id) {
  const size_t bytes = (static_cast<size_t>(entry.xact_count) + 1) * sizeof(pkgdist_file_xact);
  auto* grown = static_cast<pkgdist_file_xact*>(std::realloc(entry.xacts, bytes));
  if (grown == nullptr) {
    PKGDIST_ERR("realloc() file recv xact list %zu bytes failed", bytes);
    return PKGDIST_ERR_NOMEM;
  }
  entry.xacts = grown;
  entry.xacts[entry.xact_count++] = {xact_id, kind};
  if (kind == kFileRecvId) {
    entry.info_pending = 1;
    entry.start_time = fts_get_stamp_fast();
  }
  count(DrsCounter::kXactAdd);
  if (type == PKGDIST_FILE_TYPE_ALWAYS) entry.type = type;
  entry.priority = std::min(entry.priority, priority);
  return 0;
}

bool pkgdist_file_recv_path_match(const Entry& entry, const pkgdist_file_path_key& key) {
  return paths_match(entry.path, entry.location, key);
}

bool pkgdist_file_stat_path_match(const Stat& entry, const pkgdist_file_path_key& key) {
  return paths_match(entry.path, entry.location, key);
}

PkgdistStatus pkgdist_file_stat_add(uint32_t file_id, const char* path, uint32_t location,
                                    PkgdistStatus status) {
  const FileStatDbGuard lock;
  OwnedStat entry(static_cast<Stat*>(std::calloc(1, sizeof(Stat))));
  if (entry == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for FILE_STAT_DB failed", sizeof(Stat));
    return PKGDIST_ERR_NOMEM;
  }
  entry->file_id = file_id;
  entry->path = strdup(path);
  if (entry->path == nullptr) {
    PKGDIST_ERR("stddup() for STAT_FILE_DB_FILE_PATH failed");
    return PKGDIST_ERR_NOMEM;
  }
  entry->location = location;
  entry->status = status;
  entry->time = fts_get_stamp_fast();
  count(DrsCounter::kStatAdd);
  append(entry.release());
  return 0;
}

void pkgdist_file_recv_db_free(Entry* entry) {
  if (entry->mapping != MAP_FAILED) {
    (void)munmap(entry->mapping, entry->mapping_size);
    entry->mapping = MAP_FAILED;
  }
  if (entry->fd != -1) discard_unfinished(*entry);
  EntryFreer{}(entry);
}

void pkgdist_file_stat_db_free(Stat* entry) {
  std::free(entry->path);
  std::free(entry);
}

PkgdistStatus pkgdist_file_recv_file_done(PkgdistStatus status, Entry* entry) {
  const Malloced<pkgdist_file_xact> xacts(std::exchange(entry->xacts, nullptr));
  const int32_t xact_count = std::exchange(entry->xact_count, 0);
  for (int32_t i = 0; i < xact_count; ++i) {
    const char* const paths[] = {entry->path};
    const pkgdist_file_xact& xact = xacts.get()[i];
    (void)pkgdist_data_file_invoke_cb(status, xact.kind, xact.xact_id, paths, 1, entry->type,
                                      entry->location);
  }
  (void)pkgdist_file_stat_add(entry->file_id, entry->path, entry->location, status);
  const PkgdistStatus result =
      pkgdist_data_send_file_done(entry->file_id, status, entry->path, entry->location);
  pkgdist_file_recv_db_free(entry);
  return end_finished_xacts(status, xacts.get(), xact_count, result);
}

bool pkgdist_is_segment_set(const Entry& entry, uint32_t segment) {
  return bit_is_set(entry.segment_bitmap, entry.segment_count, segment);
}
void pkgdist_set_segment(Entry& entry, uint32_t segment) {
  bit_set(entry.segment_bitmap, entry.segment_count, segment, entry.received_count);
}
bool pkgdist_is_miss_set(const Entry& entry, uint32_t segment) {
  return bit_is_set(entry.missing_bitmap, entry.segment_count, segment);
}
void pkgdist_set_miss(Entry& entry, uint32_t segment) {
  bit_set(entry.missing_bitmap, entry.segment_count, segment, entry.missing_count);
}
void pkgdist_clr_miss(Entry& entry, uint32_t segment) {
  bit_clear(entry.missing_bitmap, entry.segment_count, segment, entry.missing_count);
}
bool pkgdist_all_segments_set(const Entry& entry) {
  return entry.received_count == entry.segment_count;
}

namespace pkgdist {

Entry* file_recv_find(uint32_t file_id) {
  if (file_id == 0) return nullptr;
  return recv_by_id.find(hash_number(file_id),
                         [=](const Entry& entry) { return entry.file_id == file_id; });
}

Entry* file_recv_find(const char* path, uint32_t location) {
  return recv_by_path.find(hash_text(path), [=](const Entry& entry) {
    return pkgdist_file_recv_path_match(entry, {path, location});
  });
}

Stat* file_stat_find(uint32_t file_id) {
  if (file_id == 0) return nullptr;
  return stat_by_id.find(hash_number(file_id),
                         [=](const Stat& entry) { return entry.file_id == file_id; });
}

Stat* file_stat_find(const char* path, uint32_t location) {
  return stat_by_path.find(hash_text(path), [=](const Stat& entry) {
    return pkgdist_file_stat_path_match(entry, {path, location});
  });
}

void file_recv_set_id(Entry& entry, uint32_t file_id) {
  recv_by_id.remove(&entry);
  entry.file_id = file_id;
  if (file_id != 0) recv_by_id.add(&entry, hash_number(file_id));
}

void file_recv_take(Entry* entry) {
  count(DrsCounter::kFileRemove);
  recv_by_id.remove(entry);
  recv_by_path.remove(entry);
  G_file_recv_db.remove(entry);
}

Entry* file_recv_after(uint64_t serial) {
  return G_file_recv_db.find([=](const Entry& entry) { return entry.serial > serial; });
}

bool file_recv_holds_xact(uint32_t xact_id) {
  return G_file_recv_db.find([=](const Entry& entry) {
    return std::any_of(entry.xacts, entry.xacts + entry.xact_count,
                       [=](const pkgdist_file_xact& xact) { return xact.xact_id == xact_id; });
  }) != nullptr;
}

void file_recv_drop_xact(Entry& entry, int32_t index) {
  for (int32_t i = index; i + 1 < entry.xact_count; ++i) entry.xacts[i] = entry.xacts[i + 1];
  --entry.xact_count;
}

void file_stat_expire(uint64_t now) {
  // Entries are in the order of their times: behind one that is young there is none that is old.
  while (Stat* oldest = G_file_stat_db.head) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): what was freed is out of the queue
    if (elapsed(now, oldest->time) <= load(G_data_rto.stat_age)) return;
    count(DrsCounter::kStatRemove);
    take(oldest);
    pkgdist_file_stat_db_free(oldest);
  }
}

}  // namespace pkgdist
