// Where a node installs releases: its options looked at before anything is started.
#pragma once

#include <memory>
#include <string>

#include "disk.h"
#include "installer.h"
#include "node_options.h"
#include "poller.h"

namespace pkgdist::node_program {

struct ReleasePlace {
  std::string directory;  // absolute, without links
  // Taken by this process: no other one installs there. Until the descriptor is closed.
  cli::Fd lock;
  release::InstallerOptions installer;
  // The location's root, for the receive library.
  std::string incoming() const;
};

// Throws std::runtime_error with a text that says what to look at.
ReleasePlace open_release_place(const ReleaseOptions& options, bool allow_setuid);

// The gate of the process, for good: what the installer expects is taken, and nothing else. To be
// called before the Node is made.
void set_release_gate(uint32_t location, std::shared_ptr<const release::Installer> installer);
// The same: receptions go on with partial files, as far as the installer has found them right.
void set_release_resume(uint32_t location, std::shared_ptr<const release::Installer> installer);

}  // namespace pkgdist::node_program
