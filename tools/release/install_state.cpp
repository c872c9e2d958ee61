#include "install_state.h"

#include <fmt/core.h>

#include <charconv>
#include <sstream>

#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr size_t kDirectoryDigits = 16;
constexpr char kHead[] = "pkgdist-state 1";

InstalledRelease read_release(std::istringstream& fields, const std::string& line) {
  InstalledRelease release;
  std::string digest;
  fields >> release.version >> digest;
  const auto parsed = digest_from_hex(digest);
  if (!fields || !parsed) throw Refused(Reason::kFormat, "the state is damaged: " + line);
  release.manifest = *parsed;
  return release;
}

void read_line(InstallState& state, const std::string& line) {
  std::istringstream fields(line);
  std::string what;
  fields >> what;
  if (what == "installed") {
    state.installed = read_release(fields, line);
    for (std::string key; fields >> key;) state.installed_keys.push_back(key);
    fields.clear();
  } else if (what == "trial") {
    state.trial = read_release(fields, line);
  } else if (what == "floor") {
    std::string key;
    uint64_t version = 0;
    fields >> key >> version;
    state.floors[key] = version;
  } else if (what == "allowed") {
    fields >> state.allowed.emplace();
  } else if (what == "bad") {
    std::string digest;
    fields >> digest;
    const auto parsed = digest_from_hex(digest);
    if (!parsed)
      fields.setstate(std::ios::failbit);
    else
      state.bad.insert(*parsed);
  } else {
    fields.setstate(std::ios::failbit);
  }
  if (!fields) throw Refused(Reason::kFormat, "the state is damaged: " + line);
}

}  // namespace

std::string format(const InstallState& state) {
  std::string text = std::string(kHead) + "\n";
  if (state.installed) {
    text +=
        fmt::format("installed {} {}", state.installed->version, to_hex(state.installed->manifest));
    for (const std::string& key : state.installed_keys) text += " " + key;
    text += "\n";
  }
  if (state.trial)
    text += fmt::format("trial {} {}\n", state.trial->version, to_hex(state.trial->manifest));
  for (const auto& [key, version] : state.floors)
    text += fmt::format("floor {} {}\n", key, version);
  if (state.allowed) text += fmt::format("allowed {}\n", *state.allowed);
  for (const Digest& digest : state.bad) text += fmt::format("bad {}\n", to_hex(digest));
  return text + "end\n";
}

InstallState parse_state(std::string_view text) {
  std::istringstream lines{std::string(text)};
  std::string line;
  if (!std::getline(lines, line) || line != kHead)
    throw Refused(Reason::kFormat, "this is no state of an installation");
  InstallState state;
  while (std::getline(lines, line)) {
    if (line == "end") return state;
    read_line(state, line);
  }
  throw Refused(Reason::kFormat, "the state ends early");
}

std::string directory_name(const InstalledRelease& release) {
  return fmt::format("{}-{}", release.version,
                     to_hex(release.manifest).substr(0, kDirectoryDigits));
}

std::optional<InstalledRelease> parse_directory_name(std::string_view name) {
  InstalledRelease release;
  const auto version = std::from_chars(name.data(), name.data() + name.size(), release.version);
  const size_t dash = static_cast<size_t>(version.ptr - name.data());
  if (version.ec != std::errc() || dash + 1 + kDirectoryDigits != name.size()) return std::nullopt;
  std::string digits(name.substr(dash + 1));
  digits.resize(2 * sizeof(Digest), '0');
  const auto digest = digest_from_hex(digits);
  if (!digest) return std::nullopt;
  release.manifest = *digest;
  return directory_name(release) == name ? std::optional(release) : std::nullopt;
}

}  // namespace pkgdist::release
