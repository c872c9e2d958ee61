// Directories beneath a location: opened without leaving it or following a link.
#pragma once

#include <string>
#include <vector>

#include "poller.h"

namespace pkgdist::node_program {

// `name`: relative to `top`, "." for `top` itself. `flags`: of open(), beside O_DIRECTORY and
// O_CLOEXEC. Without a descriptor errno says why not.
cli::Fd open_directory_beneath(int top, const std::string& name, int flags);

// The directory that a name stands in, with O_PATH, and the name there.
struct Place {
  cli::Fd parent;
  std::string last;
};
Place open_place_beneath(int top, const std::string& name);

// The components of a name; nothing when it is none that a lead may write: empty, absolute, or with
// an empty, "." or ".." component.
std::vector<std::string> components_of(const std::string& name);

// Whether a process of ours, this one, has the file open for writing.
bool is_open_for_writing(dev_t device, ino_t inode);
// The numbers of this process's descriptors, and whether one of them is for writing.
std::vector<int> own_descriptors();
bool writes(int fd);

inline constexpr char kOwnDescriptors[] = "/proc/self/fd";
// "NAME.tmp" is what a reception of NAME writes.
inline constexpr char kPartialSuffix[] = ".tmp";

}  // namespace pkgdist::node_program
