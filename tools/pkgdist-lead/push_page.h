// A page about one push, made of the events that `push --json` printed: what happened when, which
// nodes were slow and, as far as the events tell, why. It needs nothing but itself.
#pragma once

#include <istream>
#include <string>

namespace pkgdist::lead_program {

// The page for the last push among the events, one JSON object per line; other lines are passed
// over. Throws std::runtime_error when no push has ended in them.
std::string push_page(std::istream& events);

// `pkgdist-lead report`: reads the events of `from` ("-": standard input), writes the page to `to`.
int report_command(const std::string& from, const std::string& to);

}  // namespace pkgdist::lead_program
