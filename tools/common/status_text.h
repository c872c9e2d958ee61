// Statuses of the receive library in words.
#pragma once

#include <cstdint>
#include <string>

namespace pkgdist::cli {

// "received", "No such file or directory", "cancelled", ...; the number in hexadecimal when the
// status is none of the known ones.
std::string status_text(uint64_t status);

}  // namespace pkgdist::cli
