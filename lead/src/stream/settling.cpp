#include "stream/settling.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

// Between rounds that brought nothing, doubling. The ceiling stays below a node's time-outs.
constexpr Time kLeastPause = 2 * kMillisecond;
constexpr Time kMostPause = kSecond;
// Of a requested file after so many polls that nobody answered.
constexpr uint32_t kMutePolls = 5;
constexpr Time kLongestPause = 4 * kSecond;
// Answers about an earlier transfer of the same file: the node remembers how that one ended and
// does not say how it stands with this one. If it knows of this one and lacks something, it asks
// for that within a second and a half by itself; when it does not, it is told of the file again.
constexpr uint32_t kMaxStale = 3;
constexpr Time kStalePatience = 2 * kSecond;

using State = TransferNode::State;

}  // namespace

// --- When ---

void Settling::begin(Transfer& transfer, Time) {
  transfer.stage = Transfer::Stage::kSettling;
  transfer.asked_at = 0;
  // The second time all segments have been seen twice.
  transfer.tail_shown = transfer.copies != 0;
  agenda_.watch(transfer);
}

void Settling::repaired(Transfer& transfer) {
  if (transfer.stage != Transfer::Stage::kSettling) return;
  agenda_.watch(transfer);
}

void Settling::hurry(Transfer& transfer, Time now) {
  transfer.help_now = true;
  if (transfer.stage == Transfer::Stage::kSettling) agenda_.arm(transfer, now);
}

void Settling::stream_again(Transfer& transfer) {
  agenda_.arm(transfer, kNever);
  transfer.watched = 0;
  transfer.turn.extend();
  transfer.stage = Transfer::Stage::kStreaming;
  stream_.schedule.stream_again(transfer);
}

bool Settling::run(Time now) {
  Transfer* const transfer = agenda_.next_due(now);
  if (transfer == nullptr) return false;
  agenda_.arm(*transfer, kNever);
  settle(*transfer, now);
  return true;
}

// --- A round ---

void Settling::settle(Transfer& transfer, Time now) {
  if (transfer.stage != Transfer::Stage::kSettling) return;
  if (transfer.open + transfer.unlisted == 0) return close(transfer);
  if (transfer.open == 0 || !transfer.repairs.empty()) return;  // woken by join() or by repairs
  if (end_hopeless_nodes(transfer, now)) return;
  const bool polled = transfer.asked_at != 0;
  if (polled) judge_round(transfer, now);
  const bool trouble = polled && (transfer.stuck != 0 || transfer.mute > 1);
  const bool hurries = std::exchange(transfer.help_now, false);
  const Help::Result help =
      trouble || hurries ? help_.help(transfer, now) : help_.show_tail(transfer, now);
  if (!is_under_way(transfer, help, now)) poll(transfer, now);
}

// What the answers to the last poll say.
void Settling::judge_round(Transfer& transfer, Time now) {
  bool idle = false;
  for (NodeIndex i = 0; i < transfer.nodes.size(); ++i) {
    const TransferNode& node = transfer.nodes[i];
    if (node.state != State::kOpen || !node.answered || node.asked) continue;
    idle = true;
    giving_up_.was_idle(transfer.id, i, now);
  }
  if (idle) {
    ++transfer.stuck;
    transfer.mute = 0;
    stream_.loss.lost(1.0 / std::max<double>(1, transfer.open));
  } else if (transfer.answers == 0) {
    ++transfer.mute;
  } else {
    transfer.progress();
  }
}

// True when settling goes on by itself.
bool Settling::is_under_way(Transfer& transfer, Help::Result help, Time now) {
  switch (help.outcome) {
    case Help::Outcome::kShown:
      return false;
    case Help::Outcome::kCopied:
      return true;
    case Help::Outcome::kStreamAgain:
      stream_again(transfer);
      return true;
    case Help::Outcome::kFailed:
      fail(transfer, help.error, now);
      return true;
  }
  return false;
}

void Settling::poll(Transfer& transfer, Time now) {
  for (TransferNode& node : transfer.nodes) {
    node.answered = node.asked = false;
    if (node.state == State::kOpen && node.unanswered < GivingUp::kSilentPolls) ++node.unanswered;
  }
  transfer.answers = 0;
  stream_.output.file_poll(transfer);
  transfer.asked_at = now;
  const Time pause = backoff(kLeastPause, transfer.stuck, kMostPause);
  // One that only a node which does not answer is waiting for costs the others as little as it can.
  const bool left_alone = transfer.lane() == Lane::kRequests && transfer.mute > kMutePolls;
  const Time patience =
      backoff(stream_.window.answer_time(), transfer.mute, left_alone ? kLongestPause : kMostPause);
  agenda_.arm(transfer, now + std::max(pause, patience));
}

// --- The end ---

// For these the file ends as given up, so that it can be told of it again. True when nobody is left
// to be waited for.
bool Settling::end_hopeless_nodes(Transfer& transfer, Time now) {
  for (NodeIndex node = 0; node < transfer.nodes.size(); ++node) {
    if (transfer.nodes[node].state != State::kOpen) continue;
    if (const uint64_t status = giving_up_.verdict(transfer, node, now); status != 0)
      end_node(transfer, node, status);
  }
  if (transfer.open + transfer.unlisted != 0) return transfer.open == 0;
  close(transfer);
  return true;
}

void Settling::end_node(Transfer& transfer, NodeIndex node, uint64_t status) {
  transfer.set_state(node, State::kEnded);
  transfer.progress();
  giving_up_.forget(transfer.id, node);
  observer_.transfer_ended(transfer, node, status, status == 0 && transfer.segments_sent == 0);
}

void Settling::fail(Transfer& transfer, int error, Time now) {
  transfer.status = PKGDIST_STATUS_FROM_ERRNO(error);
  transfer.repairs.clear();
  stream_.contents.close(transfer.id);
  transfer.progress();
  stream_.output.info(transfer, now);
  begin(transfer, now);
}

void Settling::close_if_ended(Transfer& transfer) {
  if (transfer.open + transfer.unlisted == 0) close(transfer);
}

void Settling::close(Transfer& transfer) {
  using Stage = Transfer::Stage;
  if (transfer.stage == Stage::kQueued || transfer.stage == Stage::kAnnounced)
    stream_.schedule.leave_waiting(transfer);
  agenda_.arm(transfer, kNever);
  stream_.contents.close(transfer.id);
  giving_up_.forget(transfer.id);
  const std::unique_ptr<Transfer> last = stream_.table.remove(transfer.id);
  observer_.transfer_closed(*last);
}

// --- What nodes say ---

void Settling::note_answer(Transfer& transfer, NodeIndex node, Time now) {
  TransferNode& state = transfer.node(node);
  if (state.state == State::kOpen && !state.answered) ++transfer.answers;
  state.answered = true;
  state.unanswered = 0;
  state.heard = now;
}

void Settling::on_in_progress(Transfer& transfer, NodeIndex node, Time now) {
  note_answer(transfer, node, now);
  if (transfer.stage != Transfer::Stage::kSettling || !transfer.repairs.empty()) return;
  if (transfer.asked_at == 0 || transfer.answers < transfer.open || transfer.watched != 0) return;
  // All have answered: the next round need not wait for the timer, but rounds keep their distance.
  const Time paced = transfer.asked_at + backoff(kLeastPause, transfer.stuck, kMostPause);
  agenda_.arm(transfer, std::max(now, std::min(transfer.timer, paced)));
}

void Settling::unlist(Transfer& transfer, NodeIndex node, Time now) {
  note_answer(transfer, node, now);
  if (observer_.transfer_unlisted(transfer, node)) {
    transfer.set_state(node, State::kUnlisted);
    return;
  }
  end_node(transfer, node, PKGDIST_STATUS_UNKNOWN_FILE);
  close_if_ended(transfer);
}

void Settling::on_stale_report(Transfer& transfer, NodeIndex node, Time now) {
  TransferNode& state = transfer.node(node);
  if (state.stale++ == 0) state.stale_since = now;
  if (state.stale >= kMaxStale && elapsed(now, state.stale_since) >= kStalePatience) {
    state.stale = 0;
    return unlist(transfer, node, now);
  }
  on_in_progress(transfer, node, now);
}

void Settling::on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now) {
  Transfer* transfer = stream_.table.at(report.file_id);
  const bool exact = transfer != nullptr && transfer->key.name == report.name &&
                     transfer->key.location == report.location;
  if (!exact) transfer = stream_.table.at(stream_.table.find({report.location, report.name}));
  if (transfer == nullptr) {
    ++counters_.foreign_datagrams;
    return;
  }
  // The answer to a poll of another time; of an earlier transfer nodes report the end.
  if (!exact && report.status == PKGDIST_STATUS_IN_PROGRESS) return;
  const State state = transfer->node(node).state;
  if (state == State::kAbsent && exact && report.status == 0)
    observer_.transfer_overheard(*transfer, node);
  if (state != State::kOpen && state != State::kUnlisted) return;
  if (exact && report.status == PKGDIST_STATUS_IN_PROGRESS)
    return on_in_progress(*transfer, node, now);
  if (exact && report.status == PKGDIST_STATUS_UNKNOWN_FILE) {
    if (state == State::kOpen) unlist(*transfer, node, now);
    return;
  }
  // A node that gave up before it had any information reports no file id.
  const bool gave_up = report.file_id == kNoTransfer && report.status != 0 &&
                       observer_.transfer_ends_unknown(*transfer, report.status);
  if (!exact && !gave_up) return on_stale_report(*transfer, node, now);
  if (transfer->stage == Transfer::Stage::kAnnounced) stream_.schedule.note_skip(now);
  end_node(*transfer, node, report.status);
  close_if_ended(*transfer);
}

}  // namespace pkgdist::lead
