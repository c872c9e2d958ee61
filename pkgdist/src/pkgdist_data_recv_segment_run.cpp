#include "pkgdist_data_recv_segment_run.h"

#include <span>
#include <utility>

#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_segment.h"
#include "pkgdist_stats.h"

namespace pkgdist {

namespace {

using Segment = pkgdist_data_send_segment;

constexpr char kReporter[] = "pkgdist_data_process_file_segment";

}  // namespace

void SegmentRun::take(const Segment& segment) {
  if (!is_continued_by(segment)) {
    result_ = finish();
    begin(segment);
    return;
  }
  segments_[count_++] = segment;
}

bool SegmentRun::is_continued_by(const Segment& segment) const {
  return entry_ != nullptr && count_ < kMax && segment.file_id == entry_->file_id &&
         segment.segment == segments_[count_ - 1].segment + 1 &&
         segment_would_be_wanted(*entry_, segment);
}

void SegmentRun::begin(const Segment& segment) {
  (void)pkgdist_file_recv_db_lock(Caller::here(kReporter));
  entry_ = file_recv_find(segment.file_id);
  if (entry_ == nullptr) count(DrtCounter::kFileNotFound);
  if (entry_ == nullptr || !segment_is_wanted(*entry_, segment)) return release(false, 0);
  tally_.flush();
  const PkgdistStatus status = segment_begin(*entry_, segment.segment, expected_);
  if (status != 0) return release(true, status);
  segments_[0] = segment;
  count_ = 1;
}

PkgdistStatus SegmentRun::finish() {
  tally_.flush();
  if (count_ != 0) {
    PkgdistStatus status = 0;
    const bool file_ended = store(status);
    count_ = 0;
    release(file_ended, status);
  }
  return std::exchange(result_, 0);
}

// Stores all segments and marks them. True when the file ends, with `status`.
bool SegmentRun::store(PkgdistStatus& status) {
  const std::span<const Segment> segments(segments_.data(), count_);
  const bool together = segments_store(*entry_, segments);
  if (together) count_segments(0, count_);
  uint32_t expected = expected_;
  for (size_t i = 0; i < count_; ++i) {
    if (!together) {
      status = segment_store(*entry_, segments[i]);
      if (status != 0) {
        // The file is gone with this one: the rest finds none.
        count(DrtCounter::kFileNotFound, static_cast<uint32_t>(count_ - 1 - i));
        return true;
      }
      count_segments(i, 1);
    }
    if (segment_stored(*entry_, segments[i], expected, status)) return true;
    expected = next_segment(*entry_, entry_->last_segment);
  }
  return false;
}

void SegmentRun::count_segments(size_t first, size_t count) {
  for (size_t i = first; i < first + count; ++i)
    tally_.count(is_repair(segments_[i]) ? DrtCounter::kMcSingleSegment : DrtCounter::kMcSegment);
  tally_.flush();
}

// Lets go of the entry and of the lock, and completes a file that has ended.
void SegmentRun::release(bool file_ended, PkgdistStatus status) {
  pkgdist_file_recv_entry* const entry = std::exchange(entry_, nullptr);
  if (file_ended) file_recv_take(entry);
  (void)pkgdist_file_recv_db_unlock(Caller::here(kReporter));
  if (file_ended) result_ = pkgdist_file_recv_file_done(status, entry);
}

}  // namespace pkgdist
