// Which names may travel. The node puts its location's path before a name and ".tmp" behind it in a
// buffer of 256 bytes, and its completion report holds a name of 255 bytes at most.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdist::lead {

// Longest name in bytes: leaves room for a short location path and the temporary suffix.
inline constexpr size_t kMaxNameLength = 240;

// Null when the name may travel, else the reason why not, as half a sentence.
const char* name_problem(std::string_view name);

// The same name without empty and "." components: names of one file have one plain name.
std::string plain_name(std::string_view name);

// While a node receives NAME, its content stands under "NAME.tmp". These are the names whose
// partial file is this plain name or one of its directories: while a node receives one of them it
// cannot have, receive or keep this one. The longest comes last.
std::vector<std::string_view> owners_of_partial(std::string_view plain);

}  // namespace pkgdist::lead
