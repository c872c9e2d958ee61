#include "doctor_options.h"

#include <CLI/CLI.hpp>

namespace pkgdist::doctor {

void add_doctor_options(CLI::App& app, DoctorOptions& options) {
  DoctorOptions* o = &options;
  app.fallthrough();
  app.require_subcommand(1);
  cli::add_common_options(app, options.common, true);
  app.add_option("--seconds", options.seconds,
                 "how long to talk to the doctors of the other side; 0: look at this host only")
      ->type_name("SECONDS [6]")
      ->check(CLI::Range(0.0, 3600.0));
  app.add_option("--wait", options.wait_seconds, "how long to wait for the first of them")
      ->type_name("SECONDS [0]")
      ->check(CLI::Range(0.0, 3600.0));
  app.add_option_function<std::string>(
         "--peer", [o](const std::string& text) { o->peers = cli::parse_addresses(text); },
         "hosts of the other side whose doctors must be heard")
      ->type_name("ADDR[,ADDR...]");
  app.add_option("--receive-buffer", options.receive_buffer,
                 "socket buffer that the kernel must grant")
      ->type_name("BYTES [3145728, lead 8388608]")
      ->check(CLI::Range(1024u, 1u << 30));
  app.add_option("--need", options.need_bytes, "space that each storage location must have")
      ->type_name("BYTES [100000000]");
  app.add_option("--ttl", options.ttl, "the lead's: routers that multicast may pass, plus one")
      ->type_name("N [1]")
      ->check(CLI::Range(1, 255));
  app.add_subcommand("lead", "look at the host of a lead")->fallthrough()->callback([o] {
    o->role = Role::kLead;
  });
  app.add_subcommand("node", "look at the host of a node")->fallthrough()->callback([o] {
    o->role = Role::kNode;
  });
  app.footer(
      "Run it on the lead and on nodes at the same time: the doctors send each other probes at\n"
      "the groups and ports of pkgdist. A lead or node that runs is not disturbed; start none\n"
      "meanwhile.\n"
      "\n"
      "Exit status: 0 done, all is well; 1 not done, or not all of it: there are problems or\n"
      "warnings; 2 an argument is wrong; 3 nothing could be started, or examined.");
}

}  // namespace pkgdist::doctor
