#include "control_path.h"

#include <fmt/core.h>

#include <stdexcept>

#include "control_socket.h"

namespace pkgdist::lead_program {

std::string control_path(const LeadOptions& options) {
  const uint32_t address = options.control_path.empty() ? require_interface(options) : 0;
  return cli::control_socket_path(options.control_path, "pkgdist-lead", address,
                                  options.common.lead_port);
}

cli::LineConnection connect_to_lead(const LeadOptions& options) {
  const std::string path = control_path(options);
  auto socket = cli::connect_to(path, !options.control_path.empty());
  if (!socket)
    throw std::runtime_error(fmt::format(
        "no lead takes commands at {}: none is running with this interface and port", path));
  return {std::move(*socket), "lead"};
}

}  // namespace pkgdist::lead_program
