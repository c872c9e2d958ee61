// The manifest of a release: a text that names every directory, file and link of a tree.
//
//   pkgdist-release 1 name=base version=7 leaf=65536
//   floor 5
//   expires 2027-11-21T00:00:00Z                        optional
//   d 0755 - - - etc
//   f 0644 2803 1700000000 sha256:6b86... a/b
//   f 0755 536870912 1700000000 list256:d473... big.img
//   l - 9 - - lib/libx.so libx.so.1
//   end 3 536873715                                     entries, bytes of the files
//
// One release has one text: fields are separated by one space, numbers have no leading zeros (modes
// have four octal digits), entries are sorted by the bytes of their paths, and in paths and link
// targets the bytes up to 0x20, 0x7F and '%' are written %XX. parse() takes nothing else, so
// format(parse(text)) is the text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "crypto.h"

namespace pkgdist::release {

enum class Kind : char { kDirectory = 'd', kFile = 'f', kLink = 'l' };

inline constexpr uint32_t kPermissions = 07777;  // of a mode, what an entry has

struct Entry {
  Kind kind = Kind::kFile;
  uint32_t mode = 0;   // permission bits; not of links
  uint32_t size = 0;   // bytes of a file
  uint32_t mtime = 0;  // of a file, seconds since the epoch
  Digest digest{};     // of a file; of its leaves when it is larger than one leaf
  std::string path;    // relative to the tree
  std::string target;  // of a link
  bool operator==(const Entry&) const = default;
};

struct Manifest {
  std::string name;
  uint64_t version = 0;
  uint32_t leaf = 0;   // bytes
  uint64_t floor = 0;  // once this release is confirmed, versions below are refused
  std::optional<std::string> expires;
  std::vector<Entry> entries;
  bool operator==(const Manifest&) const = default;
};

// Where a release keeps what belongs to it, in the tree itself. Nothing else stands there.
inline constexpr char kReleaseDirectory[] = ".pkgdist";
inline constexpr char kManifestPath[] = ".pkgdist/manifest";
inline constexpr char kSignaturePath[] = ".pkgdist/manifest.minisig";  // the first one
inline constexpr char kLeavesPath[] = ".pkgdist/leaves";

// Limits. A manifest is held in memory, twice while it is parsed.
inline constexpr size_t kMaxManifestBytes = size_t{64} << 20;
inline constexpr size_t kMaxLeavesBytes = size_t{1} << 30;  // of 2 TiB
inline constexpr size_t kMaxEntries = 1'000'000;
inline constexpr size_t kMaxPathBytes = 4095;
inline constexpr size_t kMaxComponentBytes = 255;
inline constexpr size_t kMaxNameBytes = 64;
inline constexpr uint32_t kLeafBytes = 65536;
inline constexpr uint32_t kSmallestLeaf = 4096;
inline constexpr uint32_t kLargestLeaf = 16u << 20;

enum class SetId { kRefused, kAllowed };
// What the release itself uses is no name of its tree; a push may bring such names, too.
enum class Names { kOfRelease, kAny };

// Leaves that a file has in the leaf file: none when it is not larger than one leaf.
uint32_t leaf_count(uint32_t size, uint32_t leaf);

// Sum of the sizes of all files.
uint64_t total_bytes(const Manifest& manifest);

// The first line, which is the trusted comment of the signature, too.
std::string head_line(const Manifest& manifest);

// The text. Entries have to be as parse() demands them; throws Refused when they are not.
std::string format(const Manifest& manifest, Names names = Names::kOfRelease);

// To be called with verified text only. Throws Refused.
Manifest parse(std::string_view text, SetId set_id = SetId::kRefused,
               Names names = Names::kOfRelease);

// Paths and targets as the manifest writes them, and back; nothing for what escape() never writes.
std::string escape(std::string_view text);
std::optional<std::string> unescape(std::string_view text);

// The first line of a text, whatever it says.
std::string_view first_line(std::string_view text);

// Throws Refused unless the entries are in order and each stands in a directory of the manifest.
void check_entries(const Manifest& manifest, SetId set_id, Names names = Names::kOfRelease);

// Throws Refused unless it is a release name: a to z, 0 to 9, '.', '_', '-', beginning with a
// letter or digit.
void check_name(std::string_view name);
// Throws Refused unless it is written 2027-11-21T00:00:00Z.
void check_expiry(std::string_view text);

}  // namespace pkgdist::release
