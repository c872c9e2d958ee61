// The queue between DATA_RX and DATA_FILE.
//
// An entry owns the bytes of one datagram. What is queued and not yet processed is limited in
// bytes: a DATA_FILE that hangs (a disk that does not answer) must not take the machine's memory. A
// datagram beyond the limit is lost as one for which there is no memory, and repaired later.
//
// DATA_FILE takes several entries at a time. Those that it has taken and not begun with still count
// as queued, for the watermark and for the limit. A bounded number: entries in its hands cannot be
// seen from outside, and the bytes of all of them are released together.
//
// Functions are called with the file mutex held, unless they say otherwise.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "pkgdist_datagram.h"
#include "platform/queue.h"

namespace pkgdist {

struct DataQueueEntry {
  queue_link_t link;
  uint8_t* data;  // malloc()ed, owned
  uint64_t length;
  uint64_t enqueue_time;  // stamp; 0 while queue times are not recorded
};
static_assert(sizeof(DataQueueEntry) == 32);

struct DataQueueEntryFreer {
  void operator()(DataQueueEntry* entry) const {
    std::free(entry->data);
    std::free(entry);
  }
};
using OwnedQueueEntry = std::unique_ptr<DataQueueEntry, DataQueueEntryFreer>;

// Bytes that may be queued: some seconds of a fast network, and no more than a machine can spare.
inline constexpr uint64_t kFileQueueLimitBytes = uint64_t{256} << 20;

// Entries that DATA_FILE takes at a time.
inline constexpr size_t kFileQueueTake = 32;

// Datagrams up to this length, in bytes, do not stay in the large buffer that they came in.
inline constexpr size_t kDataCopyMax = 512;

// An entry that owns `data`, or that holds a copy. Null without memory, which is logged. No lock
// needed.
OwnedQueueEntry queue_entry_of(Malloced<uint8_t> data, size_t length);
OwnedQueueEntry queue_entry_copy(const uint8_t* data, size_t length);

// Makes the queue empty.
void file_queue_init();

// Whether the limit leaves room for one more datagram; a refusal is logged.
bool file_queue_has_room(const DataQueueEntry& entry);
void file_queue_append(OwnedQueueEntry entry);

// Publishes how many datagrams wait.
void file_queue_update_watermark();

// What DATA_FILE has taken and works through.
class TakenEntries {
 public:
  // Takes the oldest entries, possibly none.
  void take();

  std::span<const OwnedQueueEntry> entries() const { return {entries_.data(), count_}; }

  // The entry with this index is being processed: those behind it still wait. No lock needed.
  void begin(size_t index) const;

  // Frees the entries. No lock needed; their bytes count as queued until done().
  void free();
  void done();

 private:
  std::array<OwnedQueueEntry, kFileQueueTake> entries_;
  size_t count_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace pkgdist
