// Samples as Prometheus metrics: one family for each table, with labels pid, process and entry.
#pragma once

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

#include "sample.h"

namespace pkgdist::stat {

std::vector<prometheus::MetricFamily> metrics_of(const std::vector<Sample>& samples);

// The text format.
std::string prometheus_text(const std::vector<Sample>& samples);

}  // namespace pkgdist::stat
