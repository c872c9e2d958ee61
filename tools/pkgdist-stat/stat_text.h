// A sample as text for people: counters in columns, histograms as bars, the watermark with its
// time.
#pragma once

#include <string>
#include <vector>

#include "sample.h"

namespace pkgdist::stat {

struct TextOptions {
  bool nonzero = false;  // leave out entries that were never used
  bool changed = false;  // leave out entries that are as they were in the earlier sample
};

// Lines. With an `earlier` sample of the same object, counts tell what was added and the rate.
std::vector<std::string> text_of(const Sample& sample, const Sample* earlier,
                                 const TextOptions& options);

// One line for each process: what its health is told from.
std::vector<std::string> table_of(const std::vector<Sample>& samples);

// One line each, for the list of processes.
std::vector<std::string> list_of(const std::vector<Statistics>& all);

}  // namespace pkgdist::stat
