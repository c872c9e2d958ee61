// The process number that this lead tells its nodes.
//
// Nodes know a lead by its address and process number. A process that gets the number of its
// predecessor on the same host, as in containers, is taken for it: its nodes stand where the
// predecessor's control stream ended, and take what this one sends for old. Their ping replies give
// that away, and then this lead goes on under another number, with which they begin anew. It never
// takes over a position that a node claims: whoever forges one makes nodes begin anew, a few times,
// and nothing was sent yet that they would lose.
#pragma once

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead {

class ProcessNumber {
 public:
  explicit ProcessNumber(Settings& self) : self_(self) {}

  // A node has answered a ping that was sent at `asked`: it has finished everything up to `point`.
  // `last`: what was sent, `unused`: nothing since the beginning. True when the number has changed.
  bool on_point(uint32_t point, uint32_t last, bool unused, Time asked, Time now) {
    if (point <= last || !unused || changes_ == kMaxChanges || asked < changed_at_) return false;
    ++changes_;
    changed_at_ = now / kMicrosecond * kMicrosecond;  // as exact as pings tell their time
    const auto part = static_cast<uint32_t>((self_.seed + changes_) % kParts) + 1;
    self_.pid = (self_.pid & (kLeastForeign - 1)) | part * kLeastForeign;
    return true;
  }
  // Answers to pings that were sent before this are of nodes that know the old number.
  Time changed_at() const { return changed_at_; }

 private:
  static constexpr uint32_t kMaxChanges = 2;
  // No process of the system has a number from here on.
  static constexpr uint32_t kLeastForeign = 1u << 22;
  static constexpr uint32_t kParts = 1023;

  Settings& self_;
  uint32_t changes_ = 0;
  Time changed_at_ = 0;
};

}  // namespace pkgdist::lead
