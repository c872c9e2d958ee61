// What the lead's program asks this one to do with the trees of pushes: modes and times of
// directories, the names that the lead does not have, and their removal.
//
// Everything happens beneath the directory of one location. No link is followed, no other file
// system that is mounted below is entered, and what a reception of this process writes stays.
#pragma once

#include <string>
#include <vector>

#include "introduction.h"

namespace pkgdist::node_program {

struct TreePlace {
  std::string directory;      // of the location
  unsigned mode_mask = 0777;  // bits that the lead decides about
  unsigned umask = 022;       // of these, what nothing gets
};

// Makes directories that are missing and gives them mode and time. What is inside a directory must
// come before it: it would change its time. A process that is not root keeps itself the permission
// to write to its directories, or the next push could not.
cli::NodeAnswer set_directories(const TreePlace& place, const cli::NodeQuestion& question);

// The names that are there and not known. More than `most` are a problem.
inline constexpr size_t kMostOtherNames = 100'000;
cli::NodeAnswer list_other_names(const TreePlace& place, const cli::NodeQuestion& question,
                                 size_t most = kMostOtherNames);

// Removes files, links and directories with all that is in them. States are those of introduction.h
// afterwards, or why a name is still there.
cli::NodeAnswer remove_names(const TreePlace& place, const cli::NodeQuestion& question);

// The same answer in pieces that fit into messages.
std::vector<cli::NodeAnswer> pieces_of(cli::NodeAnswer answer);

}  // namespace pkgdist::node_program
