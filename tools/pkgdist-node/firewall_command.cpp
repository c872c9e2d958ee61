// firewall: prints packet filter rules by which only certain leads reach this host's node. The
// sockets that they protect belong to the library, and come and go with the files; rules of the
// host cover them all, and the time before and after the process.
#include <fmt/core.h>
#include <fmt/ranges.h>

#include "commands.h"
#include "output.h"

namespace pkgdist::node_program {

int firewall_command(const NodeOptions& options) {
  const cli::CommonOptions& common = options.common;
  std::vector<std::string> leads;
  for (const uint32_t lead : options.leads) leads.push_back(cli::format_address(lead));
  // A table is declared before it is deleted, so that the rules can be loaded again.
  cli::standard_output().write(
      fmt::format("table ip pkgdist-node\n"
                  "delete table ip pkgdist-node\n"
                  "table ip pkgdist-node {{\n"
                  "  chain input {{\n"
                  "    type filter hook input priority 0; policy accept;\n"
                  "    ip saddr != {{ {} }} udp dport {{ {}, {}, {} }} counter drop\n"
                  "  }}\n"
                  "}}\n",
                  fmt::join(leads, ", "), common.ctrl_group.port, common.data_group.port,
                  common.node_port),
      cli::Output::Kind::kResult);
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
