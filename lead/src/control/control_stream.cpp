#include "control/control_stream.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

// Nodes take another lead after 7.5 s of silence; a second is also their notion of a regular ping.
constexpr Time kPingInterval = kSecond;
// While something is outstanding: a lost message costs about this much.
constexpr Time kBusyPingInterval = 50 * kMillisecond;
// While a push runs: a late node waits for it half of this on average.
constexpr Time kPushPingInterval = 200 * kMillisecond;
// Each node answers each ping: the interval grows with the nodes so that replies stay below
// 10000/s.
constexpr Time kPingIntervalPerNode = 100 * kMicrosecond;
// The first ping after a message: late enough for the ACKs to arrive first on a local network.
constexpr Time kPingAfterMessage = 5 * kMillisecond;

// A datagram is not sent again within this time, nor within a round trip: several nodes ask for it
// at once, and what is on the way needs time to arrive.
constexpr Time kResendHoldoff = 20 * kMillisecond;
// Segments that one node's NACKs of whole messages may draw at once, and in a second. One of 60
// bytes draws a mebibyte; the largest message has 874 segments.
constexpr double kWholeStock = 2048;
constexpr double kWholePerSecond = 1024;
// Without any answer, a message is sent again after this time, doubling up to the ceiling.
constexpr Time kFirstRetry = 100 * kMillisecond;
constexpr Time kMaxRetry = kSecond;

// How long finished messages are kept, and how many bytes of them.
constexpr Time kKeepFinished = 5 * kSecond;
constexpr size_t kKeepBytes = 4 * 1024 * 1024;

}  // namespace

ControlStream::ControlStream(const Settings& self, DatagramSink& sink, Counters& counters,
                             Acknowledged acknowledged)
    : self_(self),
      sink_(sink),
      counters_(counters),
      acknowledged_(std::move(acknowledged)),
      whole_messages_(kWholeStock, kWholePerSecond),
      resend_holdoff_(kResendHoldoff),
      last_sequence_(self.initial_sequence) {}

uint32_t ControlStream::post(uint32_t msg_class, std::vector<uint8_t> payload, Audience audience,
                             std::vector<NodeIndex> waiting, Time now) {
  Entry& entry = entries_.emplace_back();
  entry.message = {++last_sequence_, msg_class, std::move(audience), std::move(payload)};
  entry.segment_sent.resize(entry.message.segments());
  std::sort(waiting.begin(), waiting.end());
  if (!waiting.empty()) nodes_ = std::max<size_t>(nodes_, waiting.back() + size_t{1});
  entry.waiting = std::move(waiting);
  entry.first_sent = now;
  kept_bytes_ += entry.message.payload.size();
  if (entry.waiting.empty())
    entry.done_at = now;
  else
    ++outstanding_;
  for (uint32_t i = 0; i < entry.segment_sent.size(); ++i) transmit(entry, i, false, now);
  next_ping_ = std::min(next_ping_, now + kPingAfterMessage);
  return last_sequence_;
}

ControlStream::Entry* ControlStream::find(uint32_t sequence) {
  if (entries_.empty()) return nullptr;
  const uint32_t first = entries_.front().message.sequence;
  if (sequence < first || sequence - first >= entries_.size()) return nullptr;
  return &entries_[sequence - first];
}

void ControlStream::transmit(Entry& entry, uint32_t segment, bool again, Time now) {
  const size_t length = build_segment(sink_.buffer(), self_, entry.message, segment, again);
  if (length == 0) return;
  sink_.send(Channel::kControl, kGroup, length);
  entry.segment_sent[segment] = now;
  entry.last_sent = now;
  ++counters_.control_sent;
  if (again) ++counters_.control_resent;
}

// What went out last at `up_to` or before. False when that is nothing.
bool ControlStream::retransmit(Entry& entry, Time up_to, Time now) {
  bool some = false;
  for (uint32_t i = 0; i < entry.segment_sent.size(); ++i) {
    if (entry.segment_sent[i] > up_to) continue;
    transmit(entry, i, true, now);
    some = true;
  }
  return some;
}

Time ControlStream::held_off(Time now) const {
  return now - std::min(now, resend_holdoff_);
}

void ControlStream::acknowledge(Entry& entry, NodeIndex node, bool direct) {
  const auto at = std::lower_bound(entry.waiting.begin(), entry.waiting.end(), node);
  if (at == entry.waiting.end() || *at != node) return;
  entry.waiting.erase(at);
  if (entry.waiting.empty()) stop_waiting(entry);
  acknowledged_({entry.message.sequence, node, direct, entry.first_sent});
}

void ControlStream::stop_waiting(Entry& entry) {
  entry.waiting.clear();
  --outstanding_;
  entry.done_at = now_;
}

void ControlStream::give_up(uint32_t sequence) {
  Entry* entry = find(sequence);
  if (entry != nullptr && !entry->waiting.empty()) stop_waiting(*entry);
}

void ControlStream::give_up(uint32_t sequence, NodeIndex node) {
  if (Entry* entry = find(sequence)) stop_waiting(*entry, node);
}

void ControlStream::abandon() {
  entries_.clear();
  outstanding_ = kept_bytes_ = 0;
}

bool ControlStream::lists_outstanding() const {
  return outstanding_ != 0 && std::any_of(entries_.begin(), entries_.end(), [](const Entry& entry) {
           return !entry.waiting.empty() && entry.message.msg_class == PKGDIST_CTRL_CLASS_FILE_SEND;
         });
}

void ControlStream::on_ack(NodeIndex node, uint32_t sequence) {
  if (Entry* entry = find(sequence)) acknowledge(*entry, node, true);
}

void ControlStream::on_point(NodeIndex node, uint32_t point) {
  if (outstanding_ == 0 || entries_.empty()) return;
  // The owner may post from the callback: go by sequence, not by iterator.
  const uint32_t first = entries_.front().message.sequence;
  if (point < first || point > last_sequence_) return;  // nothing kept, or never sent
  const uint32_t covered = point - first + 1;
  for (uint32_t i = 0; i < covered; ++i)
    if (Entry* entry = find(first + i)) acknowledge(*entry, node, false);
}

void ControlStream::set_round_trip(Time round_trip) {
  resend_holdoff_ = std::max(kResendHoldoff, round_trip);
}

void ControlStream::on_nack(NodeIndex node, uint32_t sequence, bool has_segment, uint32_t segment,
                            Time now) {
  ++counters_.nacks_received;
  Entry* entry = find(sequence);
  if (entry == nullptr) return;
  if (!has_segment) {
    const auto due = std::count_if(entry->segment_sent.begin(), entry->segment_sent.end(),
                                   [&](Time sent) { return sent <= held_off(now); });
    if (whole_messages_.take(node, static_cast<double>(due), now))
      retransmit(*entry, held_off(now), now);
    return;
  }
  if (segment >= entry->segment_sent.size()) {
    ++counters_.bad_datagrams;
    return;
  }
  if (entry->segment_sent[segment] <= held_off(now)) transmit(*entry, segment, true, now);
}

void ControlStream::on_ping_reply(NodeIndex node, uint32_t point, Time asked, Time now) {
  now_ = now;
  on_point(node, point);
  if (outstanding_ == 0) return;
  // Who forges a reply can claim any time, and gets one copy for each ping like everybody.
  const Time ping = std::min(asked, last_ping_);
  const Time up_to = ping != 0 ? ping - 1 : held_off(now);
  for (Entry& entry : entries_) {
    if (entry.message.sequence <= point) continue;
    if (std::binary_search(entry.waiting.begin(), entry.waiting.end(), node) &&
        retransmit(entry, up_to, now))
      ping_after_repeat(entry, now);
  }
}

// A repeated message may be lost, too. A node that does not take it is asked ever less often.
void ControlStream::ping_after_repeat(Entry& entry, Time now) {
  const Time pause = backoff(kPingAfterMessage, entry.repeats++, kBusyPingInterval);
  next_ping_ = std::min(next_ping_, now + std::max(pause, nodes_ * kPingIntervalPerNode));
}

void ControlStream::forget(NodeIndex node) {
  for (Entry& entry : entries_) stop_waiting(entry, node);
}

void ControlStream::stop_waiting(Entry& entry, NodeIndex node) {
  const auto at = std::lower_bound(entry.waiting.begin(), entry.waiting.end(), node);
  if (at == entry.waiting.end() || *at != node) return;
  entry.waiting.erase(at);
  if (entry.waiting.empty()) stop_waiting(entry);
}

Time ControlStream::ping_interval() const {
  Time interval = kPingInterval;
  if (watch_ == Watch::kPushing) interval = kPushPingInterval;
  if (watch_ == Watch::kGathering || outstanding_ != 0) interval = kBusyPingInterval;
  return std::clamp<Time>(nodes_ * kPingIntervalPerNode, interval, kPingInterval);
}

void ControlStream::set_watch(Watch watch, Time now) {
  if (watch == watch_) return;
  watch_ = watch;
  next_ping_ = std::min(next_ping_, now + ping_interval());
}

void ControlStream::send_ping(Time now) {
  const uint64_t status = ping_status(leading_since_, now);
  const size_t length = build_ping(sink_.buffer(), self_, last_sequence_, status);
  if (length != 0) sink_.send(Channel::kControl, kGroup, length);
  ++counters_.control_sent;
  last_ping_ = now;
  next_ping_ = now + ping_interval();
}

// Every ping draws an answer of every node.
void ControlStream::ping_soon(Time now) {
  constexpr Time kLeastGap = 30 * kMillisecond;
  next_ping_ = std::min(next_ping_, std::max(now, last_ping_ + kLeastGap));
}

void ControlStream::drop_finished(Time now) {
  while (!entries_.empty() && entries_.front().waiting.empty() &&
         (elapsed(now, entries_.front().done_at) >= kKeepFinished || kept_bytes_ > kKeepBytes)) {
    kept_bytes_ -= entries_.front().message.payload.size();
    entries_.pop_front();
  }
}

void ControlStream::run(Time now) {
  now_ = now;
  if (now >= next_ping_) send_ping(now);
  if (outstanding_ != 0) {
    for (Entry& entry : entries_) {
      if (entry.waiting.empty()) continue;
      if (elapsed(now, entry.last_sent) < backoff(kFirstRetry, entry.attempts, kMaxRetry)) continue;
      ++entry.attempts;
      retransmit(entry, held_off(now), now);
    }
  }
  drop_finished(now);
}

Time ControlStream::next_deadline() const {
  // Pings come often enough while messages are outstanding to time their retries, too.
  return next_ping_;
}

}  // namespace pkgdist::lead
