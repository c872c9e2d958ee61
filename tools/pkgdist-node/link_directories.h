// The directories that symbolic links stand in.
#pragma once

#include <string>

namespace pkgdist::node_program {

// The library makes the directories of files, but not those of symbolic links: one that holds
// nothing else would be missing, and the link would fail. This program therefore brings its own
// inst_symlink(), which takes the place of the platform library's and makes them below the
// directories named here. To be called before the first link arrives.
void make_directories_of_links_below(std::string directory);

}  // namespace pkgdist::node_program
