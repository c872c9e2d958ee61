// Statuses of the receive library in words.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

#include "pkgdist/status.h"

namespace pkgdist::cli {

// "received", "No such file or directory", "cancelled", ...; the number in hexadecimal when the
// status is none of the known ones.
std::string status_text(uint64_t status);

// What the lead gives files of a push for a node that has not set the location: no system call on
// nodes fails so.
inline constexpr uint64_t kStatusNoLocation = PKGDIST_STATUS_FROM_ERRNO(EADDRNOTAVAIL);

}  // namespace pkgdist::cli
