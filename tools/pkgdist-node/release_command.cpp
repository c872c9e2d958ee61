// release: asks the node that runs on this host about its releases, or orders it to switch.
#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "json_events.h"
#include "release_report.h"
#include "running_node.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;

// Whether the state is what the command is for.
bool is_done(ReleaseCommand command, const Json& state) {
  const std::string phase = state.value("state", "");
  switch (command) {
    case ReleaseCommand::kActivate:
    case ReleaseCommand::kRollback:
      return phase == cli::phase_name(cli::ReleasePhase::kConfirmed);
    case ReleaseCommand::kVerify:
      return state.value("drifted", uint64_t{1}) == 0;
    case ReleaseCommand::kDowngrade:
      return phase != cli::phase_name(cli::ReleasePhase::kRefused);
    default:
      return true;
  }
}

}  // namespace

int release_command(const NodeOptions& options) {
  auto node = connect_to_node(options);
  if (!node) throw std::runtime_error(no_node_text(options));
  node->send({{"command", "release"},
              {"what", kReleaseCommands.at(static_cast<size_t>(options.release_command))},
              {"version", options.release_version},
              {"force", options.release_force}});
  std::optional<Json> state = next_line(*node);
  if (!state) throw cli::NotDone("interrupted; the node goes on");
  state->erase("event");
  const cli::JsonEvents json(options.common.json);
  json.print("installation", *state, cli::Output::Kind::kResult);
  if (!json.enabled())
    for (const std::string& line : release_lines(*state))
      cli::standard_output().line(line, cli::Output::Kind::kResult);
  return is_done(options.release_command, *state) ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::node_program
