#include "pkgdist_data_recv_file_queue.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "pkgdist_atomic.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

namespace pkgdist {

namespace {

constexpr char kReporter[] = "pkgdist_file_recv_queue_msg";

uint64_t queued_bytes = 0;   // of all entries that are not done; file mutex
uint32_t taken_waiting = 0;  // entries that DATA_FILE has taken and not begun with; load and store

// Memory of one entry, whatever the length of its datagram in a buffer of the usual size.
uint64_t footprint(const DataQueueEntry& entry) {
  const uint64_t buffer = entry.length <= kDataCopyMax
                              ? entry.length
                              : std::max(entry.length, uint64_t{kDataPacketMax});
  return sizeof entry + buffer;
}

// A datagram that found no memory, or no room below the limit.
void log_no_copy(size_t length) {
  PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for RECV_DATA_PKT failed", length);
}

}  // namespace

OwnedQueueEntry queue_entry_of(Malloced<uint8_t> data, size_t length) {
  OwnedQueueEntry entry(static_cast<DataQueueEntry*>(std::calloc(1, sizeof(DataQueueEntry))));
  if (entry == nullptr) {
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for DATA_Q_ENTRY failed", sizeof(DataQueueEntry));
    return nullptr;
  }
  entry->data = data.release();
  entry->length = length;
  return entry;
}

OwnedQueueEntry queue_entry_copy(const uint8_t* data, size_t length) {
  Malloced<uint8_t> copy(static_cast<uint8_t*>(std::malloc(length)));
  if (copy == nullptr) {
    log_no_copy(length);
    return nullptr;
  }
  std::memcpy(copy.get(), data, length);
  return queue_entry_of(std::move(copy), length);
}

void file_queue_init() {
  queue_init(&G_pkgdist_file_recv_q);
  queued_bytes = 0;
  store(taken_waiting, 0);
}

bool file_queue_has_room(const DataQueueEntry& entry) {
  if (queued_bytes + footprint(entry) <= kFileQueueLimitBytes) return true;
  log_no_copy(entry.length);
  return false;
}

void file_queue_append(OwnedQueueEntry entry) {
  queued_bytes += footprint(*entry);
  queue_enqueue(&G_pkgdist_file_recv_q, &entry.release()->link);
}

void file_queue_update_watermark() {
  watermark_update(load(pkgdist_drt_ship_watermark_hdl),
                   G_pkgdist_file_recv_q.count + load(taken_waiting));
}

void TakenEntries::take() {
  while (count_ < kFileQueueTake) {
    queue_link_t* link = queue_dequeue(&G_pkgdist_file_recv_q);
    if (link == nullptr) break;
    entries_[count_].reset(reinterpret_cast<DataQueueEntry*>(link));
    bytes_ += footprint(*entries_[count_++]);
  }
  if (count_ != 0) begin(0);
  file_queue_update_watermark();
}

void TakenEntries::begin(size_t index) const {
  store(taken_waiting, count_ - 1 - index);
}

void TakenEntries::free() {
  for (size_t i = 0; i < count_; ++i) entries_[i].reset();
  count_ = 0;
}

void TakenEntries::done() {
  queued_bytes -= std::min(queued_bytes, std::exchange(bytes_, 0));
  file_queue_update_watermark();
}

}  // namespace pkgdist
