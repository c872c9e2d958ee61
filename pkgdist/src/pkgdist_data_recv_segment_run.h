// A run: segments of one open file that follow each other and came together, stored with one call.
//
// A segment that goes on where the run ends joins it and does nothing else. Anything else ends the
// run: its data is written with one call, and only then is each of its segments marked, counted and
// followed, in the order in which they came. The receive lock is held from the first segment of a
// run to its end, so nothing can happen to the file meanwhile; it is released before a file that
// ended is completed.
//
// When the one call fails or writes less, each segment is written by itself with all the attempts
// that a lone one has. A run of one segment is always stored as a lone one. Gaps are not looked
// for ahead: a segment that comes out of order asks for what is missing when its turn comes.
//
// On DATA_FILE, one run at a time. Segments in a run are views into their datagrams.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "pkgdist/wire_data.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_tally.h"

namespace pkgdist {

class SegmentRun {
 public:
  static constexpr size_t kMax = 32;

  SegmentRun() = default;
  ~SegmentRun() { (void)finish(); }
  SegmentRun(const SegmentRun&) = delete;
  SegmentRun& operator=(const SegmentRun&) = delete;

  // Takes a segment: into the run when it goes on there, else into a new one.
  void take(const pkgdist_data_send_segment& segment);

  // Ends the run, if there is one, and completes its file when that ends with it. The result of the
  // last completion since the last call, 0 for none. No lock is held behind this.
  PkgdistStatus finish();

  // Segments that wait to be stored.
  size_t size() const { return count_; }

  // Statistics of the datagrams that are gathered; flushed when the run ends.
  Tally& tally() { return tally_; }

 private:
  bool is_continued_by(const pkgdist_data_send_segment& segment) const;
  void begin(const pkgdist_data_send_segment& segment);
  bool store(PkgdistStatus& status);
  void count_segments(size_t first, size_t count);
  void release(bool file_ended, PkgdistStatus status);

  pkgdist_file_recv_entry* entry_ = nullptr;  // receive lock held while not null
  std::array<pkgdist_data_send_segment, kMax> segments_;
  size_t count_ = 0;
  uint32_t expected_ = 0;  // what the first segment was expected to be
  PkgdistStatus result_ = 0;
  Tally tally_;
};

}  // namespace pkgdist
