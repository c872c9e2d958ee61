// The commands of pkgdist-release; each returns the exit status, or throws release::Refused.
#pragma once

#include "release_options.h"

namespace pkgdist::release_program {

int make_command(const ReleaseOptions& options);
int check_command(const ReleaseOptions& options);
int show_command(const ReleaseOptions& options);
int diff_command(const ReleaseOptions& options);

}  // namespace pkgdist::release_program
