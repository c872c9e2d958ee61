// The pushes that a serving lead takes over its control socket: one runs, the others wait for it in
// the order in which they came, but not for the commands that nodes run at its end. Whoever asked
// for one is told how it stands; a client that goes away changes nothing.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "after_push.h"
#include "lead_events.h"
#include "line_server.h"
#include "node_programs.h"
#include "pkgdist_lead/directory_store.h"
#include "push_wire.h"

namespace pkgdist::lead_program {

class PushQueue {
 public:
  using Client = std::shared_ptr<cli::LineClient>;
  // How often a client hears how its push stands, and run() wants to be called.
  static constexpr lead::Time kTellPeriod = 200 * lead::kMillisecond;

  // `send_errors`: of the transport, so far.
  PushQueue(lead::Lead& lead, lead::DirectoryStore& store, EventTee& events, NodePrograms& programs,
            std::function<uint64_t()> send_errors);

  // Throws std::runtime_error when the push cannot be taken.
  void add(QueuedPush push, Client client, lead::Time now);
  // The client wants no more of its push.
  void stop(const Client& client, lead::Time now);
  // Or not for this node any longer.
  void stop_for(const Client& client, uint32_t node, lead::Time now);
  void run(lead::Time now);

  // By name or number; of those with one name the first that has not ended. Nothing when there is
  // none, else what became of it in words, and whether it was cancelled.
  struct Cancelled {
    bool done = false;
    std::string text;
  };
  std::optional<Cancelled> cancel(const std::string& which, lead::Time now);

  // Those that run and wait, and the last that have ended, as lines for the client.
  std::vector<Json> list(lead::Time now) const;
  // The names of those that run and wait, in this order.
  std::vector<std::string> names() const;
  // The name of the last push of which the node has every file; empty: none.
  std::string last_complete(uint32_t node) const;
  bool busy() const { return !waiting_.empty(); }

 private:
  struct Entry {
    uint32_t number = 0;
    QueuedPush push;
    Client client;
    lead::Time queued_at = 0;
    lead::Time began_at = 0;    // 0: waits
    lead::Time blocked_at = 0;  // since when another lead stands in the way
    lead::Time told_at = 0;
    uint32_t transaction = 0;
    lead::Counters before;
    uint64_t send_errors_before = 0;
    bool stopped = false;                    // by its client, or cancelled before it began
    std::optional<lead::PushReport> report;  // since the stream has ended
    std::unique_ptr<AfterPush> after;
    std::string usual_root;  // of the location, while a push with a root of its own runs
  };
  // What is remembered of a push that has ended.
  struct Past {
    uint32_t number = 0;
    std::string name, state;
    uint32_t transaction = 0;
    uint64_t files = 0, bytes = 0;
    size_t nodes = 0, complete = 0;
    lead::Time began_at = 0, ended_at = 0;
  };

  void begin(Entry& entry, lead::Time now);
  void say_hosts(const Entry& entry) const;
  void tell(Entry& entry, lead::Time now);
  bool blocked(Entry& entry, lead::Time now);
  void stream_ended(Entry& entry);
  void begin_after(Entry& entry, lead::PushReport report);
  void say_end(Entry& entry, const lead::Counters& counted);
  void drop_stopped(lead::Time now);
  void run_commands(lead::Time now);
  static void finish(std::list<Entry>& list);
  void remember(const Entry& entry, lead::Time now);

  lead::Lead& lead_;
  lead::DirectoryStore& store_;
  EventTee& events_;
  NodePrograms& programs_;
  const std::function<uint64_t()> send_errors_;
  std::list<Entry> waiting_;   // the first runs
  std::list<Entry> commands_;  // commands of nodes run for these
  std::deque<Past> past_;
  std::unordered_map<uint32_t, std::string> complete_;  // by node: the push that it has
  uint32_t last_number_ = 0;
};

}  // namespace pkgdist::lead_program
