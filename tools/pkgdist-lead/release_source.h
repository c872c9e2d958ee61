// A release as it lies in a directory of this host, ready to be pushed.
#pragma once

#include <string>
#include <vector>

#include "pkgdist_lead/push.h"
#include "release_messages.h"

namespace pkgdist::lead_program {

struct ReleaseSource {
  std::string directory;  // absolute
  std::string name;
  cli::ReleaseId id;
  std::string expires;                      // empty: never
  std::vector<lead::PushFile> description;  // the files of .pkgdist
  std::vector<lead::PushFile> files;        // of the manifest, in its order
};

// Looks at the directory without a key: what is signed and by whom, the nodes check. Throws
// std::runtime_error when there is no release in it.
struct OpenedRelease {
  ReleaseSource source;
  // In what the tree is not that of the manifest, one text for each entry. Found by names, sizes
  // and modes; `verify`: by reading every file.
  std::vector<std::string> differences;
};
OpenedRelease open_release(const std::string& directory, bool verify);

}  // namespace pkgdist::lead_program
