// pkgdist-doctor: diagnoses this host and its network for pkgdist and suggests fixes.
#include <CLI/CLI.hpp>
#include <set>

#include "identity_checks.h"
#include "network_checks.h"
#include "privilege_checks.h"
#include "storage_checks.h"

namespace pkgdist::doctor {

namespace {

// A group that nobody has: that of the control channel with other last bits.
uint32_t scratch_group(const cli::CommonOptions& common) {
  const uint32_t group = common.ctrl_group.address ^ 0x5F;
  return group != common.data_group.address ? group : common.ctrl_group.address ^ 0xAF;
}

// What this host alone tells.
Interface examine_host(const DoctorOptions& options, Findings& findings) {
  const Interface interface = check_interface(options, findings);
  check_ports(options, findings);
  check_receive_buffer(options, findings);
  if (options.role == Role::kNode) check_shared_memory(findings);
  check_locations(options, findings);
  return interface;
}

void examine_network(const DoctorOptions& options, const Interface& interface, Findings& findings) {
  const PacketFilter before;
  const std::vector<BlockedPort> blocked = check_filter(options, interface, before, findings);
  LinkWatch watch(interface, options.common.interface, scratch_group(options.common));
  Conversation talk(options, interface);
  check_membership(options, interface, talk, findings);
  talk.run(watch);
  const PacketFilter after;

  std::set<uint32_t> others(options.peers.begin(), options.peers.end());
  for (const Peer& peer : talk.peers())
    if (peer.role != options.role) others.insert(peer.address);
  check_routes(options, interface, others, findings);
  check_network({options, interface, talk, watch, before, after, blocked}, findings);
  check_leads(options, talk, findings);
  check_addresses(options, talk, watch, findings);
  check_privileges(watch, after, findings);
}

int examine(const DoctorOptions& options) {
  Findings findings(options.common.json, options.common.verbosity > 0);
  const Interface interface = examine_host(options, findings);
  if (interface.index == 0) return findings.finish();
  if (options.seconds > 0) {
    examine_network(options, interface, findings);
    return findings.finish();
  }
  check_mtu(interface, findings);
  (void)check_filter(options, interface, PacketFilter(), findings);
  check_routes(options, interface, {options.peers.begin(), options.peers.end()}, findings);
  findings.note("network", "the network was not examined: --seconds 0");
  return findings.finish();
}

}  // namespace

}  // namespace pkgdist::doctor

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Says whether pkgdist will work on this host and its network.", "pkgdist-doctor");
  doctor::DoctorOptions options;
  doctor::add_doctor_options(app, options);
  return cli::run_cli(app, argc, argv, [&] { return doctor::examine(options); });
}
