// Whose answer is waited for. A node that says nothing is asked again every `ask_again`; one that
// has said nothing for `silence` is given up. How long a node takes in all has no limit, as long as
// it answers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead_program {

class AnswerWatch {
 public:
  // Often enough for an answer that got lost, and for nodes to show that they are at work.
  static constexpr lead::Time kAskAgain = 3 * lead::kSecond;

  AnswerWatch(lead::Time ask_again, lead::Time silence)
      : ask_again_(ask_again), silence_(silence) {}
  // Asks at least twice before a node is given up.
  explicit AnswerWatch(lead::Time silence)
      : AnswerWatch(std::min(kAskAgain, silence / 3), silence) {}

  // These were asked just now; nobody else is waited for.
  void begin(const std::vector<uint32_t>& nodes, lead::Time now);
  void heard(uint32_t node, lead::Time now);
  // What the node had to say has come.
  void answered(uint32_t node) { waiting_.erase(node); }

  // Those to ask again now; their next turn is `ask_again` later.
  std::vector<uint32_t> take_due(lead::Time now);
  // Those that are given up, each once.
  std::vector<uint32_t> take_silent(lead::Time now);

  bool waits() const { return !waiting_.empty(); }
  bool waits_for(uint32_t node) const { return waiting_.contains(node); }
  // When one of these has something new.
  lead::Time deadline() const;

 private:
  struct Wait {
    lead::Time heard = 0;
    lead::Time asked = 0;  // or heard, when that is later
  };

  const lead::Time ask_again_;
  const lead::Time silence_;
  std::map<uint32_t, Wait> waiting_;
};

}  // namespace pkgdist::lead_program
