// Repair: asking the lead again, giving up, answering its questions, and starting over with a new
// lead.
#pragma once

#include <cstdint>

#include "pkgdist_data_recv_file_db.h"

// Asks the lead for `num` consecutive segments from `segment` on. The message it sends is the wire
// structure of the same name.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
PkgdistStatus pkgdist_data_send_req_single(uint32_t file_id, uint32_t segment, uint32_t num);
#pragma GCC diagnostic pop

// One time-out pass over both databases. On DATA_FILE, at most once per timer period. Returns the
// stat unlock's result.
int pkgdist_data_recv_timeout();

// Asks the new lead for every file. On CTRL_RX.
void pkgdist_data_recv_new_lead();

namespace pkgdist {

// Marks everything that is lacking as missing and asks for it. The first segment of the reception
// has come. Receive lock held.
void ask_for_all_missing(pkgdist_file_recv_entry& entry, uint64_t now);

// Gathers segments that are visited in walking order into runs and asks the lead for each run.
// A run may go on across the end of the file; it is never split there.
class RepairRuns {
 public:
  RepairRuns(pkgdist_file_recv_entry& entry, uint64_t now) : entry_(entry), now_(now) {}

  // Adds the segment to the run.
  void add(uint32_t segment) {
    if (length_ == 0) start_ = segment;
    ++length_;
  }
  // The segment visited does not belong to a run, or the walk is over: sends what was gathered.
  void close();

 private:
  pkgdist_file_recv_entry& entry_;
  uint64_t now_;
  uint32_t start_ = 0;
  uint32_t length_ = 0;
};

// The segment behind `segment` in the lead's round: 0 after the last.
inline uint32_t next_segment(const pkgdist_file_recv_entry& entry, uint32_t segment) {
  return segment + 1 >= entry.segment_count ? 0 : segment + 1;
}

}  // namespace pkgdist
