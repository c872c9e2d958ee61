#include "ways.h"

#include <algorithm>

namespace pkgdist::doctor {

namespace {

constexpr uint64_t kEnoughProbes = 3;
// A datagram or two may be on the way when the counts are compared.
constexpr uint64_t kOnTheWay = 2;
constexpr double kTolerableLoss = 0.02;

// The same way with short probes.
Path short_of(Path path) {
  return path == kControlFull   ? kControl
         : path == kDataFull    ? kData
         : path == kUnicastFull ? kUnicast
                                : path;
}

double loss(uint64_t expected, uint64_t heard) {
  const uint64_t arrived = heard + kOnTheWay;
  return arrived >= expected ? 0 : 1 - static_cast<double>(arrived) / static_cast<double>(expected);
}

// Ways of these causes are one thing in either direction.
bool is_of_both_directions(Cause cause) {
  return cause == Cause::kMtu || cause == Cause::kOwnFilter;
}
// Of these it matters which ways they are: another set of ways has another cause.
bool depends_on_paths(Cause cause) {
  return cause == Cause::kGroups || cause == Cause::kUnicast;
}

}  // namespace

const char* check_of(Cause cause) {
  switch (cause) {
    case Cause::kMtu:
      return "mtu";
    case Cause::kGroups:
      return "multicast";
    case Cause::kUnicast:
      return "unicast";
    case Cause::kLoss:
      return "loss";
    case Cause::kOtherSource:
      return "route";
    case Cause::kOwnFilter:
      return "filter";
    default:
      return "network";
  }
}

std::vector<Path> incoming_paths(Role role) {
  if (role == Role::kLead) return {kControl, kUnicast, kUnicastFull, kRequest};
  return {kControl, kControlFull, kData, kDataFull, kUnicast, kUnicastFull};
}

std::vector<Path> outgoing_paths(Role role) {
  return incoming_paths(role == Role::kLead ? Role::kNode : Role::kLead);
}

uint16_t port_of(const cli::CommonOptions& common, Path path, bool to_lead) {
  switch (path) {
    case kControl:
    case kControlFull:
      return common.ctrl_group.port;
    case kData:
    case kDataFull:
      return common.data_group.port;
    case kRequest:
      return common.req_port;
    default:
      return to_lead ? common.lead_port : common.node_port;
  }
}

Ways::Ways(const DoctorOptions& options, const Conversation& talk,
           const std::vector<BlockedPort>& blocked)
    : options_(options), talk_(talk), blocked_(blocked) {
  for (const Peer& peer : talk.peers())
    if (peer.role != options.role) judge(peer);
  std::stable_sort(troubles_.begin(), troubles_.end(),
                   [](const Trouble& a, const Trouble& b) { return a.cause < b.cause; });
}

void Ways::judge(const Peer& peer) {
  HostLine line;
  line.host = cli::format_address(peer.address);
  of_peer_.clear();
  if (peer.first == 0) {
    note(Cause::kNothingHeard, true, kControl, peer, 0, 0);
    merge(line);
    return;
  }
  ++heard_;
  for (const Path path : incoming_paths(options_.role))
    if (talk_.deaf(path).empty()) judge_way(peer, path, true, line);
  for (const Path path : outgoing_paths(options_.role))
    if ((peer.listens >> path & 1) != 0 && peer.told) judge_way(peer, path, false, line);
  if (!peer.told) note(Cause::kNotHeard, false, kControl, peer, 0, 0);
  if (peer.source != 0) note(Cause::kOtherSource, true, kUnicast, peer, 0, 0);
  merge(line);
}

void Ways::judge_way(const Peer& peer, Path path, bool incoming, HostLine& line) {
  const Counts counts = incoming ? peer.expected() : peer.tally.expected;
  const Counts& heard = incoming ? peer.heard : peer.tally.heard;
  const uint64_t expected = counts[path];
  ++line.ways;
  const bool known = expected >= kEnoughProbes;
  const double lost = known && heard[path] == 0 ? 1 : loss(expected, heard[path]);
  line.lost_percent = std::max(line.lost_percent, 100 * lost);
  if (known && heard[path] == 0) {
    const bool short_ones_come = heard[short_of(path)] != 0;
    Cause cause = path < kGroupPaths ? Cause::kGroups : Cause::kUnicast;
    if (short_of(path) != path && short_ones_come) cause = Cause::kMtu;
    if (is_blocked_here(path, incoming)) cause = Cause::kOwnFilter;
    note(cause, incoming, path, peer, expected, 0);
  } else if (known && loss(expected, heard[path]) > kTolerableLoss) {
    note(Cause::kLoss, incoming, path, peer, expected, heard[path]);
  } else {
    ++line.good_ways;
  }
}

bool Ways::is_blocked_here(Path path, bool incoming) const {
  const bool to_lead = incoming == (options_.role == Role::kLead);
  const uint16_t port = port_of(options_.common, path, to_lead);
  return std::any_of(blocked_.begin(), blocked_.end(), [&](const BlockedPort& one) {
    return one.incoming == incoming && one.port == port;
  });
}

void Ways::note(Cause cause, bool incoming, Path path, const Peer& peer, uint64_t expected,
                uint64_t heard) {
  const auto same = [&](const Trouble& one) {
    return one.cause == cause && (is_of_both_directions(cause) || one.incoming == incoming);
  };
  auto at = std::find_if(of_peer_.begin(), of_peer_.end(), same);
  if (at == of_peer_.end()) at = of_peer_.insert(at, {cause, incoming, {}, {&peer}, 0, 0});
  at->paths.insert(depends_on_paths(cause) ? short_of(path) : path);
  at->expected += expected;
  at->heard += heard;
}

// The same trouble of several hosts is one.
void Ways::merge(HostLine& line) {
  for (const Trouble& one : of_peer_) {
    line.troubles.emplace_back(check_of(one.cause));
    const auto same = [&](const Trouble& other) {
      return other.cause == one.cause &&
             (is_of_both_directions(one.cause) || other.incoming == one.incoming) &&
             (!depends_on_paths(one.cause) || other.paths == one.paths);
    };
    const auto at = std::find_if(troubles_.begin(), troubles_.end(), same);
    if (at == troubles_.end()) {
      troubles_.push_back(one);
      continue;
    }
    at->paths.insert(one.paths.begin(), one.paths.end());
    at->peers.insert(at->peers.end(), one.peers.begin(), one.peers.end());
    at->expected += one.expected;
    at->heard += one.heard;
  }
  hosts_.push_back(line);
}

}  // namespace pkgdist::doctor
