// pkgdist-doctor: diagnoses this host and its network for pkgdist and suggests fixes.
#include <set>

#include "network_checks.h"
#include "storage_checks.h"

namespace pkgdist::doctor {

namespace {

// A group that nobody has: that of the control channel with other last bits.
uint32_t scratch_group(const cli::CommonOptions& common) {
  const uint32_t group = common.ctrl_group.address ^ 0x5F;
  return group != common.data_group.address ? group : common.ctrl_group.address ^ 0xAF;
}

int examine(const DoctorOptions& options) {
  Findings findings(options.common.json);
  const Interface interface = check_interface(options, findings);
  check_receive_buffer(options, findings);
  if (options.role == Role::kNode) check_shared_memory(findings);
  check_locations(options, findings);
  if (interface.index == 0) return findings.finish();

  std::set<uint32_t> others(options.peers.begin(), options.peers.end());
  const auto check_routes = [&] {
    for (const uint32_t address : others) check_route(options, interface, address, findings);
  };
  if (options.seconds == 0) {
    check_routes();
    findings.note("network", "the network was not examined: --seconds 0");
    return findings.finish();
  }
  const PacketFilter before;
  LinkWatch watch(interface, options.common.interface, scratch_group(options.common));
  Conversation talk(options, interface);
  check_membership(options, interface, talk, findings);
  talk.run(watch);
  const PacketFilter after;

  for (const Peer& peer : talk.peers())
    if (peer.role != options.role) others.insert(peer.address);
  check_routes();
  check_network({options, interface, talk, watch, before, after}, findings);
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
