// Answers the lead's question whether the content of files is what the lead has pushed.
//
// Everything is read beneath the directory of one location, after the files have got their names:
// the receive library knows nothing of contents, and reading a large file on its thread would hold
// up the others. What differs is received again, which replaces it in one step, and is then read
// again, three times at most. A file that does not come, for whatever reason, is not asked for
// again: the library has tried often enough.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "introduction.h"
#include "minisign.h"

namespace pkgdist::node_program {

// Receives files, whatever stands under their names; returns when each has ended, well or not, and
// says why files have not come, by name.
using ReceiveAgain = std::function<std::map<std::string, std::string>(
    uint32_t location, const std::vector<std::string>& names)>;

// `keys`: one of these must have signed; empty: nobody has to.
cli::NodeAnswer compare_contents(const std::string& directory, const cli::NodeQuestion& question,
                                 const std::vector<release::PublicKey>& keys,
                                 const ReceiveAgain& receive_again);

}  // namespace pkgdist::node_program
