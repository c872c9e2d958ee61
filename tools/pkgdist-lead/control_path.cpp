#include "control_path.h"

#include <fmt/core.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/Error.hpp>
#include <cstdlib>

namespace pkgdist::lead_program {

namespace {

std::string runtime_directory() {
  const char* own = std::getenv("XDG_RUNTIME_DIR");
  if (own != nullptr && own[0] == '/') return own;
  return ::access("/run", W_OK) == 0 ? "/run" : "/tmp";
}

}  // namespace

std::string control_path(const LeadOptions& options) {
  std::string path = options.control_path;
  if (path.empty())
    path = fmt::format("{}/pkgdist-lead-{}-{}.sock", runtime_directory(),
                       cli::format_address(require_interface(options)), options.common.lead_port);
  if (path.size() >= sizeof(sockaddr_un::sun_path))
    throw CLI::ValidationError(fmt::format("--control: too long for a socket: '{}'", path));
  return path;
}

}  // namespace pkgdist::lead_program
