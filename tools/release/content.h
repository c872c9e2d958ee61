// Hashes of files.
//
// A file of at most one leaf has its SHA-256. A larger one is cut into leaves, each with a hash of
// its own, and its digest is that of the list of leaves:
//   leaf_k = SHA-256(00 | bytes of leaf k)
//   digest = SHA-256("pkgdist leaves 1" 00 | u64 size | u32 leaf size | leaf_0 | leaf_1 ...)
// with big-endian numbers. So one damaged leaf can be named, and be asked for alone.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "crypto.h"
#include "manifest.h"

namespace pkgdist::release {

// A file that has come so many times with another content than it has to have is reported instead
// of being asked for again: what sends it is wrong, and more of it would only take time.
inline constexpr unsigned kMaxReceptions = 3;

struct ContentHash {
  Digest digest{};
  std::vector<Digest> leaves;  // none for a file of at most one leaf
};

Digest leaf_digest(Bytes block);
Digest list_digest(uint64_t size, uint32_t leaf, std::span<const Digest> leaves);

// Reads the file behind the descriptor from its beginning to its end. Throws Refused(kContent) when
// it is not `size` bytes long, std::runtime_error when it cannot be read.
ContentHash hash_content(int fd, uint32_t size, uint32_t leaf);

// All leaves of the files of a manifest, in its order: the content of the leaf file.
// Throws Refused(kLeaves) unless they are those that the manifest's digests are made of.
std::vector<Digest> parse_leaves(std::string_view bytes, const Manifest& manifest);

}  // namespace pkgdist::release
