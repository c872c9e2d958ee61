// The commands of pkgdist-node; each returns the exit status.
#pragma once

#include "node_options.h"

namespace pkgdist::node_program {

int run_command(const NodeOptions& options);
int get_command(const NodeOptions& options);
int send_command(const NodeOptions& options);
int status_command(const NodeOptions& options);
int release_command(const NodeOptions& options);
int firewall_command(const NodeOptions& options);

}  // namespace pkgdist::node_program
