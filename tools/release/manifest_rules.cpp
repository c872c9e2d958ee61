// What names, dates and entries of a manifest have to look like, whoever made them.
#include <fmt/core.h>

#include <algorithm>
#include <unordered_set>

#include "manifest.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr uint32_t kModeBits = 01777;
constexpr uint32_t kSetIdBits = 06000;

[[noreturn]] void refuse_path(std::string_view path, const char* why) {
  throw Refused(Reason::kPath, fmt::format("path '{}' {}", path, why));
}

void check_component(std::string_view path, std::string_view component) {
  if (component.empty()) refuse_path(path, "has an empty component");
  if (component == "." || component == "..") refuse_path(path, "has a component '.' or '..'");
  if (component.size() > kMaxComponentBytes) refuse_path(path, "has a component that is too long");
}

void check_path(std::string_view path, Names names) {
  if (path.empty() || path.size() > kMaxPathBytes) refuse_path(path, "is empty or too long");
  if (path.find('\0') != std::string_view::npos) refuse_path(path, "has a zero byte");
  for (size_t at = 0; at <= path.size();) {
    const size_t end = std::min(path.find('/', at), path.size());
    check_component(path, path.substr(at, end - at));
    at = end + 1;
  }
  if (names == Names::kOfRelease &&
      (path == kReleaseDirectory || path.starts_with(std::string(kReleaseDirectory) + "/")))
    refuse_path(path, "is reserved for the release itself");
}

void check_target(const Entry& entry) {
  if (entry.target.empty() || entry.target.size() > kMaxPathBytes ||
      entry.target.find('\0') != std::string::npos)
    refuse_path(entry.path, "is a link with an unusable target");
}

void check_mode(const Entry& entry, SetId set_id) {
  const uint32_t allowed = set_id == SetId::kAllowed ? kModeBits | kSetIdBits : kModeBits;
  if ((entry.mode & ~allowed) == 0) return;
  throw Refused(Reason::kMode,
                fmt::format("'{}' has mode {:04o}: set-user-ID and set-group-ID are not allowed "
                            "(--allow-setuid)",
                            entry.path, entry.mode));
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_name_character(char c) {
  return (c >= 'a' && c <= 'z') || is_digit(c) || c == '.' || c == '_' || c == '-';
}

}  // namespace

void check_name(std::string_view name) {
  const bool good = !name.empty() && name.size() <= kMaxNameBytes && name[0] != '.' &&
                    name[0] != '_' && name[0] != '-' &&
                    std::all_of(name.begin(), name.end(), is_name_character);
  if (!good)
    throw Refused(Reason::kFormat,
                  fmt::format("'{}' is no release name: a to z, 0 to 9, '.', '_' and '-'", name));
}

void check_expiry(std::string_view text) {
  constexpr std::string_view kPattern = "0000-00-00T00:00:00Z";
  const bool good = text.size() == kPattern.size() &&
                    std::equal(text.begin(), text.end(), kPattern.begin(),
                               [](char c, char p) { return p == '0' ? is_digit(c) : c == p; });
  if (!good)
    throw Refused(Reason::kFormat,
                  fmt::format("'{}' is no expiry date, like 2027-11-21T00:00:00Z", text));
}

void check_entries(const Manifest& manifest, SetId set_id, Names names) {
  if (manifest.entries.size() > kMaxEntries)
    throw Refused(Reason::kTooLarge, fmt::format("more than {} entries", kMaxEntries));
  std::unordered_set<std::string_view> directories;
  const Entry* before = nullptr;
  for (const Entry& entry : manifest.entries) {
    check_path(entry.path, names);
    if (before != nullptr && entry.path <= before->path)
      refuse_path(entry.path, "is not in order, or there twice");
    const size_t slash = entry.path.rfind('/');
    if (slash != std::string::npos &&
        !directories.contains(std::string_view(entry.path).substr(0, slash)))
      refuse_path(entry.path, "stands in no directory of the manifest");
    if (entry.kind == Kind::kLink)
      check_target(entry);
    else
      check_mode(entry, set_id);
    if (entry.kind == Kind::kDirectory) directories.insert(entry.path);
    before = &entry;
  }
}

}  // namespace pkgdist::release
