// When a release ends to be good: dates as manifests have them, "2027-11-21T00:00:00Z".
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace pkgdist::cli {

// Nothing for a text that is no such date.
std::optional<std::time_t> expiry_time(const std::string& date);

// "expired on DATE", or "expires on DATE" within the two weeks before; empty otherwise.
std::string expiry_warning(const std::string& date, std::time_t now);

}  // namespace pkgdist::cli
