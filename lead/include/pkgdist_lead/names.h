// Which names may travel. The node puts its location's path before a name and ".tmp" behind it in a
// buffer of 256 bytes, and its completion report holds a name of 255 bytes at most.
#pragma once

#include <cstddef>
#include <string_view>

namespace pkgdist::lead {

// Longest name in bytes: leaves room for a short location path and the temporary suffix.
inline constexpr size_t kMaxNameLength = 240;

// Null when the name may travel, else the reason why not, as half a sentence.
const char* name_problem(std::string_view name);

}  // namespace pkgdist::lead
