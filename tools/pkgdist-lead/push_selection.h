// What a push brings, by its paths and the options that choose among what is below them.
#pragma once

#include <string>
#include <vector>

#include "pkgdist_lead/directory_store.h"

namespace pkgdist::lead_program {

// Which names are left out of a push: those that match a pattern of `exclude` and none of
// `include`.
//
// Patterns are those of the shell; "*" and "?" do not match "/". One with a "/" is about the whole
// name below the location's root, one without about any component of it. What matches a directory
// holds for all that is in it.
struct NameFilter {
  std::vector<std::string> exclude;
  std::vector<std::string> include;

  bool takes(const std::string& name) const;
};

// Takes out of a tree what the filter leaves out: it is not told as left out either.
void select(lead::FileTree& tree, const NameFilter& filter);

// Names in a file, one in a line; "-": in the standard input. Throws CLI::ValidationError when it
// cannot be read.
std::vector<std::string> names_from(const std::string& path);

}  // namespace pkgdist::lead_program
