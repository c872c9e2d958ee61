// The control socket of a running lead: takes requests from programs of the same user on the same
// host and tells them what became of them.
//
// The socket's mode keeps other users out. Beyond that: few connections, one request on each, lines
// of bounded length, and no connection that dawdles over its request or its answer.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "control_protocol.h"
#include "pkgdist_lead/lead.h"
#include "poller.h"
#include "reporter.h"
#include "session.h"

namespace pkgdist::lead_program {

class ControlServer {
 public:
  // Throws std::runtime_error when the socket cannot be had, for instance because another lead
  // listens on it. A socket that nobody listens on is replaced.
  ControlServer(const std::string& path, Poller& poller, lead::Lead& lead, Reporter& reporter);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Starts what waited and answers what has ended.
  void run(lead::Time now);
  // A request has not been answered, or not wholly.
  bool busy() const { return !connections_.empty(); }

 private:
  struct Connection {
    Fd fd;
    std::string in;
    std::string out;
    lead::Time since = 0;
    lead::Time taken = 0;    // when the client last took something, or had nothing to take
    std::string line;        // the request, until it was started
    lead::MessageId id = 0;  // of the message that it became
    bool complete = false;   // the answer; nothing more follows
    bool broken = false;
  };

  void accept();
  void on_ready(Connection& connection);
  void receive(Connection& connection);
  void flush(Connection& connection);
  void start(Connection& connection, lead::Time now);
  void answer(Connection& connection);
  void say(Connection& connection, const nlohmann::ordered_json& line);
  void refuse(Connection& connection, const std::string& text);

  std::string path_;
  Poller& poller_;
  lead::Lead& lead_;
  Reporter& reporter_;
  Fd listener_;
  ino_t inode_ = 0;
  std::list<Connection> connections_;
};

// The control socket of a session, at --control or at its usual place. Null, with a warning, when
// the usual place cannot be had: a lead that takes no commands can still distribute files.
std::unique_ptr<ControlServer> open_control(const LeadOptions& options, Session& session,
                                            Reporter& reporter);

}  // namespace pkgdist::lead_program
