// The names of processes that leave objects for readers outside.
#pragma once

#include <sys/types.h>

#include <string>

namespace pkgdist::tools {

// The name of a process's program, running or ended, as its statistics have it; empty when it has
// left none. Nothing in the object is trusted; control characters are taken out.
std::string process_name(pid_t pid);

}  // namespace pkgdist::tools
