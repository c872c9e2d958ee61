// The file receive database (files on their way or waited for) and the file stat database (files
// that ended lately, so that the lead's late questions can be answered).
//
// Every lookup, change of an entry and bitmap operation happens with the database's lock held;
// whoever takes an entry out owns it from then on. Where both locks are held, the stat lock is
// taken first. Completion and client callbacks run with neither. Lookups by file id and by path go
// through an index beside the queue: their cost does not grow with the number of files waiting.
#pragma once

#include <cstdint>

#include "pkgdist/status.h"
#include "pkgdist_db.h"
#include "pkgdist_guard.h"
#include "pkgdist_index.h"

// One transaction that waits for a file.
struct pkgdist_file_xact {
  uint32_t xact_id;
  uint32_t kind;  // receive identifier of the context that hears the outcome; 2: the lead's push
};

struct pkgdist_file_recv_entry {
  pkgdist_file_recv_entry* next;
  uint32_t file_id;  // the lead's, of the current transfer; 0 while none was accepted
  char* path;        // relative to the storage location
  pkgdist_file_xact* xacts;
  int32_t xact_count;
  uint32_t type;
  uint32_t location;
  uint32_t priority;      // the most urgent of all transactions
  uint8_t memory;         // 1: a shared-memory object, not a disk file
  uint8_t info_pending;   // 1: requested, and no file info accepted since; never completed then
  uint8_t symlink;        // 1: announced as a symbolic link
  uint32_t size;          // bytes
  uint32_t segment_size;  // bytes
  PkgdistStatus status;   // with which the file ends
  uint32_t mode;
  uint64_t mtime;          // seconds since the epoch; 0: leave as written
  int32_t fd;              // partial file or object; -1 when none
  void* mapping;           // of an object; MAP_FAILED when none
  uint32_t segment_count;  // at least 1 once a file info was accepted
  uint32_t received_count;
  uint32_t missing_count;
  uint8_t* segment_bitmap;  // received
  uint8_t* missing_bitmap;  // found missing and asked for, not received yet
  uint32_t first_segment;   // with which this reception began
  uint32_t last_segment;    // the highest received in sequence
  uint64_t repair_time;     // last repair request or arrival of a missing segment
  uint64_t request_time;    // last repair request, while times are recorded
  uint64_t start_time;      // creation, request sent again, or file info accepted
  uint32_t timeout_count;   // consecutive time-outs

  pkgdist_file_recv_entry* previous;
  uint64_t serial;      // grows with every entry: the place of an entry in the queue
  size_t mapping_size;  // bytes mapped; the size above may belong to the next transfer already
  uint8_t refused;      // 1: the gate ends it as it was listed, with `refusal`
  uint64_t refusal;     // an information may come first, and has a status of its own
  pkgdist::IndexLink<pkgdist_file_recv_entry> by_id;
  pkgdist::IndexLink<pkgdist_file_recv_entry> by_path;
};

struct pkgdist_file_stat_entry {
  pkgdist_file_stat_entry* next;
  uint32_t file_id;
  char* path;
  uint32_t location;
  PkgdistStatus status;  // how the file ended
  uint64_t time;         // of the addition

  pkgdist_file_stat_entry* previous;
  uint64_t serial;
  pkgdist::IndexLink<pkgdist_file_stat_entry> by_id;
  pkgdist::IndexLink<pkgdist_file_stat_entry> by_path;
};

// What a path lookup asks for; location 0 is any.
struct pkgdist_file_path_key {
  const char* path;
  uint32_t location;
};

extern "C" {
extern pkgdist::ModuleDb<pkgdist_file_recv_entry> G_file_recv_db;
extern pkgdist::ModuleDb<pkgdist_file_stat_entry> G_file_stat_db;
}

int pkgdist_file_recv_db_lock(pkgdist::Caller caller = pkgdist::Caller::here());
int pkgdist_file_recv_db_unlock(pkgdist::Caller caller = pkgdist::Caller::here());
int pkgdist_file_stat_db_lock(pkgdist::Caller caller = pkgdist::Caller::here());
int pkgdist_file_stat_db_unlock(pkgdist::Caller caller = pkgdist::Caller::here());

// Enters a file with its first transaction and makes sure that the data threads run. Receive lock
// held.
PkgdistStatus pkgdist_file_recv_add_file(const char* path, uint32_t type, uint32_t location,
                                         uint32_t priority, uint32_t kind, uint32_t xact_id);

// Adds a transaction to a file that is received already. Receive lock held.
PkgdistStatus pkgdist_file_recv_add_xact(pkgdist_file_recv_entry& entry, uint32_t type,
                                         uint32_t priority, uint32_t kind, uint32_t xact_id);

bool pkgdist_file_recv_path_match(const pkgdist_file_recv_entry& entry,
                                  const pkgdist_file_path_key& key);
bool pkgdist_file_stat_path_match(const pkgdist_file_stat_entry& entry,
                                  const pkgdist_file_path_key& key);

// Remembers how a file ended. Takes the stat lock itself.
PkgdistStatus pkgdist_file_stat_add(uint32_t file_id, const char* path, uint32_t location,
                                    PkgdistStatus status);

// Releases an entry that is out of the database; a file that is still open is partial and is
// deleted. Takes the receive lock for that decision.
void pkgdist_file_recv_db_free(pkgdist_file_recv_entry* entry);
void pkgdist_file_stat_db_free(pkgdist_file_stat_entry* entry);

// Ends a file: tells the clients, remembers the outcome, tells the lead, releases the entry, and
// ends the lead's transactions that have no file left. The entry is out of the database, no lock is
// held.
PkgdistStatus pkgdist_file_recv_file_done(PkgdistStatus status, pkgdist_file_recv_entry* entry);

// Segment bits of an entry; numbers at or beyond the segment count are never set.
bool pkgdist_is_segment_set(const pkgdist_file_recv_entry& entry, uint32_t segment);
void pkgdist_set_segment(pkgdist_file_recv_entry& entry, uint32_t segment);
bool pkgdist_is_miss_set(const pkgdist_file_recv_entry& entry, uint32_t segment);
void pkgdist_set_miss(pkgdist_file_recv_entry& entry, uint32_t segment);
void pkgdist_clr_miss(pkgdist_file_recv_entry& entry, uint32_t segment);
bool pkgdist_all_segments_set(const pkgdist_file_recv_entry& entry);

namespace pkgdist {

using FileRecvDbGuard = Guard<pkgdist_file_recv_db_lock, pkgdist_file_recv_db_unlock>;
using FileStatDbGuard = Guard<pkgdist_file_stat_db_lock, pkgdist_file_stat_db_unlock>;

// All below are called with the lock of their database held.

// The first entry with this id or path. Id 0 names nothing: entries without transfer carry it.
pkgdist_file_recv_entry* file_recv_find(uint32_t file_id);
pkgdist_file_recv_entry* file_recv_find(const char* path, uint32_t location);
pkgdist_file_stat_entry* file_stat_find(uint32_t file_id);
pkgdist_file_stat_entry* file_stat_find(const char* path, uint32_t location);

// Gives the entry the id of its new transfer, or 0 for none.
void file_recv_set_id(pkgdist_file_recv_entry& entry, uint32_t file_id);

// Takes an entry out of the receive database and counts the removal.
void file_recv_take(pkgdist_file_recv_entry* entry);

// The first entry that was appended after the one with this serial number; for walks that let go of
// the lock in between.
pkgdist_file_recv_entry* file_recv_after(uint64_t serial);

// Whether any entry holds the transaction.
bool file_recv_holds_xact(uint32_t xact_id);

// Takes element `index` out of an entry's transactions.
void file_recv_drop_xact(pkgdist_file_recv_entry& entry, int32_t index);

// Drops stat entries that are older than the stat age.
void file_stat_expire(uint64_t now);

}  // namespace pkgdist
