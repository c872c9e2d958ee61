// Looking at the file that is already present in a storage location.
#pragma once

#include <sys/stat.h>

#include "pkgdist_data_recv_file_db.h"

// lstat() of the file's final path. Returns 0, the error number, or EISDIR for a directory.
int pkgdist_file_get_stat(const pkgdist_file_recv_entry& entry, struct stat& present);
