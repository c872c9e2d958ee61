// The talk with the doctors of the other side: probes on every way that pkgdist's datagrams go, and
// what came of them here and there. Leads are listened to on the way.
//
// The sockets are opened as those of the lead and of the library, but never so that datagrams of a
// lead or node that runs on this host would be taken from it: what is in use is left out.
#pragma once

#include <netinet/in.h>

#include <map>
#include <memory>

#include "descriptor.h"
#include "host_checks.h"
#include "link_watch.h"
#include "probe.h"

namespace pkgdist::doctor {

// A doctor that was heard, or is to be heard (token 0).
struct Peer {
  uint32_t address = 0;
  uint64_t token = 0;
  Role role = Role::kLead;
  uint32_t pid = 0;
  uint32_t source = 0;  // that its unicast datagrams come from, when it is not its address
  uint32_t listens = 0;
  double first = 0, last = 0;  // seconds since the beginning
  Counts sent{};               // to it
  // How many it had sent when it was first heard, how many lately, and how many came.
  Counts began{}, now{}, heard{};
  Tally tally;  // what it says of us
  bool told = false;

  Counts expected() const;
};

struct HeardLead {
  uint32_t address = 0;
  uint32_t pid = 0;
  uint64_t pings = 0;
  double first = 0, last = 0;  // seconds since the beginning
};

class Conversation {
 public:
  Conversation(const DoctorOptions& options, const Interface& interface);

  // Talks for the time of the options; `watch` is run beside it, and hears of whom there is.
  void run(LinkWatch& watch);

  double seconds() const { return seconds_; }
  uint64_t token() const { return token_; }
  const std::vector<Peer>& peers() const { return peers_; }
  const std::map<std::pair<uint32_t, uint32_t>, HeardLead>& leads() const { return leads_; }
  // Why what comes on a path could not be heard here; empty when it could.
  const std::string& deaf(Path path) const { return deaf_[path]; }
  // Error number of the last probe of a path that could not be sent, 0 for none.
  int send_error(Path path) const { return errors_[path]; }
  // Another doctor with our role and address said this.
  bool another_of_us() const { return another_of_us_; }
  const std::string& join_error(bool data) const { return join_error_[data ? 1 : 0]; }

 private:
  struct Ear {
    Descriptor socket;
    bool control_group = false;
  };
  void open_lead();
  void open_node();
  void listen_to_group(cli::Endpoint group, bool data);
  void listen_to(uint32_t address, uint16_t port, std::initializer_list<Path> paths);
  bool port_in_use(uint32_t address, uint16_t port) const;
  void send_round();
  void send(Path path, Peer* peer);  // no peer: to all
  sockaddr_in destination(Path path, uint32_t host) const;
  Probe probe_for(Path path, const Peer* peer);
  void receive(const Ear& ear);
  void introduce(LinkWatch& watch) const;
  void take(const Probe& probe, uint32_t source);
  void take_ping(const uint8_t* bytes, size_t length);
  Peer& peer_of(const Probe& probe);

  const DoctorOptions& options_;
  uint64_t token_ = 0;
  double seconds_ = 0;
  double last_new_ = 0;  // when the last peer was heard first
  Descriptor mouth_;
  std::vector<Ear> ears_;
  std::array<std::string, kPaths> deaf_;
  std::array<std::string, 2> join_error_;
  std::array<int, kPaths> errors_{};
  Counts sent_{};  // to all
  std::vector<Peer> peers_;
  size_t turn_ = 0;       // the next peer to be mentioned to all
  size_t next_peer_ = 0;  // to get probes of its own
  std::map<std::pair<uint32_t, uint32_t>, HeardLead> leads_;
  bool another_of_us_ = false;
};

}  // namespace pkgdist::doctor
