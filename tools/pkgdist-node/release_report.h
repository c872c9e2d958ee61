// The state of releases, for people and as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "release_messages.h"

namespace pkgdist::node_program {

// Fields of the event `installation`, and of the answer to a command.
nlohmann::ordered_json release_fields(const cli::ReleaseState& state);

// "release base: fetching version 7, 3 files are missing".
std::string release_line(const cli::ReleaseState& state);

// The fields in several lines.
std::vector<std::string> release_lines(const nlohmann::ordered_json& fields);

}  // namespace pkgdist::node_program
