// What several commands' options have in common, for the files that add them.
#pragma once

#include <CLI/CLI.hpp>

#include "lead_options.h"
#include "node_list.h"

namespace pkgdist::lead_program {

inline constexpr const char* kNodesHelp =
    "NODE is an address, a host name, names with a range as in node[01-32], or @FILE or\n"
    "@FILE:GROUP for the nodes that a file lists.";

inline void set_nodes(LeadOptions& options, NodeList list) {
  options.node_count = list.count;
  options.nodes = std::move(list.addresses);
  options.node_names = std::move(list.names);
}

inline CLI::Option* add_location(CLI::App& command, LeadOptions& options) {
  return command.add_option("--to", options.location, "storage location")
      ->type_name("1..6 [1]")
      ->check(CLI::Range(1, 6));
}

// To `push`.
void add_release_options(CLI::App& push, LeadOptions& options);
// Once parsed. Throws CLI::ParseError for options that do not go together.
void check_release_options(const CLI::App& push);
// activate, releases
void add_release_commands(CLI::App& app, LeadOptions& options);

}  // namespace pkgdist::lead_program
