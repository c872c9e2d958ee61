// The options of a command as they were given, for those who read later how something was pushed.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace pkgdist::lead_program {

// By name, with their values; flags have none, several values are separated by commas.
using GivenOptions = std::vector<std::pair<std::string, std::string>>;

// Of a command that was parsed, and of the program, in the order in which --help has them. Every
// option counts, but for arguments without a name and those of `told`.
GivenOptions given_options(const CLI::App& command, const std::vector<std::string>& told);

}  // namespace pkgdist::lead_program
