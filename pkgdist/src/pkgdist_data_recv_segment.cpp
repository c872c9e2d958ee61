// Segments: storing them, and noticing what is missing.
//
// The lead multicasts the segments of a file in order, round and round while somebody needs it. A
// node starts with whichever comes first (`first_segment`) and follows the round (`last_segment`).
// A segment beyond the expected one reveals a gap, which is marked missing and asked for at once,
// one request per run. Repairs arrive out of order and move nothing.
//
// All under the receive lock on DATA_FILE; a file that ends here is completed after it. Nothing is
// allocated per segment.
#include "pkgdist_data_recv_segment.h"

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

bool has_right_length(const Entry& entry, const Segment& segment) {
  if (entry.symlink != 0) return true;
  const uint64_t offset = uint64_t{entry.segment_size} * segment.segment;
  return segment.data_size == std::min(uint64_t{entry.segment_size}, entry.size - offset);
}

void copy_to_mapping(const Entry& entry, const Segment& segment) {
  const uint64_t offset = uint64_t{entry.segment_size} * segment.segment;
  if (segment.data_size != 0)
    std::memcpy(static_cast<uint8_t*>(entry.mapping) + offset, segment.data, segment.data_size);
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

}  // namespace

bool pkgdist::segment_is_wanted(Entry& entry, const Segment& segment) {
  entry.timeout_count = 0;
  if (pkgdist_is_segment_set(entry, segment.segment)) {
    count(DrtCounter::kFileSegmentDup);
    return false;
  }
  if (segment.segment >= entry.segment_count) {
    PKGDIST_ERR_IN(kReporter, "data send segment num %d is too large, file %s num segments %d",
                   segment.segment, entry.path, entry.segment_count);
    count(DrtCounter::kFileSegmentTooBig);
    return false;
  }
  // Data of another length than the segment's would leave a hole or damage its neighbour.
  if (has_right_length(entry, segment)) return true;
  count(DrtCounter::kMcBadPktRecv);
  return false;
}

bool pkgdist::segment_would_be_wanted(const Entry& entry, const Segment& segment) {
  return segment.segment < entry.segment_count && !pkgdist_is_segment_set(entry, segment.segment) &&
         has_right_length(entry, segment);
}

PkgdistStatus pkgdist::segment_begin(Entry& entry, uint32_t segment, uint32_t& expected) {
  if (entry.fd != -1 || entry.symlink != 0) {
    expected = next_segment(entry, entry.last_segment);
    return 0;
  }
  if (const PkgdistStatus status = open_destination(entry); status != 0) return status;
  entry.first_segment = entry.last_segment = expected = segment;
  return 0;
}

PkgdistStatus pkgdist::segment_store(Entry& entry, const Segment& segment) {
  if (entry.symlink != 0) return pkgdist_data_file_symlink(entry, segment.data_size, segment.data);
  if (entry.memory == 0)
    return pkgdist_file_write_data(entry, entry.segment_size * segment.segment,
                                   static_cast<uint32_t>(segment.data_size), segment.data);
  copy_to_mapping(entry, segment);
  return 0;
}

bool pkgdist::segments_store(Entry& entry, std::span<const Segment> segments) {
  if (segments.size() < 2 || entry.symlink != 0) return false;
  if (entry.memory == 0) return write_segments(entry, segments);
  for (const Segment& segment : segments) copy_to_mapping(entry, segment);
  return true;
}

bool pkgdist::segment_stored(Entry& entry, const Segment& segment, uint32_t expected,
                             PkgdistStatus& status) {
  pkgdist_set_segment(entry, segment.segment);
  log_progress(entry);
  track_sequence(entry, segment.segment, expected, is_repair(segment));
  if (!pkgdist_all_segments_set(entry) || entry.info_pending != 0) return false;
  status = pkgdist_data_file_rename(entry);
  return true;
}

PkgdistStatus pkgdist::process_segment(const uint8_t* body, size_t length, SegmentRun& run) {
  Owned<Segment> segment;
  const int error = decode(body, length, *segment);
  if (error >= 0) {
    run.take(*segment);
    return 0;
  }
  (void)run.finish();
  PKGDIST_ERR_IN(kReporter, "data send segment msg decode failed: %d", error);
  count(DrtCounter::kMcBadPktRecv);
  return PKGDIST_ERR_DECODE;
}

PkgdistStatus pkgdist_data_process_file_segment(const uint8_t* body, size_t length) {
  SegmentRun run;
  const PkgdistStatus status = process_segment(body, length, run);
  return status != 0 ? status : run.finish();
}
