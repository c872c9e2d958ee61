#include "stream/help.h"

#include <utility>

namespace pkgdist::lead {

namespace {

// Files of more segments are searched for the place where a node began; smaller ones are soon sent
// again as a whole.
constexpr uint32_t kLargeFile = 1024;
// How much longer than a copy of a large file's segments takes on the wire nodes have waited for it
// before it is sent: most of what it brings they have, and they may yet ask for less by themselves.
constexpr Time kWaitPerCost = 8;
// Copies of what was asked for, before the whole file is thought of.
constexpr uint32_t kCopiesOfAsked = 2;
// Rounds in which probe segments are sent, the second in case that the first one was lost; and how
// many of them, of a file's segments and at least.
constexpr uint32_t kProbeRounds = 2;
constexpr uint32_t kProbePart = 64;
constexpr uint32_t kLeastProbes = 400;

// What the nodes that wait had asked for: a repair of it may have been lost.
uint64_t parts_of_idle(const Transfer& transfer) {
  uint64_t parts = 0;
  for (const TransferNode& node : transfer.nodes)
    if (node.state == TransferNode::State::kOpen && node.answered && !node.asked)
      parts |= node.parts;
  return parts;
}

}  // namespace

// What only shows nodes where they stand does not count as served: they wait for the rest.
int Help::send_segment(Transfer& transfer, uint32_t segment, Time now) {
  const Time served = transfer.served;
  const int error = stream_.output.segment(transfer, segment, DataOutput::As::kFirst, now);
  transfer.served = served;
  return error;
}

Help::Result Help::show_tail(Transfer& transfer, Time now) {
  if (transfer.status != 0 || std::exchange(transfer.tail_shown, true)) return {};
  const uint32_t last = transfer.turn.last();
  const uint32_t first = last + 1 < transfer.segments ? last + 1 : 0;
  int error = send_segment(transfer, last, now);
  if (error == 0 && first != last) error = send_segment(transfer, first, now);
  return error == 0 ? Result{} : Result{Outcome::kFailed, error};
}

Help::Result Help::help(Transfer& transfer, Time now) {
  stream_.output.info(transfer, now);
  if (transfer.status != 0) return {};
  const bool may_lack_the_start = transfer.segments > kLargeFile && transfer.stuck == 1;
  if (!may_lack_the_start)
    if (const Result copy = send_copy(transfer, now); copy.outcome != Outcome::kShown) return copy;
  transfer.tail_shown = false;
  const Result tail = show_tail(transfer, now);
  return tail.outcome == Outcome::kFailed ? tail : send_probes(transfer, now);
}

// Whether nodes have waited long enough for what can be sent again, beside what that costs.
bool Help::copy_due(const Transfer& transfer, uint32_t segments, Time now) const {
  constexpr double kInfoBytes = 150;
  const double bytes =
      kInfoBytes + static_cast<double>(transfer.attributes.size) * segments / transfer.segments;
  const auto cost = static_cast<Time>(bytes / stream_.window.rate() * kSecond);
  const Time waited = elapsed(now, std::max(transfer.served, transfer.last_request));
  const Time wait = transfer.segments > kLargeFile ? kWaitPerCost * cost : cost;
  return waited >= backoff(wait, transfer.copies, kNever);
}

Help::Result Help::send_copy(Transfer& transfer, Time now) {
  if (transfer.stuck == 0) return {};
  const uint64_t parts = parts_of_idle(transfer);
  const uint32_t asked = transfer.repairs.asked(parts);
  const bool of_asked = asked != 0 && transfer.copies < kCopiesOfAsked;
  // Who was shown the end asks for the rest by itself, unless it lost that, too.
  if (!of_asked && transfer.stuck == 1) return {};
  if (!copy_due(transfer, of_asked ? asked : transfer.segments, now)) return {};
  ++transfer.copies;
  transfer.asked_at = 0;
  if (!of_asked) return {Outcome::kStreamAgain};
  transfer.repairs.repeat_asked(parts);
  stream_.repairs.enter(transfer);
  return {Outcome::kCopied};
}

// A node that began in the middle asks for what it missed before when it sees these.
Help::Result Help::send_probes(Transfer& transfer, Time now) {
  if (transfer.segments <= kLargeFile || transfer.stuck > kProbeRounds) return {};
  if (transfer.probes_sent > std::max(kLeastProbes, transfer.segments / kProbePart)) return {};
  for (const uint32_t probe : transfer.start_search.marks()) {
    if (const int error = send_segment(transfer, probe, now); error != 0)
      return {Outcome::kFailed, error};
    ++transfer.probes_sent;
  }
  return {};
}

}  // namespace pkgdist::lead
