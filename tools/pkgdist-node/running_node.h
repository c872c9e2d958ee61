// The node that runs on this host: takes commands over its control socket, and how `get`, `send`
// and `status` reach it. One line of JSON asks, lines answer:
//   {"command":"get","paths":[BASE64,...],"location":1,"storage":BASE64,"type":1,"priority":2,
//    "timeout":60}
//     {"event":"file","path":BASE64,"location":1,"transaction":7,"status":0,"text":...}, ...
//     {"event":"done","left":0,"failed":0,"silent":false}
//   {"command":"send","class":2,"data":BASE64,"timeout":60}
//     {"event":"done","status":0,"text":"acknowledged","silent":false}
//   {"command":"status"}
//     {"event":"status",...}
//   {"command":"release","what":"downgrade","version":5}    or "status", "activate", ...
//     {"event":"installation",...}    when it is done
// "storage": where the client has the location, if it was told; another place than the node's is
// refused. "silent": nothing was heard for the time-out. Without a node, the commands start one of
// their own.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "event_printer.h"
#include "file_requests.h"
#include "lead_talk.h"
#include "line_connection.h"
#include "line_server.h"
#include "node.h"
#include "release_service.h"

namespace pkgdist::node_program {

// Of `run`. On the thread of the event loop.
class RunningNode {
 public:
  // Throws as cli::listen_on(). `releases`: null when the node takes none.
  RunningNode(const NodeOptions& options, Node& node, EventPrinter& printer, const LeadTalk& talk,
              ReleaseService* releases);
  ~RunningNode();
  RunningNode(const RunningNode&) = delete;
  RunningNode& operator=(const RunningNode&) = delete;

 private:
  class Job;
  class GetJob;
  class SendJob;
  class ReleaseJob;
  using Client = cli::LineServer::Client;

  bool on_line(const Client& client, const std::string& line);
  void say_status(cli::LineClient& client) const;
  void run();

  const NodeOptions& options_;
  Node& node_;
  EventPrinter& printer_;
  const LeadTalk& talk_;
  ReleaseService* const releases_;
  cli::Poller poller_;
  std::list<std::unique_ptr<Job>> jobs_;
  cli::LineServer server_;
};

// Null, with a warning, when the socket cannot be had: a node that takes no commands still
// receives.
std::unique_ptr<RunningNode> open_control(const NodeOptions& options, Node& node,
                                          EventPrinter& printer, const LeadTalk& talk,
                                          ReleaseService* releases);

// Nothing when no node runs with this address and port.
std::optional<cli::LineConnection> connect_to_node(const NodeOptions& options);
std::string no_node_text(const NodeOptions& options);
// The next line of the node; a refusal is thrown. Nothing when a stop signal came.
std::optional<nlohmann::ordered_json> next_line(cli::LineConnection& node);
// Each returns the exit status.
int get_through(cli::LineConnection& node, const NodeOptions& options);
int send_through(cli::LineConnection& node, const NodeOptions& options, const std::string& message);

// Where a location is, the same text for every way to write its path: a directory without links, or
// the prefix of names in memory.
std::string storage_of(const cli::Location& location);

}  // namespace pkgdist::node_program
