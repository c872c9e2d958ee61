// Where the control socket of a running lead is.
#pragma once

#include <string>

#include "lead_options.h"

namespace pkgdist::lead_program {

// --control, or a name made of the interface's address and the lead's port in $XDG_RUNTIME_DIR, in
// /run where that may be written, or in /tmp. Throws when neither --control nor --interface is
// there, or the path is too long for a socket.
std::string control_path(const LeadOptions& options);

}  // namespace pkgdist::lead_program
