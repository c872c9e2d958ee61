// Programs that watch the pushes of this lead, whoever asked for them, for as long as they like.
//
//   request   {"command":"watch"}, later perhaps {"stop_for":ADDRESS} for the push that runs
//   answers   {"event":"watching","version":TEXT}, {"event":"host","node":ADDRESS,"name":TEXT},
//             and again and again
//             {"event":"state","names":[NAME,...],"transaction":7,"report":{},"counters":[],
//              "rate_bits":8000000}                   a push that runs, or has just ended
//             {"event":"idle","names":[],"nodes":8}   none does
//
// The first of the names is the push that runs, or that is at its end on the nodes; the others
// wait. Reports and counters as in push_wire.h. A watcher is told progress alone: one that does not
// read costs a limited number of bytes.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include "line_server.h"
#include "node_programs.h"
#include "pkgdist_lead/lead.h"
#include "push_queue.h"

namespace pkgdist::lead_program {

class PushWatch {
 public:
  using Client = std::shared_ptr<cli::LineClient>;

  // `queue`: of the pushes; null in a process that has one of its own.
  PushWatch(lead::Lead& lead, NodePrograms& programs, const PushQueue* queue)
      : lead_(lead), programs_(programs), queue_(queue) {}

  void begin(const Client& client);
  // False when the client is no watcher.
  bool on_line(const Client& client, const nlohmann::ordered_json& line, lead::Time now);
  // To be called often, also without watchers: it notes when a push begins.
  void run(lead::Time now);
  size_t watchers() const { return watchers_.size(); }

 private:
  struct Watcher {
    Client client;
    std::map<uint32_t, std::string> hosts = {};  // that it was told
  };

  void follow_push();
  bool due(lead::Time now) const;
  nlohmann::ordered_json state() const;
  nlohmann::ordered_json idle() const;
  nlohmann::ordered_json names() const;
  void tell_hosts(Watcher& watcher) const;

  lead::Lead& lead_;
  NodePrograms& programs_;
  const PushQueue* const queue_;
  std::list<Watcher> watchers_;
  uint32_t transaction_ = 0;  // of the push that began last
  lead::Counters before_;     // what was counted when it began
  bool ran_ = false;          // a push, when watchers were told last
  lead::Time told_at_ = 0;
};

}  // namespace pkgdist::lead_program
