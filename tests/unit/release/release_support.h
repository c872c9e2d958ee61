// A directory that goes away with its test, and manifests to begin with.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "content.h"
#include "manifest.h"
#include "refusal.h"

namespace release_test {

using pkgdist::release::Entry;
using pkgdist::release::Kind;
using pkgdist::release::Manifest;
using pkgdist::release::Reason;
using pkgdist::release::Refused;

class TempTree {
 public:
  // In memory where syncing would take its time.
  explicit TempTree(const std::string& parent = "/tmp") : path_(parent + "/release-test-XXXXXX") {
    EXPECT_NE(nullptr, mkdtemp(path_.data()));
  }
  ~TempTree() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  void write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
    std::ofstream(*this / name, std::ios::binary) << content;
  }
  std::string read(const std::string& name) const {
    std::ifstream file(*this / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};

inline Entry directory(const std::string& path) {
  Entry entry;
  entry.kind = Kind::kDirectory;
  entry.mode = 0755;
  entry.path = path;
  return entry;
}

inline Entry file(const std::string& path, const std::string& content) {
  Entry entry;
  entry.mode = 0644;
  entry.mtime = 1'700'000'000;
  entry.size = static_cast<uint32_t>(content.size());
  entry.digest = pkgdist::release::sha256(pkgdist::release::bytes_of(content));
  entry.path = path;
  return entry;
}

inline Entry link_to(const std::string& path, const std::string& target) {
  Entry entry;
  entry.kind = Kind::kLink;
  entry.path = path;
  entry.target = target;
  return entry;
}

inline Manifest sample() {
  Manifest manifest;
  manifest.name = "base";
  manifest.version = 7;
  manifest.leaf = pkgdist::release::kLeafBytes;
  manifest.floor = 5;
  manifest.entries = {directory("a"), file("a/b", "hello"), link_to("c", "a/b"), file("d e%", "")};
  return manifest;
}

// Why `act` was refused; nothing when it was not.
inline std::optional<Reason> refusal(const std::function<void()>& act) {
  try {
    act();
  } catch (const Refused& refused) {
    return refused.reason();
  }
  return std::nullopt;
}

// A signature file with one bit flipped, for every bit but those of the text of its first comment,
// which nothing protects.
inline void each_flipped_bit(
    const std::string& signature_file,
    const std::function<void(const std::string& flipped, const std::string& where)>& act) {
  const size_t comment = std::string("untrusted comment: ").size();
  for (size_t at = 0; at < signature_file.size(); ++at) {
    if (at >= comment && at < signature_file.find('\n')) continue;
    for (int bit = 0; bit < 8; ++bit) {
      std::string flipped = signature_file;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << bit));
      act(flipped, "byte " + std::to_string(at) + " bit " + std::to_string(bit));
    }
  }
}

}  // namespace release_test
