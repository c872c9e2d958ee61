// Receptions that go on with a partial file which is there already, as far as the process says that
// it is good.
#pragma once

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist_data_recv_file_db.h"

namespace pkgdist {

// What the process set; null: files are made anew. Set before the threads that ask exist.
extern pkgdist_data_resume_cb resume;

// Whether the process is to be asked about the file of this transfer.
bool may_resume(const pkgdist_file_recv_entry& entry);

// Whether what a reception leaves behind when it fails is for the next one. Its information may
// have told a failure, without a size.
bool keeps_partial(const pkgdist_file_recv_entry& entry);

// Opens the partial file and marks the segments that are good; their bitmaps are laid out and
// empty. False when there is none to go on with: then nothing is open. Receive lock held.
bool resume_partial(pkgdist_file_recv_entry& entry);

}  // namespace pkgdist
