// What `push` does whether the push runs in this process or in a lead that serves: what is pushed,
// and what is told of it in the end.
#pragma once

#include <nlohmann/json.hpp>

#include "lead_options.h"
#include "pkgdist_lead/directory_store.h"
#include "push_view.h"
#include "push_wire.h"
#include "reporter.h"

namespace pkgdist::lead_program {

// How a push ended.
struct PushEnd {
  lead::PushReport report;
  lead::Counters counters;
  uint64_t send_errors = 0;
  bool began = true;         // false: cancelled while it waited for others
  bool interrupted = false;  // by a signal to this process
  uint32_t blocked_by = 0;   // another lead that was in the way to the end
  size_t nodes_heard = 0;    // by the lead, of the push or not
  bool rest = true;          // what comes behind the files was done

  bool good() const { return report.complete() && rest; }
};

// Tells everything but what --durable says. True when every node has every file.
bool tell_end(const LeadOptions& options, const lead::PushRequest& request, Reporter& reporter,
              PushView& view, PushEnd end);

// Of nodes that are only asked: how many are not there; false when all are. When nobody is, the
// network is what to look at.
bool tell_absent(Reporter& reporter, const lead::PushReport& report,
                 const cli::CommonOptions& common);

// The lead that serves at --control. Nothing when none is there. Throws when the one that is there
// takes no push.
struct ServingLead {
  Json status;
  // The content root of a location there; empty: it has none.
  std::string root(uint32_t location) const;
  uint32_t address() const;
  // "ctrl_group" or "data_group".
  cli::Endpoint group(const char* which) const;
};
std::optional<ServingLead> find_serving_lead(const LeadOptions& options);
// An option that counts only where the lead that serves was started; null when none is given.
const char* setting_of_the_lead(const LeadOptions& options);
// The options as a push has them: what the lead that serves was told at its start counts there.
LeadOptions with_settings_of(const ServingLead& lead, LeadOptions options);

// In a lead of this process. True as below.
bool push_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter);
// push --delete --dry-run. True when every node has said what it has.
bool list_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter);

// The same through the lead that serves.
bool list_through(const LeadOptions& options, QueuedPush push, Reporter& reporter);
// Through the lead that serves; shows the same as a push of this process, and tells the end.
PushEnd push_through(const LeadOptions& options, QueuedPush push, Reporter& reporter);

}  // namespace pkgdist::lead_program
