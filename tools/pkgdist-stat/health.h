// Whether a process that receives is healthy, in five answers with the numbers behind each: kernel
// drops, queue, disk, loss, time-outs. Counted since the process started.
#pragma once

#include <string>
#include <vector>

#include "sample.h"

namespace pkgdist::stat {

// kUnknown: there is nothing to tell it from.
enum class HealthLevel { kOk, kUnknown, kWarning, kProblem };

const char* health_level_name(HealthLevel level);

struct Health {
  std::string subject;  // "kernel drops"
  HealthLevel level = HealthLevel::kOk;
  std::string text;  // the numbers, and what to do when they are not good
};

// Always five, in the order above. With an `earlier` sample drops and give-ups tell what was added.
std::vector<Health> health_of(const Sample& sample, const Sample* earlier);

// The five as lines of 79 columns at most as long as counts have five digits.
std::vector<std::string> health_lines(const Sample& sample, const Sample* earlier);

// What a table of several processes shows of each.
struct HealthFigures {
  bool sockets_known = false;
  uint64_t drops = 0;
  uint64_t queue_most = 0;
  uint64_t disk_errors = 0;
  double loss_percent = 0;
  uint64_t given_up = 0;
  HealthLevel worst = HealthLevel::kOk;
};
HealthFigures health_figures(const Sample& sample);

}  // namespace pkgdist::stat
