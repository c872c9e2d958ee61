// Segments: storing them, and noticing what is missing.
//
// The lead multicasts the segments of a file in order, round and round while somebody needs it. A
// node starts with whichever comes first (`first_segment`) and follows the round (`last_segment`).
// A segment beyond the expected one reveals a gap, which is marked missing and asked for at once,
// one request per run. Repairs arrive out of order and move nothing.
//
// All under the receive lock on DATA_FILE; a file that ends here is completed after it. Nothing is
// allocated per segment.
#include <algorithm>
#include <cstring>

#include "pkgdist_codec.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_done.h"
#include "pkgdist_data_recv_file_write.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Segment = pkgdist_data_send_segment;

namespace {

constexpr char kReporter[] = "pkgdist_data_process_file_segment";
constexpr uint32_t kProgressInterval = 10'000;  // segments between two progress lines

// Whether the segment is new and lies inside the file.
bool is_wanted(const Entry& entry, const Segment& segment) {
  if (pkgdist_is_segment_set(entry, segment.segment)) {
    count(DrtCounter::kFileSegmentDup);
    return false;
  }
  if (segment.segment < entry.segment_count) return true;
  PKGDIST_ERR_IN(kReporter, "data send segment num %d is too large, file %s num segments %d",
                 segment.segment, entry.path, entry.segment_count);
  count(DrtCounter::kFileSegmentTooBig);
  return false;
}

// Data of another length than the segment's would leave a hole or damage its neighbour.
bool has_right_length(const Entry& entry, const Segment& segment) {
  if (entry.symlink != 0) return true;
  const uint64_t offset = uint64_t{entry.segment_size} * segment.segment;
  const uint64_t length = std::min(uint64_t{entry.segment_size}, entry.size - offset);
  if (segment.data_size == length) return true;
  count(DrtCounter::kMcBadPktRecv);
  return false;
}

PkgdistStatus store_data(Entry& entry, const Segment& segment) {
  if (entry.symlink != 0) return pkgdist_data_file_symlink(entry, segment.data_size, segment.data);
  const uint64_t offset = uint64_t{entry.segment_size} * segment.segment;
  if (entry.memory == 0)
    return pkgdist_file_write_data(entry, static_cast<uint32_t>(offset),
                                   static_cast<uint32_t>(segment.data_size), segment.data);
  if (segment.data_size != 0)
    std::memcpy(static_cast<uint8_t*>(entry.mapping) + offset, segment.data, segment.data_size);
  return 0;
}

void log_progress(const Entry& entry) {
  if (entry.received_count % kProgressInterval != 0) return;
  PKGDIST_INFO("DATA File '%s' Rx %d%% done\n", entry.path,
               static_cast<int32_t>(uint64_t{entry.received_count} * 100 / entry.segment_count));
}

// A segment that was asked for has come.
void clear_missing(Entry& entry, uint32_t segment) {
  pkgdist_clr_miss(entry, segment);
  record_since(DrtHistogram::kMissSegmentTime, entry.request_time);
  entry.repair_time = fts_get_stamp_fast();
}

// Moves the last segment to one that came out of order, across the wrap of the round.
void move_last(Entry& entry, uint32_t segment) {
  const bool wrapped = entry.last_segment < entry.first_segment;
  const bool past_wrap = !wrapped && segment < entry.first_segment;
  if (past_wrap || segment > entry.last_segment) entry.last_segment = segment;
}

// Marks everything from the expected segment to the last one as missing and asks for it.
void mark_gap(Entry& entry, uint32_t expected) {
  RepairRuns runs(entry, fts_get_stamp_fast());
  for (uint32_t k = expected; k != entry.last_segment; k = next_segment(entry, k)) {
    if (pkgdist_is_segment_set(entry, k) || pkgdist_is_miss_set(entry, k)) {
      runs.close();
      continue;
    }
    pkgdist_set_miss(entry, k);
    runs.add(k);
  }
  runs.close();
}

void track_sequence(Entry& entry, uint32_t segment, uint32_t expected, bool repair) {
  const bool missing = pkgdist_is_miss_set(entry, segment);
  if (segment == expected) {
    entry.last_segment = segment;
    if (missing) clear_missing(entry, segment);
  } else if (missing) {
    clear_missing(entry, segment);
  } else if (!repair) {
    PKGDIST_INFO("DATA Out of Seq Segment Received - New Seg %d Last %d First %d\n", segment,
                 entry.last_segment, entry.first_segment);
    count(DrtCounter::kMcOutOfSeqRecv);
    move_last(entry, segment);
    mark_gap(entry, expected);
  }
}

// Opens the destination on the first segment. Gives the segment that was expected.
PkgdistStatus begin_or_follow(Entry& entry, uint32_t segment, uint32_t& expected) {
  if (entry.fd != -1 || entry.symlink != 0) {
    expected = next_segment(entry, entry.last_segment);
    return 0;
  }
  if (const PkgdistStatus status = open_destination(entry); status != 0) return status;
  entry.first_segment = entry.last_segment = expected = segment;
  return 0;
}

// Takes one segment into the entry. True when the file ends with it, with `status`.
bool take_segment(Entry& entry, const Segment& segment, PkgdistStatus& status) {
  entry.timeout_count = 0;
  if (!is_wanted(entry, segment) || !has_right_length(entry, segment)) return false;
  const bool repair = qidl::has<&Segment::repair>(segment) && segment.repair != 0;
  uint32_t expected = 0;
  status = begin_or_follow(entry, segment.segment, expected);
  if (status == 0) status = store_data(entry, segment);
  if (status != 0) return true;
  pkgdist_set_segment(entry, segment.segment);
  count(repair ? DrtCounter::kMcSingleSegment : DrtCounter::kMcSegment);
  log_progress(entry);
  track_sequence(entry, segment.segment, expected, repair);
  if (!pkgdist_all_segments_set(entry) || entry.info_pending != 0) return false;
  status = pkgdist_data_file_rename(entry);
  return true;
}

// The segment's entry when the file ends with it; it is out of the database then.
Entry* handle(const Segment& segment, PkgdistStatus& status) {
  const FileRecvDbGuard lock(Caller::here(kReporter));
  Entry* entry = file_recv_find(segment.file_id);
  if (entry == nullptr) {
    count(DrtCounter::kFileNotFound);
    return nullptr;
  }
  if (!take_segment(*entry, segment, status)) return nullptr;
  file_recv_take(entry);
  return entry;
}

}  // namespace

PkgdistStatus pkgdist_data_process_file_segment(const uint8_t* body, size_t length) {
  Owned<Segment> segment;
  if (int error = decode(body, length, *segment); error < 0) {
    PKGDIST_ERR("data send segment msg decode failed: %d", error);
    count(DrtCounter::kMcBadPktRecv);
    return PKGDIST_ERR_DECODE;
  }
  PkgdistStatus status = 0;
  Entry* ended = handle(*segment, status);
  return ended != nullptr ? pkgdist_file_recv_file_done(status, ended) : 0;
}
