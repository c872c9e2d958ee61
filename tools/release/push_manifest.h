// What a push brings, as manifests that nodes compare their files with.
//
// Such a manifest says names, sizes and contents of files and targets of links; modes and times
// are 0. It is never that of a release: the trusted comment of its signature is another one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "manifest.h"

namespace pkgdist::release {

// A name that something is wrong with, and what, in words.
struct NamedProblem {
  std::string name;
  std::string text;
  bool operator==(const NamedProblem&) const = default;
};

struct HashedNames {
  std::vector<Entry> entries;          // files and links, in order
  std::vector<NamedProblem> problems;  // those that could not be read
};

// Asked between two files whether to go on; null: always.
using GoOn = std::function<bool()>;

// Files are hashed by several threads. Links on the way are followed as long as they stay inside of
// the directory. A file that changes while it is read is a problem. What is left when `go_on` says
// no is a problem, too. Throws std::runtime_error when the directory cannot be opened.
HashedNames hash_names(const std::string& directory, std::vector<std::string> names,
                       const GoOn& go_on = nullptr);

// Manifests of entries that are in order, each of about so many bytes, and of files with so many
// bytes in all; a single file may have more.
struct PushManifest {
  std::string text;
  uint64_t bytes = 0;  // of its files
};
std::vector<PushManifest> push_manifests(const std::vector<Entry>& entries, size_t text_bytes,
                                         uint64_t file_bytes);

// The files and links of such a manifest. Throws Refused.
std::vector<Entry> parse_push_manifest(std::string_view text);

// What differs in a directory from entries that are in order, as hash_names() reads it.
std::vector<NamedProblem> content_differences(const std::vector<Entry>& said,
                                              const std::string& directory,
                                              const GoOn& go_on = nullptr);

// The trusted comment of the signatures of such manifests.
std::string push_comment(uint32_t location);

}  // namespace pkgdist::release
