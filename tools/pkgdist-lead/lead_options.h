// The command line of pkgdist-lead.
#pragma once

#include <string>
#include <vector>

#include "cli_common.h"

namespace pkgdist::lead_program {

struct LeadOptions {
  cli::CommonOptions common;
  uint64_t rate_bits = 0;      // 0: adaptive
  uint64_t max_rate_bits = 0;  // 0: built in
  double timeout_seconds = 30;
  uint32_t ttl = 1;

  // push
  uint32_t node_count = 0;      // with a number
  std::vector<uint32_t> nodes;  // with a list
  uint32_t location = 1;
  uint32_t type = 1;
  uint32_t priority = 2;
  std::vector<std::string> paths;

  bool serve = false;  // the command: serve, or else push
};

// Adds commands and options to the program.
void add_lead_options(CLI::App& app, LeadOptions& options);

}  // namespace pkgdist::lead_program
