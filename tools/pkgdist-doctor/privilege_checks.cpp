#include "privilege_checks.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <linux/capability.h>

#include <fstream>
#include <set>

namespace pkgdist::doctor {

namespace {

bool has_capability(unsigned capability) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    constexpr std::string_view kEffective = "CapEff:";
    if (!line.starts_with(kEffective)) continue;
    const uint64_t mask = std::stoull(line.substr(kEffective.size()), nullptr, 16);
    return (mask >> capability & 1) != 0;
  }
  return false;
}

uint32_t first_unprivileged_port() {
  uint32_t port = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> port;
  return port;
}

}  // namespace

void check_privileges(const LinkWatch& watch, const PacketFilter& filter, Findings& findings) {
  std::vector<std::string> unseen;
  if (!watch.obstacle().empty())
    unseen.push_back(
        fmt::format("other hosts with one address, an IGMP querier ({})", watch.obstacle()));
  if (!filter.readable())
    unseen.push_back(has_capability(CAP_NET_ADMIN)
                         ? "the packet filter (neither nft nor iptables-save can be run)"
                         : "the packet filter (needs CAP_NET_ADMIN)");
  if (unseen.empty()) {
    findings.ok("privileges", "the link and the packet filter can be looked at");
    return;
  }
  findings.note("privileges", fmt::format("not checked: {}", fmt::join(unseen, "; ")),
                "run the doctor as root; lead and node need no privileges");
}

void check_ports(const DoctorOptions& options, Findings& findings) {
  const cli::CommonOptions& common = options.common;
  const uint32_t first = first_unprivileged_port();
  std::set<uint16_t> low;
  const bool lead = options.role == Role::kLead;
  const auto look = [&](uint16_t port) {
    if (port < first) low.insert(port);
  };
  look(common.ctrl_group.port);
  look(lead ? common.lead_port : common.node_port);
  look(lead ? common.req_port : common.data_group.port);
  if (low.empty() || has_capability(CAP_NET_BIND_SERVICE)) return;
  findings.add({Level::kProblem, "privileges",
                fmt::format("port{} {} below {} cannot be opened without CAP_NET_BIND_SERVICE",
                            low.size() == 1 ? "" : "s", fmt::join(low, ", "), first),
                fmt::format("the {} ends when it starts", role_name(options.role)),
                "use ports from 1024 on, or AmbientCapabilities=CAP_NET_BIND_SERVICE in the unit"});
}

}  // namespace pkgdist::doctor
