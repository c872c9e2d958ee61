// Partial files that an earlier process has left in incoming: which leaves of them are good.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <span>
#include <utility>

#include "content.h"
#include "installer.h"
#include "installer_places.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

namespace fs = std::filesystem;

constexpr char kPartialSuffix[] = ".tmp";  // of the receive library

bool holds_leaf(int fd, uint64_t at, std::vector<uint8_t>& block, const Digest& leaf) {
  return pread(fd, block.data(), block.size(), static_cast<off_t>(at)) ==
             static_cast<ssize_t>(block.size()) &&
         leaf_digest(block) == leaf;
}

// Parts that touch are one.
std::vector<Installer::Part> good_parts(int fd, const Entry& entry, uint32_t leaf,
                                        std::span<const Digest> leaves) {
  std::vector<Installer::Part> parts;
  std::vector<uint8_t> block(leaf);
  for (size_t k = 0; k < leaves.size(); ++k) {
    const uint64_t at = uint64_t{leaf} * k;
    block.resize(std::min<uint64_t>(leaf, entry.size - at));
    if (!holds_leaf(fd, at, block, leaves[k])) continue;
    if (parts.empty() || parts.back().first + parts.back().size != at) parts.push_back({at, 0});
    parts.back().size += block.size();
  }
  return parts;
}

}  // namespace

void Installer::find_good_parts() {
  if (!candidate_ || ready_) return;
  Manifest manifest;
  manifest.leaf = leaf_;
  std::set<std::string> missing;
  for (const Expected& expected : expected_) {
    manifest.entries.push_back(expected.entry);
    if (!expected.present) missing.insert(expected.entry.path);
  }
  const std::string staged = staging_of(*candidate_) + "/" + kLeavesPath;
  const std::vector<Digest> leaves =
      parse_leaves(read_beneath(place_.get(), staged.c_str(), kMaxLeavesBytes), manifest);
  std::span<const Digest> rest(leaves);
  for (const Entry& entry : manifest.entries) {
    const uint32_t own = leaf_count(entry.size, leaf_);
    const auto of_entry = rest.first(own);
    rest = rest.subspan(own);
    if (own == 0 || !missing.contains(entry.path)) continue;
    const std::string partial = std::string(kIncoming) + "/" + entry.path + kPartialSuffix;
    const Fd file(open_beneath(place_.get(), partial.c_str(), O_RDONLY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    std::vector<Part> parts = good_parts(file.get(), entry, leaf_, of_entry);
    const std::lock_guard lock(mutex_);
    if (!parts.empty()) parts_[entry.path] = std::move(parts);
  }
}

std::vector<Installer::Part> Installer::take_good_parts(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  auto taken = parts_.extract(path);
  return taken.empty() ? std::vector<Part>() : std::move(taken.mapped());
}

// All but the files of a release that wait for their check, and partial files that are of use.
void Installer::clear_incoming() const {
  std::set<std::string> kept{kManifestPath, kSignaturePath, kLeavesPath};
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
