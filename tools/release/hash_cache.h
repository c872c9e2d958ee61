// Remembers the hashes of files between two runs, by inode, size and time of the last change.
//
// The file is trusted as the files are: who can write it can have anything signed. A file that was
// changed less than kSettledSeconds before it was hashed is not remembered: another change within
// the resolution of the time would not show. Entries that no file of the tree uses are dropped.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>

#include "content.h"

namespace pkgdist::release {

class HashCache {
 public:
  static constexpr int64_t kSettledSeconds = 2;

  // Empty path: remembers nothing. A cache that is damaged counts as empty.
  HashCache(std::filesystem::path path, uint32_t leaf);

  // Both from any thread.
  std::optional<ContentHash> find(const struct stat& file);
  // `now`: when the hashing began.
  void add(const struct stat& file, const ContentHash& content, const timespec& now);

  // Writes what was found and added in this run. Throws std::runtime_error.
  void save() const;

  size_t hits() const { return hits_; }

 private:
  // device, inode, size, change time in nanoseconds
  using Key = std::tuple<uint64_t, uint64_t, uint64_t, int64_t>;
  static Key key_of(const struct stat& file);
  void load();

  const std::filesystem::path path_;
  const uint32_t leaf_;
  std::mutex mutex_;
  std::map<Key, ContentHash> known_;
  std::map<Key, ContentHash> used_;
  size_t hits_ = 0;
};

}  // namespace pkgdist::release
