// Directory trees and manifests: what a manifest of a tree says, and whether a tree is that of a
// manifest. Files are hashed by several threads. Symbolic links are never followed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "content.h"
#include "hash_cache.h"
#include "manifest.h"
#include "settled_files.h"

namespace pkgdist::release {

struct ScannedTree {
  std::vector<Entry> entries;               // in order
  std::vector<std::vector<Digest>> leaves;  // of each entry
};

struct ScanOptions {
  uint32_t leaf = kLeafBytes;
  unsigned threads = 0;                   // 0: as many as there are processors
  HashCache* cache = nullptr;             // may be null
  const SettledFiles* settled = nullptr;  // files that need not be read, and have no leaves then
  // What a release cannot have, and files that cannot be read, are taken for files with a content
  // that no file has, instead of ending it.
  bool tolerant = false;
};

// Everything in the directory but its release directory. Throws Refused(kTree) for what a release
// cannot have: other kinds of files, 4 GiB and more, times outside of 1970 to 2106, and files that
// change while they are read; std::runtime_error for what cannot be read.
ScannedTree scan_tree(const std::string& directory, const ScanOptions& options);

// The content of the leaf file.
std::string format_leaves(const ScannedTree& tree);

// What differs between a manifest and a tree, one text for each entry: "missing: a/b",
// "content differs: a/b". Empty when nothing does.
std::vector<std::string> differences(const Manifest& manifest, const ScannedTree& tree);

// What an update from one release to another takes.
struct Update {
  std::vector<const Entry*> added;    // of the new release
  std::vector<const Entry*> changed;  // of the new release
  std::vector<const Entry*> removed;  // of the old release
  std::vector<const Entry*> sent;     // files of the new release whose content the old one lacks
  uint64_t bytes = 0;                 // of those that are sent; equal contents travel twice
};
// Both must outlive the result.
Update compare(const Manifest& before, const Manifest& after);

}  // namespace pkgdist::release
