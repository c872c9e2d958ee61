// A number with the word for what is counted.
#pragma once

#include <cstdint>
#include <string>

namespace pkgdist::cli {

// "1 file", "2 files"; "3 entries" with `many` for words that do not just take an s. Where a number
// of a whole is told, "1 of 3 nodes", the word stays as it is.
inline std::string counted(uint64_t count, const std::string& one, const std::string& many = "") {
  return std::to_string(count) + ' ' + (count == 1 ? one : many.empty() ? one + 's' : many);
}

}  // namespace pkgdist::cli
