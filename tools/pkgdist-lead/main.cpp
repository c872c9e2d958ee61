// pkgdist-lead: brings files to the nodes of a cluster (push), answers their requests (serve), and
// has a lead that runs send them messages and lists to cancel and to delete.
#include <CLI/CLI.hpp>

#include "commands.h"
#include "descriptor_table.h"
#include "push_page.h"

int main(int argc, char** argv) {
  using namespace pkgdist;
  using lead_program::Command;
  CLI::App app("Distributes files to the nodes of a cluster over multicast.", "pkgdist-lead");
  lead_program::LeadOptions options;
  lead_program::add_lead_options(app, options);
  return cli::run_cli(app, argc, argv, [&] {
    lead_program::make_room_for_descriptors();
    if (options.command == Command::kPush)
      return options.release.empty() ? lead_program::push_command(options)
                                     : lead_program::push_release_command(options);
    if (options.command == Command::kActivate) return lead_program::activate_command(options);
    if (options.command == Command::kReleases) return lead_program::releases_command(options);
    if (options.command == Command::kServe) return lead_program::serve_command(options);
    if (options.command == Command::kReport)
      return lead_program::report_command(options.events_path, options.page_path);
    if (options.command == Command::kTop) return lead_program::top_command(options);
    if (options.command == Command::kStatus || options.command == Command::kNodes ||
        options.command == Command::kPushes)
      return lead_program::list_command(options);
    return lead_program::request_command(options);
  });
}
