// push --checksum: what the nodes' files are compared with.
#pragma once

#include <string>
#include <vector>

#include "lead_options.h"
#include "pkgdist_lead/push.h"
#include "push_tree.h"
#include "reporter.h"

namespace pkgdist::lead_program {

// Reads the files of a push and signs what they are, when there is a key. Names that cannot be read
// are told and counted: nodes do not compare these. Throws std::runtime_error for an unusable key.
struct PushChecksums {
  std::vector<Checksums> parts = {};
  size_t left_out = 0;
};
PushChecksums make_checksums(const std::string& root, const std::vector<lead::PushFile>& files,
                             const LeadOptions& options, Reporter& reporter);

}  // namespace pkgdist::lead_program
