// The control socket of a running lead: takes requests from programs of the same user on the same
// host and tells them what became of them (control_protocol.h).
#pragma once

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "control_request.h"
#include "line_server.h"
#include "push_queue.h"
#include "push_watch.h"
#include "release_relay.h"
#include "session.h"

namespace pkgdist::lead_program {

class ControlServer {
 public:
  // `queue`: takes pushes; null in a process that has one of its own. Throws as cli::listen_on().
  ControlServer(const std::string& path, const LeadOptions& options, Session& session,
                NodePrograms& programs, Reporter& reporter, PushQueue* queue);

  // Starts what waited, pushes among it, and answers what has ended.
  void run(lead::Time now);
  // A request has not been answered, or not wholly. Those who watch ask for nothing.
  bool busy() const { return server_.clients() > watch_.watchers(); }

 private:
  using Client = cli::LineServer::Client;

  bool on_line(const Client& client, const std::string& line);
  bool on_command(const Client& client, const std::string& command, const std::string& line);
  void on_push_line(const Client& client, const nlohmann::ordered_json& line);
  void check_root(const QueuedPush& push) const;
  bool cancel_push(const Client& client, const nlohmann::ordered_json& request);
  void require_leading() const;
  void say_status(cli::LineClient& client) const;
  void say_nodes(cli::LineClient& client) const;
  void say_pushes(cli::LineClient& client) const;

  const LeadOptions& options_;
  Session& session_;
  lead::Lead& lead_;
  NodePrograms& programs_;
  Reporter& reporter_;
  PushQueue* const queue_;
  std::optional<ReleaseRelay> releases_;  // with a queue
  PushWatch watch_;
  const lead::Time began_at_;
  std::map<Client, PushReader> readers_;  // pushes that are not whole yet
  std::list<ControlRequest> requests_;
  lead::Time now_ = 0;
  cli::LineServer server_;
};

// The control socket of a session, at --control or at its usual place. Null, with a warning, when
// the usual place cannot be had: a lead that takes no commands can still distribute files. Throws
// cli::SocketTaken when another lead has it.
std::unique_ptr<ControlServer> open_control(const LeadOptions& options, Session& session,
                                            NodePrograms& programs, Reporter& reporter,
                                            PushQueue* queue = nullptr);

}  // namespace pkgdist::lead_program
