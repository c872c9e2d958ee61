// Text from outside (names of files, messages, tables of other processes) as it may be shown: on a
// terminal, in a log, in a JSON line, on a page.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace pkgdist::cli {

// The text with '?' for each character that is not printed but does something (escape, newline and
// the other control characters, line separators, marks that reverse the direction of writing), and
// for each byte that is not UTF-8.
std::string printable(std::string_view text);

// The object on one line, without its end. Such characters are escaped; bytes that are not UTF-8
// are replaced, never an exception.
std::string json_line(const nlohmann::ordered_json& object);

}  // namespace pkgdist::cli
