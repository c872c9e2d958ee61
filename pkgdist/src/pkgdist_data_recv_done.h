// Finishing files: final names, symbolic links, and the report to the lead.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkgdist_data_recv_file_db.h"

// Gives a file with all its segments its final name. Receive lock held.
PkgdistStatus pkgdist_data_file_rename(pkgdist_file_recv_entry& entry);

// Makes the symbolic link whose target arrived as segment data. Receive lock held.
PkgdistStatus pkgdist_data_file_symlink(const pkgdist_file_recv_entry& entry, size_t length,
                                        const uint8_t* target);

// Tells the lead how a file ended, or that it has not.
PkgdistStatus pkgdist_data_send_file_done(uint32_t file_id, PkgdistStatus status, const char* path,
                                          uint32_t location);
