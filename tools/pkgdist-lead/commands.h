// The commands of pkgdist-lead; each returns the exit status.
#pragma once

#include "lead_options.h"

namespace pkgdist::lead_program {

int push_command(const LeadOptions& options);
// push --release
int push_release_command(const LeadOptions& options);
int activate_command(const LeadOptions& options);
int releases_command(const LeadOptions& options);
int serve_command(const LeadOptions& options);
int top_command(const LeadOptions& options);
// message, cancel and delete: handed to a running lead.
int request_command(const LeadOptions& options);
// status, nodes and pushes: what a running lead tells.
int list_command(const LeadOptions& options);

}  // namespace pkgdist::lead_program
