// Where a push runs: in this process, or in a lead that serves on this host. What the views ask.
#pragma once

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

class PushSource {
 public:
  virtual ~PushSource() = default;
  virtual lead::PushReport push_progress() const = 0;
  virtual uint64_t rate_bits() const = 0;
  virtual const lead::Counters& counters() const = 0;  // since the push began
};

class OwnPush : public PushSource {
 public:
  explicit OwnPush(const lead::Lead& lead) : lead_(lead) {}
  lead::PushReport push_progress() const override { return lead_.push_progress(); }
  uint64_t rate_bits() const override { return lead_.rate_bits(); }
  const lead::Counters& counters() const override { return lead_.counters(); }

 private:
  const lead::Lead& lead_;
};

}  // namespace pkgdist::lead_program
