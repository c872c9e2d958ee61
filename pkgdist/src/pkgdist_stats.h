// Statistics: the tables and their updates.
//
// The lists of pkgdist/statistics.h make both the enumerations and the descriptors that the
// statistics library receives, so that they cannot drift apart. An update is skipped while the
// table's handle is null (before start-up, or when its registration failed). Updates of counters
// and histograms from all threads are serialised by the installer's atomic_mutex, held for one
// addition; watermarks belong to the owner of what they measure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkgdist/statistics.h"
#include "pkgdist_atomic.h"
#include "platform/fts.h"
#include "platform/ship.h"

namespace pkgdist {

// One table as it is registered with the statistics library.
struct StatTable {
  const char* application;
  const char* name;
  uint32_t kind;
  ship_entry* entries;
  uint32_t count;
  void** handle;
};
extern const StatTable kCrtCounters, kCrtHistograms, kCrsCounters, kCrsHistograms;
extern const StatTable kDrtCounters, kDrtWatermarks, kDrtHistograms, kDrsCounters, kDrsHistograms;

// Returns the result of the registration: 0, or an error number with the handle left null.
int register_table(const StatTable& table);

// Adds to one 32-bit word under the installer's lock and returns its previous value.
uint32_t counter_add(uint32_t* counter, uint32_t amount);

// The word of entry `index` of a counter block, and that of the decade bucket of histogram `index`
// that a time belongs to.
uint32_t* counter_word(void* block, uint32_t index);
uint32_t* bucket_word(void* block, uint32_t index, uint64_t elapsed_ns);

// Counts `elapsed` nanoseconds in its decade bucket of histogram `index` of a value block.
void histogram_record(void* block, uint32_t index, uint64_t elapsed_ns, uint32_t times = 1);

// Moves the mark of the one-entry watermark block for a new current value.
void watermark_update(void* block, uint32_t current);

// The value block of the table that an entry belongs to; null while it is not registered.
inline void* block_of(CrtCounter) {
  return load(pkgdist_crt_ship_counter_hdl);
}
inline void* block_of(CrsCounter) {
  return load(pkgdist_crs_ship_counter_hdl);
}
inline void* block_of(DrtCounter) {
  return load(pkgdist_drt_ship_counter_hdl);
}
inline void* block_of(DrsCounter) {
  return load(pkgdist_drs_ship_counter_hdl);
}
inline void* block_of(CrtHistogram) {
  return load(pkgdist_crt_ship_histogram_hdl);
}
inline void* block_of(CrsHistogram) {
  return load(pkgdist_crs_ship_histogram_hdl);
}
inline void* block_of(DrtHistogram) {
  return load(pkgdist_drt_ship_histogram_hdl);
}
inline void* block_of(DrsHistogram) {
  return load(pkgdist_drs_ship_histogram_hdl);
}

template <class Counter>
void count(Counter counter, uint32_t amount = 1) {
  if (void* block = block_of(counter); block != nullptr)
    counter_add(counter_word(block, static_cast<uint32_t>(counter)), amount);
}

// Counts a time, once or for several things that took it together.
template <class Histogram>
void record(Histogram histogram, uint64_t elapsed_ns, uint32_t times = 1) {
  if (void* block = block_of(histogram); block != nullptr)
    histogram_record(block, static_cast<uint32_t>(histogram), elapsed_ns, times);
}

// Whether times of this table are wanted: stamps are only taken for a registered histogram table.
template <class Histogram>
bool recording(Histogram histogram) {
  return block_of(histogram) != nullptr;
}

// Now when the table records, else 0: the stamp of something that will wait in a queue.
template <class Histogram>
uint64_t stamp_for(Histogram histogram) {
  return recording(histogram) ? fts_get_stamp_fast() : 0;
}

// |now - stamp|: a stamp from the future still lands in a bucket.
constexpr uint64_t distance(uint64_t now, uint64_t stamp) {
  return now > stamp ? now - stamp : stamp - now;
}

template <class Histogram>
void record_since(Histogram histogram, uint64_t stamp, uint32_t times = 1) {
  if (recording(histogram)) record(histogram, distance(fts_get_stamp_fast(), stamp), times);
}

// Measures from its construction; finish() records, once for each of the things that were done in
// that time. What does not succeed is not finished.
template <class Histogram>
class Stopwatch {
 public:
  explicit Stopwatch(Histogram histogram) : histogram_(histogram), start_(stamp_for(histogram)) {}
  void finish(uint32_t times = 1) const { record_since(histogram_, start_, times); }

 private:
  Histogram histogram_;
  uint64_t start_;
};

}  // namespace pkgdist
