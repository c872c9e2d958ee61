// A running lead: sockets, content roots and the loop around the protocol core.
#pragma once

#include <functional>
#include <memory>
#include <set>

#include "lead_options.h"
#include "network_interface.h"
#include "pkgdist_lead/directory_store.h"
#include "pkgdist_lead/lead.h"
#include "pkgdist_lead/udp_transport.h"
#include "poller.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class Session {
 public:
  // Throws std::system_error when a socket cannot be had.
  // `events`: those of the lead; usually the reporter itself.
  Session(const LeadOptions& options, Reporter& reporter, lead::Events& events);

  lead::Lead& lead() { return *lead_; }
  lead::DirectoryStore& store() { return store_; }
  lead::UdpTransport& transport() { return transport_; }
  cli::Poller& poller() { return poller_; }

  // Whether other leads can be heard; warns when not.
  bool hears_leads(Reporter& reporter) const;

  // Runs until `done` says so, called every `tick` at least. False when a signal ended it.
  bool run(const std::function<bool(lead::Time now)>& done, lead::Time tick);

 private:
  void follow_interface(Reporter& reporter);
  void tell_send_error();

  Reporter& reporter_;
  cli::Poller poller_;
  bool stopped_ = false;
  cli::InterfaceWatch interface_;  // before the sockets: nothing is missed
  lead::DirectoryStore store_;
  lead::UdpTransport transport_;
  std::unique_ptr<lead::Lead> lead_;
  std::set<int> told_errors_;  // why datagrams were not sent, as far as that was told
};

// Throws std::runtime_error that names the process which has the ports already.
std::unique_ptr<Session> open_session(const LeadOptions& options, Reporter& reporter,
                                      lead::Events& events);

}  // namespace pkgdist::lead_program
