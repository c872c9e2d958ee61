#include "option_parts.h"

namespace pkgdist::lead_program {

namespace {

// What a push of a release has no use for: what is pushed, and how, follows from the manifest.
constexpr const char* kOfOtherPushes[] = {"PATH",      "--files-from", "--exclude",
                                          "--include", "--dry-run",    "--type",
                                          "--force",   "--durable",    "--keep-directory-links",
                                          "--strict",  "--checksum"};

void add_policy(CLI::App& command, LeadOptions& options, const char* values) {
  command
      .add_option_function<std::string>(
          "--activate",
          [o = &options](const std::string& text) { o->activation = parse_policy(text); },
          "which nodes switch, and when: all once all are ready, those that are ready, or those "
          "once so many are")
      ->type_name(values);
}

void add_answer_options(CLI::App& command, LeadOptions& options) {
  LeadOptions* o = &options;
  command.fallthrough();
  command.footer(kNodesHelp);
  command
      .add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { set_nodes(*o, parse_node_list(text)); },
          "which nodes, or how many to wait for; without, those of the lead that serves here")
      ->type_name("N|NODE[,NODE...]");
  add_location(command, options);
  command
      .add_option("--timeout", options.answer_seconds,
                  "how long to wait for absent nodes, and for nodes that say nothing")
      ->type_name("SECONDS [10]")
      ->check(CLI::Range(0.1, 3600.0));
}

}  // namespace

void add_release_options(CLI::App& push, LeadOptions& options) {
  push.add_option("--release", options.release,
                  "push the signed release in this directory, and activate it (see "
                  "pkgdist-release)")
      ->type_name("DIR");
  add_policy(push, options, "all|those|N%|no [all]");
  push.add_flag("--verify", options.verify,
                "read the files of the release first, and push nothing when one is not as signed");
}

// By hand: --help would list them all with every option.
void check_release_options(const CLI::App& push) {
  const bool release = push.count("--release") != 0;
  for (const char* other : kOfOtherPushes)
    if (release && push.count(other) != 0) throw CLI::ExcludesError("--release", other);
  for (const char* own : {"--activate", "--verify"})
    if (!release && push.count(own) != 0) throw CLI::RequiresError(own, "--release");
}

void add_release_commands(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* activate =
      app.add_subcommand("activate", "switch nodes to a release that they have ready");
  add_answer_options(*activate, options);
  add_policy(*activate, options, "all|those|N% [all]");
  activate->add_option("NAME", options.release, "name of the release")->required();
  activate->add_option("VERSION", options.release_version, "its version")->required();
  activate->callback([o] { o->command = Command::kActivate; });

  CLI::App* releases = app.add_subcommand("releases", "list the nodes with their releases");
  add_answer_options(*releases, options);
  releases->add_flag("--verify", options.verify,
                     "have the nodes read what they run, and name what is not as it was signed");
  releases->callback([o] { o->command = Command::kReleases; });
}

}  // namespace pkgdist::lead_program
