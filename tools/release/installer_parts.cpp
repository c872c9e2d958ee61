// Partial files in incoming, of receptions that did not end: which leaves of them are good.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <span>
#include <utility>

#include "content.h"
#include "installer.h"
#include "installer_places.h"

namespace pkgdist::release {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kPartialSuffix[] = ".tmp";  // of the receive library
// So long the transfer of a file may be held up: more than a gibibyte is hashed in it.
constexpr std::chrono::seconds kQuick{1};

std::string partial_of(const std::string& path) {
  return std::string(kIncoming) + "/" + path + kPartialSuffix;
}

// Fills the buffer, or says no.
bool read_at(int fd, std::span<uint8_t> buffer, uint64_t at) {
  return pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(at)) ==
         static_cast<ssize_t>(buffer.size());
}

// Parts that touch are one. What is not reached in time counts as missing.
std::vector<Installer::Part> good_parts(int fd, const Entry& entry, uint32_t leaf,
                                        std::span<const Digest> leaves, Clock::time_point end) {
  std::vector<Installer::Part> parts;
  std::vector<uint8_t> block(leaf);
  for (size_t k = 0; k < leaves.size() && Clock::now() < end; ++k) {
    const uint64_t at = uint64_t{leaf} * k;
    block.resize(std::min<uint64_t>(leaf, entry.size - at));
    if (!read_at(fd, block, at) || leaf_digest(block) != leaves[k]) continue;
    if (parts.empty() || parts.back().first + parts.back().size != at) parts.push_back({at, 0});
    parts.back().size += block.size();
  }
  return parts;
}

}  // namespace

// Missing files that have leaves: all of them, or the one with this path.
std::vector<Installer::LargeFile> Installer::missing_large(const std::string* only) const {
  std::vector<LargeFile> files;
  size_t first_leaf = 0;
  const std::lock_guard lock(mutex_);
  if (coming_.empty()) return files;
  for (const auto& [entry, present] : expected_) {
    const uint32_t leaves = leaf_count(entry.size, leaf_);
    if (leaves != 0 && !present && (only == nullptr || entry.path == *only))
      files.push_back({entry, coming_ + "/" + kLeavesPath, first_leaf, leaf_});
    first_leaf += leaves;
  }
  return files;
}

std::vector<Installer::Part> Installer::look_at_partial(const LargeFile& file,
                                                        Clock::time_point end) const {
  const Fd partial(open_beneath(place_.get(), partial_of(file.entry.path).c_str(), O_RDONLY));
  struct stat status {};
  if (!partial || fstat(partial.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  const Fd list(open_beneath(place_.get(), file.leaves.c_str(), O_RDONLY));
  std::vector<Digest> leaves(leaf_count(file.entry.size, file.leaf));
  const std::span bytes(reinterpret_cast<uint8_t*>(leaves.data()), leaves.size() * sizeof(Digest));
  if (!list || !read_at(list.get(), bytes, file.first_leaf * sizeof(Digest))) return {};
  if (list_digest(file.entry.size, file.leaf, leaves) != file.entry.digest) return {};
  return good_parts(partial.get(), file.entry, file.leaf, leaves, end);
}

void Installer::find_good_parts() const {
  std::map<std::string, std::vector<Part>> found;
  for (const LargeFile& file : missing_large(nullptr)) {
    std::vector<Part> parts = look_at_partial(file, Clock::time_point::max());
    if (!parts.empty()) found[file.entry.path] = std::move(parts);
  }
  const std::lock_guard lock(mutex_);
  parts_ = std::move(found);
}

// What was found before, or what is there now: another transfer may have ended since.
std::vector<Installer::Part> Installer::take_good_parts(const std::string& path) const {
  {
    const std::lock_guard lock(mutex_);
    if (const auto known = parts_.find(path); known != parts_.end()) {
      std::vector<Part> parts = std::move(known->second);
      parts_.erase(known);
      return parts;
    }
  }
  const std::vector<LargeFile> file = missing_large(&path);
  if (file.empty()) return {};
  return look_at_partial(file.front(), Clock::now() + kQuick);
}

// What was found in a partial file that has gone since is not in the next one.
void Installer::forget_parts_of_nothing(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto known = parts_.find(path);
  if (known == parts_.end()) return;
  if (!Fd(open_beneath(place_.get(), partial_of(path).c_str(), O_PATH))) parts_.erase(known);
}

// Bytes on the disk that partial files of missing ones have already.
uint64_t Installer::partial_bytes() const {
  constexpr uint64_t kBlock = 512;  // of st_blocks
  uint64_t bytes = 0;
  for (const LargeFile& file : missing_large(nullptr)) {
    const Fd partial(open_beneath(place_.get(), partial_of(file.entry.path).c_str(), O_RDONLY));
    struct stat status {};
    if (partial && fstat(partial.get(), &status) == 0)
      bytes +=
          std::min<uint64_t>(static_cast<uint64_t>(status.st_blocks) * kBlock, file.entry.size);
  }
  return bytes;
}

// All but the files of a release that wait for their check, and partial files that are of use.
void Installer::clear_incoming() const {
  std::set<std::string> kept{kManifestPath, kLeavesPath};
  kept.insert(signature_paths().begin(), signature_paths().end());
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [path, parts] : parts_) kept.insert(path + kPartialSuffix);
  }
  clear_incoming("", kept);
}

void Installer::clear_incoming(const std::string& below, const std::set<std::string>& kept) const {
  const fs::path directory = fs::path(options_.place) / kIncoming / below;
  std::vector<std::string> names;
  for (const auto& item : fs::directory_iterator(directory))
    names.push_back(item.path().filename());
  for (const std::string& name : names) {
    const std::string path = below + name;
    const auto inside = kept.lower_bound(path + "/");
    if (kept.contains(path)) continue;
    if (inside != kept.end() && inside->starts_with(path + "/") &&
        fs::is_directory(fs::symlink_status(directory / name)))
      clear_incoming(path + "/", kept);
    else
      disk_.remove(place_.get(), std::string(kIncoming) + "/" + path);
  }
}

}  // namespace pkgdist::release
