// Which of several leads leads.
//
// Nodes follow one lead and ignore others until it has been silent for 7.5 s. So a lead is careful
// before it speaks to them: it asks whether somebody leads, three times in a tenth of a second, and
// one that does answers with a ping at once. It stands by while another one is heard, and takes
// over when that has been silent long enough for the nodes. Of two that ask at the same time, the
// one with the lower address goes first.
//
// A lead of an older version does not answer the question; its pings, one in a second, are heard
// when this one leads already, and then it steps aside, since the other one began earlier.
//
// Two that lead at the same time, after a divided network has become one, must come to the same
// conclusion without talking to each other: both tell in every ping since when they lead
// (wall-clock seconds), and the later one steps aside; of equals, the one with the higher address.
// Clocks that disagree make a wrong choice, but the same one on both sides.
//
// A ping can be forged. A lead that no node follows steps aside at once, for it has nothing to
// lose. One that nodes follow does when it has heard the other one for as long as these nodes would
// need to take it; until then they ignore the other one. For a ping that does not tell since when,
// it stays.
//
// A lead that was stopped for as long as nodes wait (a suspended process) may have been replaced:
// it listens again before it goes on.
#pragma once

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead {

class Leadership {
 public:
  explicit Leadership(const Settings& self) : self_(self) {}

  Role role() const { return role_; }
  bool leads() const { return role_ == Role::kLeading; }
  // Wall-clock seconds, never 0 while this lead leads.
  uint32_t leading_since() const { return since_; }
  uint32_t other() const { return other_; }

  // A datagram of another lead. `since`: when that one began, 0 when it does not tell; `followed`:
  // nodes answer this one.
  void on_other_lead(uint32_t address, uint32_t since, bool followed, Time now);
  // Another one asks whether somebody leads.
  void on_query(uint32_t address, Time now);
  void run(Time now);
  // Whether to ask now; counted as asked.
  bool asks(Time now);
  // kNever while leading: time does not change that. Until then often, for run() tells a suspended
  // process by the time between two calls.
  Time next_deadline() const;

 private:
  bool comes_before(uint32_t address, uint32_t since) const;
  bool yields_to(uint32_t address, uint32_t since, bool followed, Time now);
  Time heard_for(uint32_t address, Time now);
  void lead(Time now);
  Time takes_over_at() const;  // while this lead does not lead
  void listen(Time now);
  bool may_ask() const;

  const Settings& self_;
  Role role_ = Role::kListening;
  bool begun_ = false;
  uint32_t asked_ = 0;  // times, since it listens
  Time listening_since_ = 0;
  Time quiet_since_ = 0;  // nobody else has been heard since
  Time last_run_ = 0;
  uint32_t since_ = 0;
  uint32_t other_ = 0;
  // The lead that comes before this one and is heard while nodes follow this one.
  uint32_t rival_ = 0;
  Time rival_since_ = 0;
  Time rival_heard_ = 0;
};

}  // namespace pkgdist::lead
