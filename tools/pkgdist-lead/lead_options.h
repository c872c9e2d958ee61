// The command line of pkgdist-lead.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli_common.h"
#include "given_options.h"
#include "message_runner.h"
#include "pkgdist_lead/push.h"
#include "push_selection.h"
#include "release_policy.h"

namespace pkgdist::lead_program {

// Files of this type are received although the node has them: what is left of an earlier push in
// its place may have the same size and time.
inline constexpr uint32_t kTypeOfPresentFiles = 6;

enum class Command {
  kPush,
  kServe,
  kMessage,
  kCancel,
  kDelete,
  kReport,
  kTop,
  kStatus,
  kNodes,
  kPushes,
  kActivate,
  kReleases
};

struct LeadOptions {
  cli::CommonOptions common;
  Command command = Command::kPush;
  std::string control_path;    // of the control socket; empty: see control_path.h
  uint64_t rate_bits = 0;      // 0: the nodes set the pace
  uint64_t max_rate_bits = 0;  // 0: no ceiling
  std::optional<cli::Endpoint> metrics;
  double timeout_seconds = 30;
  double max_seconds = 0;  // of a push, 0: no limit
  lead::SlowNodes slow_nodes = lead::SlowNodes::kWait;
  bool durable = false;
  double durable_seconds = 60;  // how long nodes may take
  bool checksum = false;
  std::string checksum_key;  // file of a secret key; empty: nothing is signed
  bool keep_directory_links = false;
  bool strict = false;  // no push of a tree of which something cannot be sent
  bool top = false;     // full screen
  uint32_t ttl = 1;
  bool multi_homed = false;

  // push
  GivenOptions given;                          // but for those that it tells in other ways
  std::string push_name;                       // empty: made of the paths
  uint32_t node_count = 0;                     // with a number
  std::vector<uint32_t> nodes;                 // with a list
  std::map<uint32_t, std::string> node_names;  // of those that it gives by name
  uint32_t location = 1;                       // of delete, too
  uint32_t type = 1;
  uint32_t priority = 2;
  std::vector<std::string> paths;  // of delete, too
  std::string files_from;          // a file with more of them, empty: none
  NameFilter filter;
  std::string release;  // directory of one; empty: paths are pushed. activate: its name
  ActivationPolicy activation;
  bool verify = false;  // the tree of the release, and with `releases` what the nodes run
  bool dry_run = false;
  bool mirror = false;  // what the lead does not have goes
  bool quiet = false;

  uint64_t release_version = 0;  // activate

  // serve
  bool standby = false;
  double takeover_seconds = 8;
  cli::RunnerOptions on_message;

  // message, cancel: to `nodes` when there are any
  uint32_t message_class = 2;
  uint32_t card_class = 0;  // 0: everyone
  std::string message;
  std::string cancelled;       // name or number of a push, or number of a transaction
  bool recursive = false;      // delete
  double answer_seconds = 10;  // of delete, activate and releases, too

  // report, top
  std::string events_path;  // "-": standard input
  std::string page_path;
  double replay_speed = 0;  // 0: as the events stand
};

// The own address; throws when --interface was not given.
uint32_t require_interface(const LeadOptions& options);

// Adds commands and options to the program.
void add_lead_options(CLI::App& app, LeadOptions& options);

}  // namespace pkgdist::lead_program
