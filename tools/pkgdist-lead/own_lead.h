// A lead of this process's own, that lives as long as the command: it pushes, one thing after the
// other, and does meanwhile what every lead does.
#pragma once

#include <functional>
#include <memory>

#include "control_server.h"
#include "lead_options.h"
#include "metrics.h"
#include "node_programs.h"
#include "push_run.h"
#include "reporter.h"
#include "session.h"

namespace pkgdist::lead_program {

class OwnLead {
 public:
  // Throws as open_session().
  OwnLead(const LeadOptions& options, Reporter& reporter);

  // Pushes, and shows it with these options, until it has ended or a signal came. Throws
  // CLI::ValidationError when the lead refuses it.
  PushEnd push(const LeadOptions& options, const lead::PushRequest& request, PushView& view);
  // Runs until `done` says so, called every `tick` at least. False when a signal came first.
  bool run(const std::function<bool(lead::Time now)>& done, lead::Time tick);

  lead::Lead& lead() { return session_->lead(); }
  lead::DirectoryStore& store() { return session_->store(); }
  NodePrograms& programs() { return programs_; }

 private:
  void open_doors();

  const LeadOptions& options_;
  Reporter& reporter_;
  const std::unique_ptr<Session> session_;
  NodePrograms programs_;
  bool open_ = false;
  std::unique_ptr<ControlServer> control_;
  std::unique_ptr<Metrics> metrics_;
};

}  // namespace pkgdist::lead_program
