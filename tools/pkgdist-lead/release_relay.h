// Commands about releases that run in other processes of this host: the lead that serves sends
// their orders, and tells them what every node says.
//
//   request   {"command":"releases"}, then as often as needed
//             {"order":TEXT,"nodes":[ADDRESS,...]}    the message of release_messages.h
//             {"heard":LOCATION}
//   answers   {"event":"release-told","node":ADDRESS,"state":TEXT}
//             {"event":"heard","takers":[ADDRESS,...],"others":[ADDRESS,...],
//              "names":[[ADDRESS,NAME],...]}    of HeardNodes
// until the client goes.
#pragma once

#include <list>
#include <memory>

#include "line_server.h"
#include "node_programs.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

class ReleaseRelay {
 public:
  using Client = std::shared_ptr<cli::LineClient>;

  ReleaseRelay(lead::Lead& lead, NodePrograms& programs);
  ~ReleaseRelay();
  ReleaseRelay(const ReleaseRelay&) = delete;
  ReleaseRelay& operator=(const ReleaseRelay&) = delete;

  void begin(const Client& client);
  // False when the client has no such conversation. Throws when the line makes no sense.
  bool on_line(const Client& client, const nlohmann::ordered_json& line, lead::Time now);
  // Lets go of clients that have gone.
  void run();

 private:
  lead::Lead& lead_;
  NodePrograms& programs_;
  std::list<Client> clients_;
};

}  // namespace pkgdist::lead_program
