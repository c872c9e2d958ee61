#include "stream/giving_up.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

// Nodes remember for 30 s how a file ended, and give one up after 21 s without any information: one
// that says nothing for longer, however often it is asked, has nothing to say.
constexpr Time kSilentPatience = 35 * kSecond;
// Longer than all time-outs of a node that has the library's own; rounds with something sent.
constexpr Time kHopelessTime = 45 * kSecond;
constexpr uint32_t kHopelessRounds = 12;
// Where nothing but small datagrams arrives, waiting longer is of no use.
constexpr Time kNoSegmentTime = 15 * kSecond;
// All requests of a node's time-out pass come without a longer pause.
constexpr Time kRequestPause = 50 * kMillisecond;

}  // namespace

GivingUp::Progress& GivingUp::begun(TransferId id, NodeIndex node, Time now) {
  Progress& progress = progress_[{id, node}];
  if (progress.since == 0) progress.since = now;
  return progress;
}

void GivingUp::was_idle(TransferId id, NodeIndex node, Time now) {
  ++begun(id, node, now).rounds;
}

void GivingUp::has_asked(TransferId id, NodeIndex node, uint32_t segments, Time now) {
  Progress& progress = begun(id, node, now);
  if (elapsed(now, std::exchange(progress.asked_at, now)) < kRequestPause) {
    progress.asks += segments;
    return;
  }
  // The requests before are complete.
  const uint32_t asked = std::exchange(progress.asks, segments);
  ++progress.rounds;
  if (asked == 0 || asked >= progress.lacking) return;
  progress.lacking = asked;
  progress.since = now;
  progress.rounds = 0;
}

uint64_t GivingUp::verdict(const Transfer& transfer, NodeIndex node, Time now) const {
  const TransferNode& state = transfer.nodes[node];
  // It has ended the file and forgotten that: it no longer listens to the data stream, its report
  // was lost, and it will not hear the poll.
  if (state.unanswered >= kSilentPolls && elapsed(now, state.heard) >= kSilentPatience)
    return PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT);
  const auto found = progress_.find({transfer.id, node});
  if (found == progress_.end() || found->second.rounds < kHopelessRounds) return 0;
  const Time waited = elapsed(now, found->second.since);
  // It has the information, which is small, and never saw a segment of a full datagram's size: it
  // asks for nothing, or for all but the last one, which may be small.
  const uint32_t lacking = found->second.lacking;
  const bool nothing_came =
      !state.has_info || (lacking != kUnknown && lacking + 1 >= transfer.segments);
  if (nothing_came && transfer.segments > 1 && waited >= kNoSegmentTime)
    return PKGDIST_STATUS_FROM_ERRNO(EMSGSIZE);
  return waited >= kHopelessTime ? PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT) : 0;
}

void GivingUp::forget(TransferId id) {
  progress_.erase(progress_.lower_bound({id, 0}), progress_.upper_bound({id, kNoNode}));
}

}  // namespace pkgdist::lead
