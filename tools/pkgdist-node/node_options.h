// Options of pkgdist-node.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "cli_common.h"
#include "message_runner.h"

namespace pkgdist::node_program {

enum class Command { kRun, kGet, kSend, kFirewall, kStatus, kRelease };

// Of run, when the node takes signed releases and nothing else.
struct ReleaseOptions {
  uint32_t location = 1;
  std::string name;      // of the releases; empty: no release mode
  std::string place;     // directory where they are installed
  std::string keys;      // file or directory
  size_t threshold = 1;  // signatures by so many of these keys
  std::string state_directory;
  bool hard_links = false;
  bool enforce_expiry = false;
  std::string health;  // shell command; empty: none
  double health_seconds = 60;
};

// What `release` asks the node for that runs.
enum class ReleaseCommand { kStatus, kActivate, kRollback, kVerify, kDowngrade };
// Their names, in this order.
inline constexpr std::array kReleaseCommands{"status", "activate", "rollback", "verify",
                                             "downgrade"};

struct NodeOptions {
  cli::CommonOptions common;
  Command command = Command::kRun;
  std::string control_path;         // of the control socket; empty: see running_node.h
  uint32_t node_id[3] = {0, 0, 0};  // the last three octets of the address unless given
  bool node_id_given = false;
  uint32_t card_class = PKGDIST_DEFAULT_CARD_CLASS;

  uint32_t umask = 022;  // permission bits that nothing gets which this process makes
  bool allow_setuid = false;

  // run
  uint32_t repair_interval_ms = 100;
  cli::RunnerOptions on_message;
  cli::RunnerOptions on_complete;
  ReleaseOptions releases;
  std::string push_keys;  // file or directory; empty: nobody has to sign a push

  // get
  std::vector<std::string> paths;
  uint32_t location = 1;
  uint32_t type = 1;
  uint32_t priority = 2;
  double timeout_seconds = 60;

  // send
  uint32_t message_class = 2;
  std::string message;

  // release
  ReleaseCommand release_command = ReleaseCommand::kStatus;
  uint64_t release_version = 0;  // of downgrade
  bool release_force = false;    // of rollback

  // firewall
  std::vector<uint32_t> leads;
};

// What was given, or the last three octets of the address.
std::array<uint32_t, 3> node_id_of(const NodeOptions& options);

void add_node_options(CLI::App& app, NodeOptions& options);

}  // namespace pkgdist::node_program
