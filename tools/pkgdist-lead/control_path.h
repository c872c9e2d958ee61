// The control socket of a running lead: where it is, and how to reach it.
#pragma once

#include <string>

#include "lead_options.h"
#include "line_connection.h"

namespace pkgdist::lead_program {

// --control, or a name made of the interface's address and the lead's port in $XDG_RUNTIME_DIR, in
// /run where that may be written, or in /tmp. Throws when neither --control nor --interface is
// there, or the path is too long for a socket.
std::string control_path(const LeadOptions& options);

// To the lead that takes commands there. Throws std::runtime_error when none does.
cli::LineConnection connect_to_lead(const LeadOptions& options);

inline constexpr double kAnswerSeconds = 15;  // within which a lead that serves answers

}  // namespace pkgdist::lead_program
