// What a node remembers of a release's installations, outside of the place it is installed in: who
// empties that place does not undo the protection against older versions.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "crypto.h"

namespace pkgdist::release {

struct InstalledRelease {
  uint64_t version = 0;
  Digest manifest{};  // SHA-256 of its text
  bool operator==(const InstalledRelease&) const = default;
};

struct InstallState {
  std::optional<InstalledRelease> installed;  // the last one that was confirmed
  std::vector<std::string> installed_keys;    // that signed it; empty: not known
  std::optional<InstalledRelease> trial;      // activated and not confirmed
  std::map<std::string, uint64_t> floors;     // by key
  std::set<Digest> bad;                       // manifests that failed
  std::optional<uint64_t> allowed;            // version that is taken once by the owner's command
  bool operator==(const InstallState&) const = default;
};

std::string format(const InstallState& state);
// Throws Refused(kFormat): a damaged state is not taken for an empty one.
InstallState parse_state(std::string_view text);

// Directory of a release among others: "7-<16 digits of its manifest's digest>".
std::string directory_name(const InstalledRelease& release);
// Of the digest only those digits, zeros behind them. Nothing for other names.
std::optional<InstalledRelease> parse_directory_name(std::string_view name);

}  // namespace pkgdist::release
