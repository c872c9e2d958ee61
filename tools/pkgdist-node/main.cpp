// pkgdist-node: receives what the lead pushes (run), asks it for files (get), sends it a message
// (send), or shows the state of the running node (status, release); or prints packet filter rules
// for its host (firewall).
#include <CLI/CLI.hpp>

#include "commands.h"

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Receives files and messages from the lead of a cluster.", "pkgdist-node");
  node_program::NodeOptions options;
  node_program::add_node_options(app, options);
  return cli::run_cli(app, argc, argv, [&] {
    switch (options.command) {
      case node_program::Command::kGet:
        return node_program::get_command(options);
      case node_program::Command::kSend:
        return node_program::send_command(options);
      case node_program::Command::kStatus:
        return node_program::status_command(options);
      case node_program::Command::kRelease:
        return node_program::release_command(options);
      case node_program::Command::kFirewall:
        return node_program::firewall_command(options);
      default:
        return node_program::run_command(options);
    }
  });
}
