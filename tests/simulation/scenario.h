// What one run of the simulation does, drawn from its seed: who is there, what the network is like,
// which files the lead has, and what happens when.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wire_frame.h"

namespace pkgdist::sim {

inline constexpr uint64_t kMillisecond = 1'000'000;
inline constexpr uint64_t kSecond = 1'000'000'000;

// How a file may be used, so that the judge knows what to expect of it.
enum class Role : uint8_t {
  kShared,   // pushed and asked for by anybody, at any time
  kDeleted,  // also deleted by the lead
  kOwn,      // asked for by one node only, which also cancels
  kClash,    // stands in the way of another file, or another of it
};

struct FileSpec {
  std::string name;
  uint32_t location = 1;
  Role role = Role::kShared;
  bool symlink = false;
  uint32_t owner = 0;  // node, of kOwn
  uint32_t size = 0;
  uint32_t mode = 0644;
};

enum class Deed : uint8_t {
  kPush,          // files; mask of nodes, 0 for all; type
  kGet,           // one file; node; type
  kGetUnknown,    // node: a file that the lead does not have
  kGetAndCancel,  // one file; node; cancelled after `number` ns
  kDelete,        // files
  kCancelPush,
  kUpdate,       // one file gets another content
  kBreak,        // one file cannot be read (`number`: how), or again
  kMessage,      // to nodes: mask, 0 for everyone; number: bytes; unicast when type is 1
  kNodeMessage,  // node; number: bytes
  kKillNode,
  kStopNode,  // with its callbacks run
  kStartNode,
  kKillLead,
  kStartLead,
  kSuspendLead,
  kResumeLead,
  kOutage,  // node; type: bit 0 what it receives, bit 1 what it sends
  kOutageOver,
  kSplit,  // mask of nodes that hear only lead 1, the others only lead 0
  kSplitOver,
};

struct Action {
  uint64_t at = 0;  // after the start
  Deed deed = Deed::kPush;
  uint32_t who = 0;  // node or lead
  uint32_t mask = 0;
  uint32_t type = 0;
  uint64_t number = 0;
  std::vector<size_t> files;
};

struct Network {
  double loss_down = 0, loss_up = 0;
  double burst = 0;
  double duplicates = 0;
  double reorder = 0;
  uint64_t jitter_ns = 0;
  // Of each node's port at the switch; 0: no queue there.
  uint64_t port_bytes = 0;
  double port_bits_per_second = 0;
  // Of each node's socket, and how fast the node takes data from it; 0: no queue there.
  uint64_t socket_bytes = 0;
  double node_bytes_per_second = 0;
};

struct Scenario {
  uint64_t seed = 0;
  bool calm = false;  // nothing is lost and nobody dies: everything must succeed
  uint32_t nodes = 1;
  bool standby = false;
  Network network;
  uint32_t segment_size = 1400;
  uint64_t rate_bits = 0;
  std::vector<FileSpec> files;
  std::vector<Action> actions;        // in the order of time
  uint64_t chaos_ends = 0;            // then everything heals
  std::vector<uint64_t> node_clocks;  // ahead by
  uint64_t lead_clocks[2] = {};
  uint64_t wall_seconds[2] = {};
  uint32_t yields_per_mille = 0;
  uint64_t caller_lag = 0;
  bool forgets_at_once = false;  // nodes, how files ended
};

Scenario draw_scenario(uint64_t seed);

// For people.
std::string describe(const Scenario& scenario);
std::string describe(const Scenario& scenario, const Action& action);

}  // namespace pkgdist::sim
