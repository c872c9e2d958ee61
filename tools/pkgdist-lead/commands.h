// The commands of pkgdist-lead; each returns the exit status.
#pragma once

#include "lead_options.h"

namespace pkgdist::lead_program {

int push_command(const LeadOptions& options);
int serve_command(const LeadOptions& options);

}  // namespace pkgdist::lead_program
