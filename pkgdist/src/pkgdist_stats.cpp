#include "pkgdist_stats.h"

#include <cerrno>

#include "pkgdist_export.h"
#include "pkgdist_lock.h"
#include "platform/inst_common.h"

extern "C" {
extern const char* __progname;  // the C library's name of this process

PKGDIST_EXPORT void* pkgdist_crt_ship_counter_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_crt_ship_histogram_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_crs_ship_counter_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_crs_ship_histogram_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_drt_ship_counter_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_drt_ship_watermark_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_drt_ship_histogram_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_drs_ship_counter_hdl = nullptr;
PKGDIST_EXPORT void* pkgdist_drs_ship_histogram_hdl = nullptr;
}

namespace pkgdist {

namespace {

constexpr uint32_t kCounterRecordBytes = 20;
constexpr uint32_t kHistogramBuckets = 8;
constexpr uint64_t kFirstBucketEndNs = 10'000;  // each further bucket ends at ten times as much
constexpr uint32_t kWatermarkHigh = 1;
constexpr uint32_t kWatermarkLow = 2;
constexpr uint32_t kRegistrationParameter = 2;  // its meaning is the statistics library's

struct Watermark {
  uint32_t current;
  uint32_t mark;
  uint32_t mode;
  uint32_t unused;
  uint64_t stamp;
};
static_assert(offsetof(Watermark, stamp) == 16);

// A label padded with blanks to 15 characters.
consteval ship_entry entry(const char* label, uint64_t word = 0) {
  ship_entry result{};
  for (char& c : result.name) c = ' ';
  result.name[sizeof result.name - 1] = '\0';
  for (size_t i = 0; label[i] != '\0'; ++i) result.name[i] = label[i];
  result.word = word;
  return result;
}

#define PKGDIST_STAT_ENTRY(name, label) entry(label),
#define PKGDIST_STAT_HIGH_MARK(name, label) entry(label, 1),
constinit ship_entry crt_counters[] = {PKGDIST_CRT_COUNTERS(PKGDIST_STAT_ENTRY)};
constinit ship_entry crt_histograms[] = {PKGDIST_CRT_HISTOGRAMS(PKGDIST_STAT_ENTRY)};
constinit ship_entry crs_counters[] = {PKGDIST_CRS_COUNTERS(PKGDIST_STAT_ENTRY)};
constinit ship_entry crs_histograms[] = {PKGDIST_CRS_HISTOGRAMS(PKGDIST_STAT_ENTRY)};
constinit ship_entry drt_counters[] = {PKGDIST_DRT_COUNTERS(PKGDIST_STAT_ENTRY)};
constinit ship_entry drt_watermarks[] = {PKGDIST_DRT_WATERMARKS(PKGDIST_STAT_HIGH_MARK)};
constinit ship_entry drt_histograms[] = {PKGDIST_DRT_HISTOGRAMS(PKGDIST_STAT_ENTRY)};
constinit ship_entry drs_counters[] = {PKGDIST_DRS_COUNTERS(PKGDIST_STAT_ENTRY)};
constinit ship_entry drs_histograms[] = {PKGDIST_DRS_HISTOGRAMS(PKGDIST_STAT_ENTRY)};
#undef PKGDIST_STAT_HIGH_MARK
#undef PKGDIST_STAT_ENTRY

template <class Enum, size_t Count>
constexpr StatTable table(const char* application, const char* name, uint32_t kind,
                          ship_entry (&entries)[Count], void** handle) {
  static_assert(Count == static_cast<size_t>(Enum::kCount));
  return {application, name, kind, entries, Count, handle};
}

uint32_t bucket_of(uint64_t elapsed_ns) {
  uint32_t bucket = 0;
  for (uint64_t end = kFirstBucketEndNs; elapsed_ns >= end && bucket < kHistogramBuckets - 1;
       end *= 10)
    ++bucket;
  return bucket;
}

}  // namespace

const StatTable kCrtCounters =
    table<CrtCounter>("PKGDIST_CRT", "CRT_Counters", SHIP_KIND_TRANSPORT_COUNTERS, crt_counters,
                      &pkgdist_crt_ship_counter_hdl);
const StatTable kCrtHistograms =
    table<CrtHistogram>("PKGDIST_CRT", "CRT_Histograms", SHIP_KIND_HISTOGRAMS, crt_histograms,
                        &pkgdist_crt_ship_histogram_hdl);
const StatTable kCrsCounters =
    table<CrsCounter>("PKGDIST_CRS", "CRS_Counters", SHIP_KIND_SERVER_COUNTERS, crs_counters,
                      &pkgdist_crs_ship_counter_hdl);
const StatTable kCrsHistograms =
    table<CrsHistogram>("PKGDIST_CRS", "CRS_Histograms", SHIP_KIND_HISTOGRAMS, crs_histograms,
                        &pkgdist_crs_ship_histogram_hdl);
const StatTable kDrtCounters =
    table<DrtCounter>("PKGDIST_DRT", "DRT_Counters", SHIP_KIND_TRANSPORT_COUNTERS, drt_counters,
                      &pkgdist_drt_ship_counter_hdl);
const StatTable kDrtWatermarks =
    table<DrtWatermark>("PKGDIST_DRT", "DRT_Watermarks", SHIP_KIND_WATERMARKS, drt_watermarks,
                        &pkgdist_drt_ship_watermark_hdl);
const StatTable kDrtHistograms =
    table<DrtHistogram>("PKGDIST_DRT", "DRT_Histograms", SHIP_KIND_HISTOGRAMS, drt_histograms,
                        &pkgdist_drt_ship_histogram_hdl);
const StatTable kDrsCounters =
    table<DrsCounter>("PKGDIST_DRS", "DRS_Counters", SHIP_KIND_SERVER_COUNTERS, drs_counters,
                      &pkgdist_drs_ship_counter_hdl);
const StatTable kDrsHistograms =
    table<DrsHistogram>("PKGDIST_DRS", "DRS_Histograms", SHIP_KIND_HISTOGRAMS, drs_histograms,
                        &pkgdist_drs_ship_histogram_hdl);

int register_table(const StatTable& table) {
  static const uint32_t parameter = kRegistrationParameter;
  const int result = ship_register(table.application, table.name, __progname, table.kind,
                                   &parameter, table.entries, table.count, table.handle);
  if (result != 0) store(*table.handle, nullptr);
  return result;
}

uint32_t counter_add(uint32_t* counter, uint32_t amount) {
  const MutexLock lock(atomic_mutex);
  const uint32_t previous = load(*counter);
  store(*counter, previous + amount);
  return previous;
}

uint32_t* counter_word(void* block, uint32_t index) {
  auto* first = static_cast<uint8_t*>(block) + size_t{kCounterRecordBytes} * index;
  return reinterpret_cast<uint32_t*>(first);
}

uint32_t* bucket_word(void* block, uint32_t index, uint64_t elapsed_ns) {
  return static_cast<uint32_t*>(block) + kHistogramBuckets * index + bucket_of(elapsed_ns);
}

void histogram_record(void* block, uint32_t index, uint64_t elapsed_ns, uint32_t times) {
  counter_add(bucket_word(block, index, elapsed_ns), times);
}

void watermark_update(void* block, uint32_t current) {
  if (block == nullptr) return;
  auto& watermark = *static_cast<Watermark*>(block);
  store(watermark.current, current);
  const uint32_t mark = load(watermark.mark);
  if ((watermark.mode & kWatermarkHigh) != 0 && current > mark) {
    store(watermark.mark, current);
    store(watermark.stamp, fts_get_stamp_fast());
  } else if ((watermark.mode & kWatermarkLow) != 0) {
    if (mark == 0) store(watermark.mark, current);
    if (current < load(watermark.mark)) {
      store(watermark.mark, current);
      store(watermark.stamp, fts_get_stamp_fast());
    }
  }
}

}  // namespace pkgdist
