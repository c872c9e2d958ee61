#include "release_place.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "installer_places.h"
#include "node.h"
#include "pkgdist/pkgdist.hpp"
#include "pkgdist/wire_data.h"

namespace pkgdist::node_program {

namespace {

namespace fs = std::filesystem;

constexpr char kDefaultState[] = "/var/lib/pkgdist/release";
// Limits of the receive library: bytes of a location's path, and of a whole path with the suffix of
// a partial file.
constexpr size_t kMaxLocation = 127;
constexpr size_t kMaxPath = 255;
constexpr size_t kSuffixBytes = sizeof ".tmp" - 1;

fs::path existing_directory(const std::string& path, const char* option) {
  std::error_code error;
  const fs::path directory = fs::canonical(path, error);
  if (error) throw std::runtime_error(fmt::format("{}: '{}': {}", option, path, error.message()));
  if (!fs::is_directory(directory))
    throw std::runtime_error(fmt::format("{}: '{}' is no directory", option, path));
  return directory;
}

// What was given, what systemd has made for the service, or the usual one. Made if it is missing.
fs::path state_directory(const ReleaseOptions& options) {
  std::string path = options.state_directory;
  if (const char* given = std::getenv("STATE_DIRECTORY"); path.empty() && given != nullptr)
    path = std::string(given).substr(0, std::string(given).find(':'));
  if (path.empty()) path = kDefaultState;
  std::error_code error;
  fs::create_directories(path, error);
  if (error) throw std::runtime_error(fmt::format("--state: '{}': {}", path, error.message()));
  return existing_directory(path, "--state");
}

bool is_beneath(const fs::path& path, const fs::path& directory) {
  const fs::path relative = path.lexically_relative(directory);
  return !relative.empty() && *relative.begin() != "..";
}

cli::Fd take_lock(const fs::path& place) {
  cli::Fd lock(::open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock)
    throw std::runtime_error(
        fmt::format("--releases: '{}': {}", place.string(), std::strerror(errno)));
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
    throw std::runtime_error(fmt::format(
        "--releases: '{}': another process installs releases there already", place.string()));
  return lock;
}

std::vector<release::PublicKey> keys_of(const ReleaseOptions& options) {
  try {
    std::vector<release::PublicKey> keys = release::read_public_keys(options.keys);
    release::require_keys(keys, options.threshold);
    return keys;
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("--keys: {}", error.what()));
  }
}

std::string time_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  (void)::gmtime_r(&now, &parts);
  char text[sizeof "2027-11-21T00:00:00Z"];
  (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

// A file that is here ends when its transfer begins, as it does on any node: a lead takes the end
// of a file that it has not sent yet for a failure.
int answer_listed(const release::Installer& installer, const std::string& name) {
  const int answer = installer.ask(name, std::nullopt);
  return answer == release::Installer::kPresent ? PKGDIST_GATE_ACCEPT : answer;
}

int answer(const release::Installer& installer, const GateQuestion& question) {
  if (question.operation == PKGDIST_GATE_DELETE) return EPERM;
  const std::string name = question.name;
  if (question.operation == PKGDIST_GATE_LISTED) return answer_listed(installer, name);
  const release::Installer::Announced announced{question.size, question.mode,
                                                question.kind == PKGDIST_FILE_TYPE_SYMLINK};
  const int answer = installer.ask(name, announced);
  if (answer == release::Installer::kAccept) installer.make_way(name);
  return answer;
}

}  // namespace

std::string ReleasePlace::incoming() const {
  return directory + "/" + release::kIncoming + "/";
}

ReleasePlace open_release_place(const ReleaseOptions& options, bool allow_setuid) {
  ReleasePlace place;
  const fs::path directory = existing_directory(options.place, "--releases");
  const fs::path state = state_directory(options);
  if (is_beneath(state, directory))
    throw std::runtime_error(
        fmt::format("--state: '{}' must not be inside of '{}': what the node remembers of older "
                    "releases would go with the place",
                    state.string(), directory.string()));
  place.directory = directory;
  if (place.incoming().size() > kMaxLocation)
    throw std::runtime_error(
        fmt::format("--releases: '{}' is too long: {} bytes with '{}', {} at most", place.directory,
                    place.incoming().size(), release::kIncoming, kMaxLocation));
  place.lock = take_lock(directory);
  release::InstallerOptions& installer = place.installer;
  installer.name = options.name;
  installer.place = place.directory;
  installer.state_directory = state;
  installer.keys = keys_of(options);
  installer.threshold = options.threshold;
  installer.set_id = allow_setuid ? release::SetId::kAllowed : release::SetId::kRefused;
  installer.hard_links = options.hard_links;
  installer.longest_path = kMaxPath - kSuffixBytes - place.incoming().size();
  if (options.enforce_expiry) installer.now = time_now;
  return place;
}

// Of files that were being received when an earlier process was killed, or the lead was lost.
void set_release_resume(uint32_t location, std::shared_ptr<const release::Installer> installer) {
  const auto parts = [location, installer = std::move(installer)](uint32_t asked, const char* name,
                                                                  uint32_t) {
    std::vector<GoodPart> good;
    if (asked != location) return good;
    try {
      for (const auto& [first, size] : installer->take_good_parts(name))
        good.push_back({first, size});
    } catch (const std::exception&) {  // a thread of the library: everything comes again
      good.clear();
    }
    return good;
  };
  require(set_resume(parts).value(), "setting what receptions go on with");
}

void set_release_gate(uint32_t location, std::shared_ptr<const release::Installer> installer) {
  const auto gate = [location, installer = std::move(installer)](const GateQuestion& question) {
    return question.location == location ? answer(*installer, question) : EPERM;
  };
  require(set_gate(gate).value(), "setting the gate");
}

}  // namespace pkgdist::node_program
