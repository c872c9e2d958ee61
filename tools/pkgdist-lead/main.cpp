// pkgdist-lead: brings files to the nodes of a cluster (push), or answers their requests (serve).
#include "commands.h"

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Distributes files to the nodes of a cluster over multicast.", "pkgdist-lead");
  lead_program::LeadOptions options;
  lead_program::add_lead_options(app, options);
  return cli::run_cli(app, argc, argv, [&] {
    return options.serve ? lead_program::serve_command(options)
                         : lead_program::push_command(options);
  });
}
