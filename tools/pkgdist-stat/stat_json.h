// A sample as the fields of a JSON event; docs/operations.md has the list.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "sample.h"
#include "stat_text.h"

namespace pkgdist::stat {

nlohmann::ordered_json process_json(const Statistics& statistics);

// `health`: the five answers. With an `earlier` sample, `seconds` and what counters and histograms
// have gained (`added`).
nlohmann::ordered_json json_of(const Sample& sample, const Sample* earlier,
                               const TextOptions& options);

}  // namespace pkgdist::stat
