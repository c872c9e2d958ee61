// How a command about releases reaches the nodes: through a lead of its own, or through the lead
// that serves on this host. Pushes, orders and states are the same in both.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "heard_nodes.h"
#include "lead_options.h"
#include "push_run.h"
#include "release_messages.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class ReleaseLink {
 public:
  virtual ~ReleaseLink() = default;

  // Pushes files of the release, shows it, and tells how it ended.
  virtual PushEnd push(const lead::PushRequest& request) = 0;
  virtual void order(const cli::ReleaseQuestion& question, const std::vector<uint32_t>& nodes) = 0;
  // Hears what nodes say until `done` says so, which is asked after each state and at `until`.
  // False when a signal came first.
  virtual bool wait(const std::function<bool()>& done, lead::Time until) = 0;
  // The nodes that are heard, as soon as there are so many and all of `wanted`, or when none has
  // come for so long.
  virtual HeardNodes gather(const std::vector<uint32_t>& wanted, size_t count,
                            lead::Time silence) = 0;

  // Called by push(), wait() and gather(). May be null.
  std::function<void(uint32_t node, const cli::ReleaseState&)> on_state;
};

// Which of the two, and the options that count there. It must outlive the link.
struct ReleaseWay {
  LeadOptions options;
  bool serving = false;

  std::unique_ptr<ReleaseLink> open(Reporter& reporter) const;
};
// Throws when neither is possible, and for options that do not belong there.
ReleaseWay find_release_way(const LeadOptions& given);

// A release that is pushed is the directory of `options`' location. `options` and `reporter` must
// outlive the link.
std::unique_ptr<ReleaseLink> open_own_link(const LeadOptions& options, Reporter& reporter);
// Throws std::runtime_error when the lead that served has ended.
std::unique_ptr<ReleaseLink> open_remote_link(const LeadOptions& options, Reporter& reporter);

}  // namespace pkgdist::lead_program
