// push --durable: asks the nodes, when a push has ended, to write what they received to their
// disks, and waits for their answers, or that they still write. A node that says nothing for long
// is not durable: its program may be one that does not know the question.
#pragma once

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "answer_watch.h"
#include "flush_messages.h"
#include "pkgdist_lead/lead.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class Durability {
 public:
  // What each node said, by address: 0, or an error number.
  using Outcomes = std::map<uint32_t, int>;

  // `number` tells this question from others. A node is given up after this silence.
  Durability(uint32_t number, uint32_t location, lead::Time silence)
      : question_{number, location}, silence_(silence), watch_(silence) {}

  // Asks the nodes that are heard; the others are not durable at once.
  void ask(lead::Lead& lead, const lead::PushReport& report, lead::Time now);
  // Asks again those that say nothing. True when nobody is waited for any more.
  bool run(lead::Lead& lead, lead::Time now);
  // A message of a node; false when it is none about this question.
  bool on_message(uint32_t node, uint32_t msg_class, std::span<const uint8_t> bytes,
                  lead::Time now);
  const Outcomes& outcomes() const { return nodes_; }

 private:
  static constexpr int kNoAnswer = ETIMEDOUT;

  bool send(lead::Lead& lead, std::vector<uint32_t> nodes, lead::Time now);

  const cli::FlushQuestion question_;
  const lead::Time silence_;
  Outcomes nodes_;  // kNoAnswer before there is one
  AnswerWatch watch_;
};

// Tells what became of each node. True when all are durable.
bool report_durability(Reporter& reporter, const Durability::Outcomes& outcomes);

}  // namespace pkgdist::lead_program
