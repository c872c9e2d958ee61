// push --durable: asks the nodes, when a push has ended, to write what they received to their
// disks, and waits for their answers. A node that does not answer in time is not durable: its
// program may be one that does not know the question.
#pragma once

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "flush_messages.h"
#include "pkgdist_lead/lead.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class Durability {
 public:
  // What each node said, by address: 0, or an error number.
  using Outcomes = std::map<uint32_t, int>;

  // `number` tells this question from others.
  Durability(uint32_t number, uint32_t location) : question_{number, location} {}

  // Asks the nodes that are heard; the others are not durable at once.
  void ask(lead::Lead& lead, const lead::PushReport& report, lead::Time limit, lead::Time now);
  // A message of a node; false when it is no answer to this question.
  bool on_message(uint32_t node, uint32_t msg_class, std::span<const uint8_t> bytes);
  bool ended(lead::Time now) const { return waiting_ == 0 || now >= deadline_; }
  const Outcomes& outcomes() const { return nodes_; }

 private:
  static constexpr int kNoAnswer = ETIMEDOUT;

  const cli::FlushQuestion question_;
  Outcomes nodes_;  // kNoAnswer before there is one
  size_t waiting_ = 0;
  lead::Time deadline_ = 0;
};

// Tells what became of each node. True when all are durable.
bool report_durability(Reporter& reporter, const Durability::Outcomes& outcomes);

}  // namespace pkgdist::lead_program
