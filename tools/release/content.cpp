#include "content.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr char kListLabel[] = "pkgdist leaves 1";  // hashed with its zero byte
constexpr uint8_t kLeafLabel[] = {0};

template <class Number>
void add_big_endian(Sha256& hash, Number value) {
  std::array<uint8_t, sizeof(Number)> bytes;
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(value >> (8 * (bytes.size() - 1 - i)));
  hash.add(bytes);
}

// Fills the block, less only at the end of the file.
size_t read_block(int fd, std::span<uint8_t> block, off_t at) {
  size_t filled = 0;
  while (filled < block.size()) {
    const ssize_t got =
        pread(fd, block.data() + filled, block.size() - filled, at + static_cast<off_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw std::runtime_error(std::string("reading: ") + std::strerror(errno));
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  return filled;
}

}  // namespace

Digest leaf_digest(Bytes block) {
  Sha256 hash;
  hash.add(kLeafLabel);
  hash.add(block);
  return hash.finish();
}

Digest list_digest(uint64_t size, uint32_t leaf, std::span<const Digest> leaves) {
  Sha256 hash;
  hash.add({reinterpret_cast<const uint8_t*>(kListLabel), sizeof kListLabel});
  add_big_endian(hash, size);
  add_big_endian(hash, leaf);
  for (const Digest& one : leaves) hash.add(one);
  return hash.finish();
}

ContentHash hash_content(int fd, uint32_t size, uint32_t leaf) {
  ContentHash content;
  const uint32_t leaves = leaf_count(size, leaf);
  // Kept: new memory for each of many small files would cost as much as reading them. One byte more
  // than a small file has: a longer one is noticed.
  thread_local std::vector<uint8_t> block;
  block.resize(leaves == 0 ? size_t{size} + 1 : leaf);
  uint64_t total = 0;
  for (;;) {
    const size_t got = read_block(fd, block, static_cast<off_t>(total));
    total += got;
    if (leaves == 0) content.digest = sha256(std::span(block).first(got));
    if (leaves == 0 || got == 0 || total > size) break;
    content.leaves.push_back(leaf_digest(std::span(block).first(got)));
  }
  if (total != size)
    throw Refused(Reason::kContent, fmt::format("not the {} bytes long that it should be", size));
  if (leaves != 0) content.digest = list_digest(size, leaf, content.leaves);
  return content;
}

std::vector<Digest> parse_leaves(std::string_view bytes, const Manifest& manifest) {
  uint64_t count = 0;
  for (const Entry& entry : manifest.entries) count += leaf_count(entry.size, manifest.leaf);
  if (bytes.size() != count * sizeof(Digest))
    throw Refused(Reason::kLeaves, fmt::format("the leaf file has {} bytes instead of {}",
                                               bytes.size(), count * sizeof(Digest)));
  std::vector<Digest> leaves(count);
  if (count != 0) std::memcpy(leaves.data(), bytes.data(), bytes.size());
  std::span<const Digest> rest(leaves);
  for (const Entry& entry : manifest.entries) {
    const uint32_t own = leaf_count(entry.size, manifest.leaf);
    if (own == 0) continue;
    if (list_digest(entry.size, manifest.leaf, rest.first(own)) != entry.digest)
      throw Refused(Reason::kLeaves,
                    "the leaf file does not belong to the manifest: '" + entry.path + "'");
    rest = rest.subspan(own);
  }
  return leaves;
}

}  // namespace pkgdist::release
