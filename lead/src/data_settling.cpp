// What happens after the stream has gone round a file, and what nodes say about files; the ladder
// is described in data_sender.h.
#include <algorithm>
#include <cerrno>
#include <cmath>

#include "data_sender.h"
#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

// Files up to this many segments are sent again as a whole rather than waiting for a node.
constexpr uint32_t kSmallFile = 64;
// Files up to this many: at the first sign of trouble, since their end is all there is.
constexpr uint32_t kTinyFile = 4;

// What one file tells about the next ones.
constexpr double kLearning = 0.25;
// Of small files that were lost so many were lost as a whole that it pays to count on it.
constexpr double kNearlyAll = 0.8;

// How long a node may need to act on what it was sent, and to say so.
constexpr Time kMinGrace = 3 * kMillisecond;
constexpr Time kMaxGrace = 300 * kMillisecond;
constexpr Time kUnknownGrace = 10 * kMillisecond;
// How long the stream waits at most for nodes that may have a file already.
constexpr Time kMaxSkipGrace = 100 * kMillisecond;
// How long to wait for the answer to a miss done before it counts as lost.
constexpr Time kMinAnswerTime = 10 * kMillisecond;
constexpr Time kUnknownAnswerTime = 60 * kMillisecond;
constexpr Time kMaxAnswerTime = kSecond;
// Between rounds that brought nothing, doubling. The ceiling stays below a node's time-outs.
constexpr Time kStuckPause = 2 * kMillisecond;
constexpr Time kMaxStuckPause = kSecond;
// Rounds without effect until a large file is sent once more as a whole; by then every node has
// run into its own time-outs several times.
constexpr uint32_t kRoundsToWholeFile = 16;
// Times that all asked segments are sent again before the nodes have to ask themselves.
constexpr uint32_t kMaxRepeats = 4;
// Unless the file is soon sent, or most of them are lacking somewhere, they are this part of it at
// most, all times together.
constexpr uint32_t kLittlePart = 64;
constexpr double kMostLacking = 0.5;
// Times that the whole file is sent to save nodes a wait, before they have to ask themselves.
constexpr uint32_t kMaxWholes = 5;
// Nodes look for time-outs every half second: those that waited together ask within this, and
// others, whose last repair came later, while there is no longer pause than that.
constexpr Time kGather = 600 * kMillisecond;
constexpr Time kGatherPause = 300 * kMillisecond;
constexpr Time kMaxGather = 1500 * kMillisecond;
// A request after this much silence comes from a node's time-out and names all that it lacks: what
// was asked for before is done with.
constexpr Time kFreshRequest = kSecond;
// Answers about an earlier transfer of the same file: the node remembers how that one ended and
// does not say how it stands with this one. If it knows of this one and lacks something, it asks
// for that within a second and a half by itself; when it does not, it is told of the file again.
constexpr uint32_t kMaxStale = 3;
constexpr Time kStalePatience = 2 * kSecond;
// Nodes remember for 30 s how a file ended, and give one up after 21 s without any information: one
// that says nothing for longer, however often it is asked, has nothing to say.
constexpr Time kMutePatience = 35 * kSecond;
constexpr uint32_t kMutedQuestions = 10;

// That one of so many nodes loses what each of them loses with a probability.
double lost_somewhere(double probability, double nodes) {
  return 1 - std::pow(1 - probability, nodes);
}

}  // namespace

// While there is more to be streamed, patience costs nothing, and questions cost the nodes time.
Time DataSender::grace() const {
  if (!reaction_.known()) return std::max(kUnknownGrace, 2 * round_trip_);
  const Time wait = streaming_.empty() ? reaction_.usual() : 2 * reaction_.nearly_always();
  return std::clamp(wait, kMinGrace, kMaxGrace);
}

Time DataSender::answer_time() const {
  if (!reaction_.known()) return kUnknownAnswerTime;
  return std::clamp(reaction_.nearly_always(), kMinAnswerTime, kMaxAnswerTime);
}

Time DataSender::skip_grace() const {
  return std::clamp(2 * round_trip_ + kMillisecond, kMinGrace, kMaxSkipGrace);
}

// When the stream may begin with an announced file. While nodes report files that they have
// already, more of these reports are likely on their way.
Time DataSender::stream_time(const Transfer& transfer) const {
  if (transfer.stage != Transfer::Stage::kAnnounced) return 0;
  const Time since = std::max(transfer.info_sent, last_skip_);
  return std::min(since + skip_grace(), transfer.info_sent + kMaxSkipGrace);
}

void DataSender::note_reaction(Time since, Time now) {
  if (since == 0) return;
  const Time delay = elapsed(now, since) + 1;
  reaction_.sample(delay);
  period_delay_ = std::max(period_delay_, delay);
}

void DataSender::begin_settling(Transfer& transfer, Time now) {
  if (transfer.loss == 0)
    transfer.loss =
        std::min(1.0, static_cast<double>(transfer.requested) /
                          (static_cast<double>(transfer.segments) * std::max(1u, transfer.open)));
  transfer.stage = Transfer::Stage::kSettling;
  transfer.gather_until = 0;
  transfer.asked_at = 0;
  transfer.turn_ended = now;
  transfer.repairs.end_waiting();
  if (!most_are_lacking(transfer)) transfer.repairs.due_once();
  enter_repair_line(transfer);
  arm(transfer, now + grace());
}

void DataSender::settle(Transfer& transfer, Time now) {
  if (transfer.stage != Transfer::Stage::kSettling) return;
  if (transfer.open + transfer.unlisted == 0) return close(transfer);
  if (transfer.open == 0 || transfer.in_repair_line) return;  // woken by join() or by the repairs
  if (gathers(transfer, now)) return;
  if (!transfer.confirmed.empty()) return arm(transfer, now + kMinAnswerTime);
  if (end_mute_nodes(transfer, now)) return;
  const bool trouble = in_trouble(transfer) || transfer.help_now;
  transfer.asked_at = transfer.turn_ended = 0;
  transfer.help_now = false;
  if (trouble && help(transfer, now)) return;
  send_miss_done(transfer, now);
  const Time pause = backoff(kStuckPause, transfer.stuck, kMaxStuckPause);
  arm(transfer, now + std::max(pause, backoff(answer_time(), transfer.mute, kMaxAnswerTime)));
}

void DataSender::begin_gathering(Transfer& transfer, Time now) {
  transfer.gather_until = now + kGather;
  transfer.gather_limit = now + kMaxGather;
  transfer.gathered = 0;
  for (TransferNode& node : transfer.nodes) node.asked = false;
  arm(transfer, transfer.gather_until);
}

// Whether settling has to wait for requests, or for the repairs that they lead to.
bool DataSender::gathers(Transfer& transfer, Time now) {
  if (transfer.gather_until == 0) return false;
  if (now < transfer.gather_until && transfer.gathered < transfer.open) {
    arm(transfer, transfer.gather_until);
    return true;
  }
  transfer.gather_until = 0;
  enter_repair_line(transfer);
  return transfer.in_repair_line;
}

// A node that has ended the file and forgotten that no longer listens to the data stream: its
// report was lost, and it will not hear the question. For it the file ends as given up, so that it
// can be told of it again. True when nobody is left to be asked.
bool DataSender::end_mute_nodes(Transfer& transfer, Time now) {
  for (NodeIndex node = 0; node < transfer.nodes.size(); ++node) {
    const TransferNode& state = transfer.nodes[node];
    if (state.state != TransferNode::State::kOpen || state.unanswered < kMutedQuestions ||
        elapsed(now, state.heard) < kMutePatience)
      continue;
    end_node(transfer, node, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
  }
  if (transfer.open + transfer.unlisted != 0) return transfer.open == 0;
  close(transfer);
  return true;
}

// Judges the answers to the last miss done: trouble when a node does not get on by itself.
bool DataSender::in_trouble(Transfer& transfer) {
  if (transfer.asked_at == 0) return false;
  bool idle = false;
  for (const TransferNode& node : transfer.nodes)
    idle |= node.state == TransferNode::State::kOpen && node.answered && !node.asked;
  if (idle) {
    ++transfer.stuck;
    transfer.mute = 0;
    // The first help did not help.
    if (transfer.segments <= kSmallFile && transfer.requested == 0 && transfer.stuck == 2)
      lost_whole_ += (1 - lost_whole_) * kLearning;
    loss_.lost(1.0 / std::max<double>(1, nodes_.size()));
    return true;
  }
  if (transfer.answers != 0) return false;
  ++transfer.mute;
  return true;
}

// Whether sending the file again, or much of it, is better than letting nodes wait for their
// time-outs: nothing else is to be sent, and it takes a fraction of that time.
bool DataSender::costs_little(const Transfer& transfer) const {
  constexpr double kCheapSeconds = 0.25;
  // A nominal rate may be far above what the nodes take.
  constexpr uint64_t kMaxCheapBytes = 16 * 1024 * 1024;
  const double seconds =
      static_cast<double>(transfer.attributes.size) * 8 / static_cast<double>(pacer_.rate());
  return transfer.attributes.size <= kMaxCheapBytes && streaming_.empty() && announcing_.empty() &&
         seconds < kCheapSeconds;
}

bool DataSender::whole_again(const Transfer& transfer) const {
  if (transfer.stuck == 0) return false;
  if (transfer.segments <= kTinyFile) return true;
  if (transfer.segments <= kSmallFile && (transfer.stuck > 1 || lost_whole(transfer))) return true;
  if (transfer.stuck % kRoundsToWholeFile == 0) return true;
  return transfer.stuck > 1 && transfer.wholes < kMaxWholes && !worth_repeating(transfer) &&
         costs_little(transfer);
}

// Whether the nodes that do not get on with a small file have likely lost all of it, as others did
// lately: it leaves in one batch. Then its last segment would not help them. With some files it is
// tried all the same, to see whether that is still so.
bool DataSender::lost_whole(const Transfer& transfer) const {
  constexpr TransferId kTried = 8;
  return transfer.requested == 0 && transfer.id % kTried != 0 && lost_whole_ > kNearlyAll;
}

// Whether of the segments that were asked for most are lacking on some node, though they were sent
// again: before a crowd nearly every repair is lost by one of those who asked.
bool DataSender::most_are_lacking(const Transfer& transfer) const {
  if (transfer.repairs.asked() == 0) return false;
  const double requests = static_cast<double>(transfer.requested) / transfer.repairs.asked();
  const double askers = std::min(requests, static_cast<double>(transfer.nodes.size()));
  return lost_somewhere(std::pow(transfer.loss, transfer.repeats + 1), askers) >= kMostLacking;
}

// Whether repairs wait while the file streams. Before a crowd nearly every repair is lost by
// somebody, and has to be sent again as early as possible.
bool DataSender::repairs_can_wait(const Transfer& transfer) const {
  const double loss = std::min(1.0, loss_.loss());
  return transfer.stage == Transfer::Stage::kStreaming &&
         lost_somewhere(loss, loss * transfer.open) < kMostLacking;
}

// Nodes do not say what they still lack of what they asked for, only seconds later. What is sent
// again meanwhile is sent for nothing for the most part, which must not grow into another file.
bool DataSender::worth_repeating(const Transfer& transfer) const {
  const uint32_t asked = transfer.repairs.asked();
  if (transfer.segments <= kSmallFile) return false;  // the whole is as good
  if (asked == 0 || transfer.stuck == 0 || transfer.repeats >= kMaxRepeats) return false;
  if (most_are_lacking(transfer)) return true;
  if (transfer.stuck == 1) return false;
  return costs_little(transfer) || transfer.repeated + asked <= transfer.segments / kLittlePart;
}

// What nodes ask for after the stream costs them a wait of seconds if it is lost again. While it is
// little, it is sent twice.
bool DataSender::worth_sending_twice(const Transfer& transfer) const {
  if (transfer.stage != Transfer::Stage::kSettling || transfer.segments <= kSmallFile) return false;
  return loss_.info_copies() > 1 && transfer.late <= transfer.segments / kLittlePart;
}

// True when it started something after which settling goes on by itself.
bool DataSender::help(Transfer& transfer, Time now) {
  if (transfer.stuck == 0 && transfer.mute == 1) return false;  // asking again comes first
  send_info(transfer, now);
  if (transfer.status != 0) return false;
  if (whole_again(transfer)) {
    ++transfer.wholes;
    restart_turn(transfer);
    return true;
  }
  const uint32_t last = transfer.segments - 1;
  const uint32_t turn_end = transfer.turn.last();
  if (!send_segment(transfer, last, Sending::kInPlace, now)) return true;
  if (turn_end != last) send_segment(transfer, turn_end, Sending::kInPlace, now);
  if (!send_marks(transfer, now)) return true;
  if (transfer.status != 0) return true;
  if (!worth_repeating(transfer)) return false;
  ++transfer.repeats;
  transfer.repeated += transfer.repairs.asked();
  transfer.repairs.repeat_asked();
  enter_repair_line(transfer);
  return true;
}

// A node that began in the middle asks for what it missed before when it sees these. False when the
// file cannot be sent any further.
bool DataSender::send_marks(Transfer& transfer, Time now) {
  constexpr uint32_t kRounds = 2;  // the second in case that the first one was lost
  constexpr uint32_t kFewMarks = 400;
  if (transfer.segments <= kMediumFile || transfer.stuck > kRounds) return true;
  if (transfer.marks_sent > std::max(kFewMarks, transfer.segments / kLittlePart)) return true;
  for (const uint32_t mark : transfer.start_search.marks()) {
    if (!send_segment(transfer, mark, Sending::kInPlace, now)) return false;
    ++transfer.marks_sent;
  }
  return true;
}

void DataSender::restart_turn(Transfer& transfer) {
  arm(transfer, kNever);
  transfer.gather_until = 0;
  enter_repair_line(transfer);
  transfer.turn.extend();
  transfer.stage = Transfer::Stage::kStreaming;
  // Ahead of files that were not begun: their nodes are further back.
  streaming_[transfer.priority].push_front(transfer.id);
  stream_due_ = 0;
}

void DataSender::send_miss_done(Transfer& transfer, Time now) {
  for (TransferNode& node : transfer.nodes) {
    node.answered = node.asked = false;
    if (node.state == TransferNode::State::kOpen && node.unanswered < kMutedQuestions)
      ++node.unanswered;
  }
  transfer.answers = 0;
  const std::span<uint32_t> nodes = open_nodes(transfer);
  send(build_miss_done(sink_.buffer(), self_.address, transfer, transfer.id, nodes));
  transfer.asked_at = now;
  batch_of_ = kNoTransfer;
  ++counters_.miss_done_sent;
}

// --- What nodes say ---

uint32_t DataSender::on_segment_request(NodeIndex node, uint32_t file_id, uint32_t first,
                                        uint32_t num, Time now) {
  Transfer* transfer = at(file_id);
  if (transfer == nullptr) {
    ++counters_.foreign_datagrams;
    return 0;
  }
  if (first >= transfer->segments || num == 0 || transfer->status != 0) {
    ++counters_.bad_datagrams;
    return 0;
  }
  num = std::min(num, transfer->segments);
  transfer->start_search.asked(node, first, num);
  // A node that is not known to want the file is served, but not waited for: it may be forged.
  TransferNode& state = transfer->node(node);
  const bool open = state.state == TransferNode::State::kOpen;
  if (elapsed(now, transfer->last_request) >= kFreshRequest) {
    transfer->forget_asked();
    // The first request of all is not a time-out's.
    if (open && transfer->last_request != 0 && transfer->stage == Transfer::Stage::kSettling &&
        !transfer->in_repair_line)
      begin_gathering(*transfer, now);
  }
  if (transfer->gather_until != 0 && open && !state.asked) {
    ++transfer->gathered;
    const Time until = std::min(now + kGatherPause, transfer->gather_limit);
    transfer->gather_until = std::max(transfer->gather_until, until);
  }
  if (transfer->segments <= kSmallFile && transfer->requested == 0 && transfer->stuck == 1)
    lost_whole_ -= lost_whole_ * kLearning;
  state.asked = state.has_info = true;
  state.hear(now);
  transfer->last_request = now;
  transfer->progress();

  uint32_t gone = 0;
  uint32_t due = 0;
  transfer->repairs.set_holdoff(2 * round_trip_);
  transfer->repairs.set_patient(repairs_can_wait(*transfer));
  transfer->repairs.set_echo(!confirms(*transfer, now) && worth_sending_twice(*transfer));
  transfer->turn.behind(first, num, [&](uint32_t from, uint32_t count) {
    due += request_repair(*transfer, node, from, count, now);
    gone += count;
  });
  if (transfer->stage == Transfer::Stage::kSettling) transfer->late += due;
  transfer->requested += gone;
  counters_.segments_requested += gone;
  loss_.lost(static_cast<double>(gone) / std::max<double>(1, transfer->open));
  if (node < period_requested_.size()) period_requested_[node] += gone;
  if (transfer->gather_until == 0)
    enter_repair_line(*transfer);
  else if (transfer->gathered >= transfer->open)
    arm(*transfer, now);
  return gone;
}

void DataSender::note_answer(Transfer& transfer, NodeIndex node, Time now) {
  TransferNode& state = transfer.node(node);
  if (state.state == TransferNode::State::kOpen && !state.answered) ++transfer.answers;
  state.answered = true;
  state.unanswered = 0;
  state.heard = now;
  note_reaction(transfer.asked_at, now);
}

void DataSender::on_in_progress(Transfer& transfer, NodeIndex node, Time now) {
  note_answer(transfer, node, now);
  if (transfer.stage != Transfer::Stage::kSettling || transfer.in_repair_line) return;
  if (transfer.asked_at == 0 || transfer.answers < transfer.open) return;
  // All have answered: the next round need not wait for the timer, but the ladder's pace holds.
  const Time paced = transfer.asked_at + backoff(kStuckPause, transfer.stuck, kMaxStuckPause);
  arm(transfer, std::max(now, std::min(transfer.timer, paced)));
}

void DataSender::unlist(Transfer& transfer, NodeIndex node, Time now) {
  note_answer(transfer, node, now);
  if (observer_.transfer_unlisted(transfer, node)) {
    transfer.set_state(node, TransferNode::State::kUnlisted);
    return;
  }
  end_node(transfer, node, PKGDIST_STATUS_UNKNOWN_FILE);
  close_if_ended(transfer);
}

void DataSender::on_stale_report(Transfer& transfer, NodeIndex node, Time now) {
  TransferNode& state = transfer.node(node);
  if (state.stale++ == 0) state.stale_since = now;
  if (state.stale >= kMaxStale && elapsed(now, state.stale_since) >= kStalePatience) {
    state.stale = 0;
    return unlist(transfer, node, now);
  }
  on_in_progress(transfer, node, now);
}

void DataSender::on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now) {
  if (const Time delay = probe_.answered(report.file_id, now); delay != 0) {
    period_delay_ = std::max(period_delay_, delay);
    return;
  }
  Transfer* transfer = at(report.file_id);
  const bool exact = transfer != nullptr && transfer->key.name == report.name &&
                     transfer->key.location == report.location;
  if (!exact) transfer = at(find({report.location, report.name}));
  if (transfer == nullptr) {
    ++counters_.foreign_datagrams;
    return;
  }
  if (!exact && on_confirmed(*transfer, node, report.file_id, now)) return;
  // The answer to a question of another time; of an earlier transfer nodes report the end.
  if (!exact && report.status == PKGDIST_STATUS_IN_PROGRESS) return;
  const TransferNode before = transfer->node(node);
  const TransferNode::State state = before.state;
  if (state != TransferNode::State::kOpen && state != TransferNode::State::kUnlisted) return;
  if (exact && report.status == PKGDIST_STATUS_IN_PROGRESS)
    return on_in_progress(*transfer, node, now);
  if (exact && report.status == PKGDIST_STATUS_UNKNOWN_FILE) {
    if (state == TransferNode::State::kOpen) unlist(*transfer, node, now);
    return;
  }
  // A node that gave up before it had any information reports no file id.
  const bool gave_up = report.file_id == kNoTransfer && report.status != 0 &&
                       observer_.transfer_ends_unknown(*transfer, report.status);
  if (!exact && !gave_up) return on_stale_report(*transfer, node, now);
  if (transfer->stage == Transfer::Stage::kAnnounced) last_skip_ = now;
  // One that has answered or asked meanwhile ends later, because of what it was sent since.
  if (!before.answered && !before.asked)
    note_reaction(transfer->asked_at != 0 ? transfer->asked_at : transfer->turn_ended, now);
  end_node(*transfer, node, report.status);
  close_if_ended(*transfer);
}

}  // namespace pkgdist::lead
