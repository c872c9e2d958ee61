// Which segments of a file's first round left together, in one batch of datagrams.
//
// To virtual links and bridges a batch is one packet: it arrives or is lost as a whole. A node that
// lost one asks for the gap at once, with one request; when that is lost, too, it asks again after
// seconds only. So it is made to ask several times: while whole batches get lost, some segments are
// sent ahead of their place, in an earlier batch, marked as repairs, so that nodes do not take what
// lies between for a gap. They divide the gap that a lost batch leaves, and each part has a request
// of its own. One of these tells that the batch was lost, and with it all that it carried.
#pragma once

#include <optional>
#include <vector>

#include "segment_set.h"

namespace pkgdist::lead {

class BatchLog {
 public:
  // Places in the file; end is behind the last.
  struct Batch {
    uint32_t first = 0;
    uint32_t end = 0;
  };

  explicit BatchLog(uint32_t segments) : segments_(segments), ahead_(segments) {}

  // A batch begins at this place, behind the places of the batches before.
  void begin(uint32_t place) { starts_.push_back(place); }

  // The segment to be sent ahead of its place behind the one at this place, if any.
  std::optional<uint32_t> forerunner(uint32_t place) const;
  void sent_ahead(uint32_t segment) { ahead_.insert(segment); }
  bool was_sent_ahead(uint32_t segment) const { return ahead_.contains(segment); }

  // What batches are made of here is what lies between two of their segments that were sent ahead.
  // `sent`: places up to now.
  // Whether the run of segments begins and ends where such parts, or batches, do.
  bool made_of_parts(uint32_t first, uint32_t num, uint32_t sent) const;
  // The batches of which at least one part is in the run. A node that asks for it has lost them.
  std::vector<Batch> lost(uint32_t first, uint32_t num, uint32_t sent) const;
  Batch last(uint32_t sent) const { return {starts_.empty() ? sent : starts_.back(), sent}; }

  // What a batch carried.
  std::vector<uint32_t> segments_of(const Batch& batch) const;
  // Which segments of the run were to be in the batch, and were sent ahead.
  std::vector<uint32_t> ahead_of(const Batch& batch, uint32_t first, uint32_t num) const;

 private:
  // Four of them in a full batch. The distance is a multiple of it, but for one, and more than what
  // a node's queue loses at once when it runs over.
  static constexpr uint32_t kSpacing = 10;
  static constexpr uint32_t kAhead = 499;
  static_assert((kAhead + 1) % kSpacing == 0);
  // More than this is not a loss, but a node that came late.
  static constexpr uint32_t kMaxGap = 1024;

  // Batches that have places in first .. end-1.
  std::vector<Batch> batches_in(uint32_t first, uint32_t end, uint32_t sent) const;
  bool part_begins(const Batch& batch, uint32_t at) const;
  bool part_ends(const Batch& batch, uint32_t end) const;

  uint32_t segments_;
  SegmentSet ahead_;
  std::vector<uint32_t> starts_;  // rising
};

}  // namespace pkgdist::lead
