// What a push would bring and what it leaves out, told before anything is sent.
#pragma once

#include "lead_options.h"
#include "reporter.h"

namespace pkgdist::lead_program {

// What of a tree cannot be sent, on standard error.
void tell_left_out(const lead::FileTree& tree, const char* prefix);
// The same as events.
void left_out_events(const lead::FileTree& tree, const Reporter& reporter);

// push --dry-run. Returns the exit status.
int preview(const LeadOptions& options, const lead::FileTree& tree, Reporter& reporter);

}  // namespace pkgdist::lead_program
