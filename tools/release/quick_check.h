// Whether a tree is that of a manifest, as far as can be told without reading its files.
#pragma once

#include <string>
#include <vector>

#include "manifest.h"

namespace pkgdist::release {

// What is missing or has another kind, size, mode or target, one text for each entry, as those of
// differences(). What the manifest does not name is not looked for. Throws std::runtime_error when
// the directory cannot be opened.
std::vector<std::string> quick_differences(const Manifest& manifest, const std::string& directory);

}  // namespace pkgdist::release
