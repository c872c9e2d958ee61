// Opening and writing the destination of a file that is being received. Receive lock held.
#pragma once

#include <cstdint>
#include <span>

#include "pkgdist/wire_data.h"
#include "pkgdist_data_recv_file_db.h"

// Writes `length` bytes at `offset` of the partial file, trying again after a failure.
PkgdistStatus pkgdist_file_write_data(pkgdist_file_recv_entry& entry, uint32_t offset,
                                      uint32_t length, const uint8_t* data);

namespace pkgdist {

// Creates the partial file or the shared-memory object. On failure nothing is mapped; an object
// that was created stays open, so that releasing the entry deletes it.
PkgdistStatus open_destination(pkgdist_file_recv_entry& entry);

// Closes an unfinished file and deletes it, unless something else stands under its name by now: a
// file that was completed for a later request has the name for itself.
void discard_partial(pkgdist_file_recv_entry& entry);

// Writes segments that follow each other with one call, at most as many as a run holds. One
// attempt, without a word: false when it failed or wrote less.
bool write_segments(pkgdist_file_recv_entry& entry,
                    std::span<const pkgdist_data_send_segment> segments);

}  // namespace pkgdist
