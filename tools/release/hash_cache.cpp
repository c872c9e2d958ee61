#include "hash_cache.h"

#include <fmt/core.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace pkgdist::release {

namespace {

constexpr int64_t kNanoseconds = 1'000'000'000;

std::string head(uint32_t leaf) {
  return fmt::format("pkgdist-hashes 1 leaf={}", leaf);
}

}  // namespace

HashCache::HashCache(std::filesystem::path path, uint32_t leaf)
    : path_(std::move(path)), leaf_(leaf) {
  if (!path_.empty()) load();
}

HashCache::Key HashCache::key_of(const struct stat& file) {
  return {file.st_dev, file.st_ino, file.st_size,
          file.st_ctim.tv_sec * kNanoseconds + file.st_ctim.tv_nsec};
}

// One line for each file: device, inode, size, change time, digest, leaves.
void HashCache::load() {
  std::ifstream file(path_);
  std::string line;
  if (!std::getline(file, line) || line != head(leaf_)) return;
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    Key key;
    std::string text;
    fields >> std::get<0>(key) >> std::get<1>(key) >> std::get<2>(key) >> std::get<3>(key) >> text;
    ContentHash content;
    const auto digest = digest_from_hex(text);
    bool good = digest.has_value();
    if (good) content.digest = *digest;
    while (good && fields >> text) {
      const auto leaf = digest_from_hex(text);
      good = leaf.has_value();
      if (good) content.leaves.push_back(*leaf);
    }
    if (!good ||
        content.leaves.size() != leaf_count(static_cast<uint32_t>(std::get<2>(key)), leaf_))
      return known_.clear();
    known_.emplace(key, std::move(content));
  }
}

std::optional<ContentHash> HashCache::find(const struct stat& file) {
  const std::lock_guard lock(mutex_);
  const auto at = known_.find(key_of(file));
  if (at == known_.end()) return std::nullopt;
  ++hits_;
  used_.insert(*at);
  return at->second;
}

void HashCache::add(const struct stat& file, const ContentHash& content, const timespec& now) {
  if (file.st_ctim.tv_sec + kSettledSeconds > now.tv_sec) return;
  const std::lock_guard lock(mutex_);
  used_.emplace(key_of(file), content);
}

void HashCache::save() const {
  if (path_.empty()) return;
  const std::filesystem::path next = path_.string() + ".new";
  std::ofstream file(next, std::ios::trunc);
  file << head(leaf_) << '\n';
  for (const auto& [key, content] : used_) {
    file << std::get<0>(key) << ' ' << std::get<1>(key) << ' ' << std::get<2>(key) << ' '
         << std::get<3>(key) << ' ' << to_hex(content.digest);
    for (const Digest& leaf : content.leaves) file << ' ' << to_hex(leaf);
    file << '\n';
  }
  file.close();
  if (!file) throw std::runtime_error("cannot write " + next.string());
  std::filesystem::rename(next, path_);
}

}  // namespace pkgdist::release
