// What the probes tell of the ways between here and the hosts of the other side, gathered by cause:
// one cause of trouble is told once, whatever number of ways and hosts it shows on.
//
// Rule for a way on which something is missing: nothing is said before three probes should have
// come, a way on which none came is blocked, and one that carries short probes but none of the full
// length has too small an MTU.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "conversation.h"
#include "finding.h"
#include "packet_filter.h"

namespace pkgdist::doctor {

enum class Cause {
  kNothingHeard,  // of a host that was named
  kNotHeard,      // there, of this host
  kMtu,
  kGroups,   // nothing comes by one or both groups
  kUnicast,  // nothing comes to a port of one host
  kLoss,
  kOtherSource,  // datagrams come from another address than the host's
  kOwnFilter,    // told from the rules of this host
};

struct Trouble {
  Cause cause = Cause::kLoss;
  bool incoming = true;
  std::set<Path> paths;
  std::vector<const Peer*> peers;
  uint64_t expected = 0, heard = 0;  // probes, on all of these ways together
};

const char* check_of(Cause cause);  // its word in findings

// Ways that datagrams of the other side come by to a host of the role, or go by from it.
std::vector<Path> incoming_paths(Role role);
std::vector<Path> outgoing_paths(Role role);

// The port at the receiving end of a way.
uint16_t port_of(const cli::CommonOptions& common, Path path, bool to_lead);

class Ways {
 public:
  Ways(const DoctorOptions& options, const Conversation& talk,
       const std::vector<BlockedPort>& blocked);

  // In the order of causes.
  const std::vector<Trouble>& troubles() const { return troubles_; }
  // A line for each host that was heard or named.
  const std::vector<HostLine>& hosts() const { return hosts_; }
  // Hosts of the other side that were heard.
  size_t heard() const { return heard_; }

 private:
  void judge(const Peer& peer);
  void judge_way(const Peer& peer, Path path, bool incoming, HostLine& line);
  bool is_blocked_here(Path path, bool incoming) const;
  void note(Cause cause, bool incoming, Path path, const Peer& peer, uint64_t expected,
            uint64_t heard);
  void merge(HostLine& line);

  const DoctorOptions& options_;
  const Conversation& talk_;
  const std::vector<BlockedPort>& blocked_;
  std::vector<Trouble> of_peer_;  // of the one that is judged
  std::vector<Trouble> troubles_;
  std::vector<HostLine> hosts_;
  size_t heard_ = 0;
};

}  // namespace pkgdist::doctor
