// What happens to one segment, step by step; pkgdist_data_recv_segment_run.h says when.
//
// All with the receive lock held, on DATA_FILE.
#pragma once

#include <cstdint>
#include <span>

#include "pkgdist/wire_data.h"
#include "pkgdist_codec.h"
#include "pkgdist_data_recv_file_db.h"

namespace pkgdist {

// Whether the segment is new, lies inside the file and has the right length; what is not is
// counted. Starts the count of time-outs afresh in any case.
bool segment_is_wanted(pkgdist_file_recv_entry& entry, const pkgdist_data_send_segment& segment);

// The same question without any effect.
bool segment_would_be_wanted(const pkgdist_file_recv_entry& entry,
                             const pkgdist_data_send_segment& segment);

// Opens the destination on the first segment. Gives the segment that was expected.
PkgdistStatus segment_begin(pkgdist_file_recv_entry& entry, uint32_t segment, uint32_t& expected);

// Stores the data of one segment, with all attempts.
PkgdistStatus segment_store(pkgdist_file_recv_entry& entry,
                            const pkgdist_data_send_segment& segment);

// Whether the lead marked the segment as a repair. A mark that did not travel is none.
inline bool is_repair(const pkgdist_data_send_segment& segment) {
  return qidl::has<&pkgdist_data_send_segment::repair>(segment) && segment.repair != 0;
}

// Stores several segments that follow each other, in one attempt. False when that failed or was not
// possible: then nothing is known of any of them.
bool segments_store(pkgdist_file_recv_entry& entry,
                    std::span<const pkgdist_data_send_segment> segments);

// A segment is stored: marks it and follows the lead's round, asking for what it shows to be
// missing. True when the file ends with it, with `status`.
bool segment_stored(pkgdist_file_recv_entry& entry, const pkgdist_data_send_segment& segment,
                    uint32_t expected, PkgdistStatus& status);

}  // namespace pkgdist
