// Where a push runs: in this process, or in a lead that serves on this host. What the views ask and
// order.
#pragma once

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

class PushSource {
 public:
  virtual ~PushSource() = default;
  virtual uint32_t push_transaction() const = 0;
  virtual lead::PushReport push_progress() const = 0;
  virtual uint64_t rate_bits() const = 0;
  virtual const lead::Counters& counters() const = 0;  // since the push began
  // Ends the push for one node.
  virtual void stop_for(uint32_t node, lead::Time now) = 0;
};

}  // namespace pkgdist::lead_program
