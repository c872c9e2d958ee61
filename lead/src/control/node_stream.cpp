#include "control/node_stream.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

// Without an answer a message is sent again after this time, doubling up to the ceiling. A node
// asks for single segments after a quarter of a second without one.
constexpr Time kFirstRepeat = 100 * kMillisecond;
constexpr Time kMaxRepeat = 400 * kMillisecond;
// A message is not sent again as a whole within this time, nor within a round trip.
constexpr Time kRepeatHoldoff = 20 * kMillisecond;

}  // namespace

NodeStreams::NodeStreams(const Settings& self, const NodeTable& nodes, DatagramSink& sink,
                         Counters& counters, Acknowledged acknowledged)
    : self_(self),
      nodes_(nodes),
      sink_(sink),
      counters_(counters),
      acknowledged_(std::move(acknowledged)),
      resend_holdoff_(kRepeatHoldoff) {}

void NodeStreams::set_round_trip(Time round_trip) {
  resend_holdoff_ = std::max(kRepeatHoldoff, round_trip);
}

void NodeStreams::post(MessageId id, NodeIndex node, uint32_t msg_class,
                       std::vector<uint8_t> payload, Time now) {
  Stream& stream = streams_.try_emplace(node, Stream{first_sequence_, {}}).first->second;
  Waiting& waiting = stream.queue.emplace_back();
  waiting.id = id;
  waiting.message.msg_class = msg_class;
  waiting.message.payload = std::move(payload);
  ++queued_;
  start_next(node, stream, now);
}

void NodeStreams::start_next(NodeIndex node, Stream& stream, Time now) {
  if (stream.queue.empty() || stream.queue.front().first_sent != 0) return;
  if (nodes_[node].adopted_at == 0) return;
  Waiting& next = stream.queue.front();
  next.message.sequence = ++stream.last_sequence;
  next.first_sent = now;
  transmit_all(node, next, false, now);
}

void NodeStreams::transmit(NodeIndex node, Waiting& waiting, uint32_t segment, bool again,
                           Time now) {
  const size_t length = build_segment(sink_.buffer(), self_, waiting.message, segment, again);
  if (length == 0) return;
  sink_.send(Channel::kControl, nodes_[node].info.address, length);
  waiting.last_sent = now;
  ++counters_.control_sent;
  if (again) ++counters_.control_resent;
}

void NodeStreams::transmit_all(NodeIndex node, Waiting& waiting, bool again, Time now) {
  for (uint32_t i = 0; i < waiting.message.segments(); ++i) transmit(node, waiting, i, again, now);
}

NodeStreams::Stream* NodeStreams::stream_of(NodeIndex node, uint32_t sequence) {
  const auto found = streams_.find(node);
  if (found == streams_.end() || found->second.queue.empty()) return nullptr;
  const Waiting& front = found->second.queue.front();
  return front.first_sent != 0 && front.message.sequence == sequence ? &found->second : nullptr;
}

void NodeStreams::on_ack(NodeIndex node, uint32_t sequence, Time now) {
  Stream* stream = stream_of(node, sequence);
  if (stream == nullptr) return;
  const MessageId id = stream->queue.front().id;
  stream->queue.pop_front();
  --queued_;
  start_next(node, *stream, now);
  acknowledged_(id);
}

void NodeStreams::on_nack(NodeIndex node, uint32_t sequence, bool has_segment, uint32_t segment,
                          Time now) {
  ++counters_.nacks_received;
  Stream* stream = stream_of(node, sequence);
  if (stream == nullptr) return;
  Waiting& front = stream->queue.front();
  if (!has_segment) {
    if (elapsed(now, front.last_sent) >= resend_holdoff_) transmit_all(node, front, true, now);
    return;
  }
  if (segment < front.message.segments()) return transmit(node, front, segment, true, now);
  ++counters_.bad_datagrams;
}

Time NodeStreams::first_sent(MessageId id, NodeIndex node) const {
  const auto found = streams_.find(node);
  if (found == streams_.end()) return 0;
  for (const Waiting& waiting : found->second.queue)
    if (waiting.id == id) return waiting.first_sent;
  return 0;
}

void NodeStreams::give_up(MessageId id, NodeIndex node, Time now) {
  const auto found = streams_.find(node);
  if (found == streams_.end()) return;
  queued_ -=
      std::erase_if(found->second.queue, [id](const Waiting& waiting) { return waiting.id == id; });
  start_next(node, found->second, now);
}

void NodeStreams::forget(NodeIndex node) {
  const auto found = streams_.find(node);
  if (found == streams_.end()) return;
  queued_ -= found->second.queue.size();
  found->second.queue.clear();
}

void NodeStreams::remove(NodeIndex node) {
  forget(node);
  const auto found = streams_.find(node);
  if (found == streams_.end()) return;
  first_sequence_ = std::max(first_sequence_, found->second.last_sequence);
  streams_.erase(found);
}

Time NodeStreams::retry_at(const Waiting& waiting) {
  return waiting.last_sent + backoff(kFirstRepeat, waiting.attempts, kMaxRepeat);
}

void NodeStreams::run(Time now) {
  if (queued_ == 0) return;
  for (auto& [node, stream] : streams_) {
    start_next(node, stream, now);
    if (stream.queue.empty()) continue;
    Waiting& front = stream.queue.front();
    if (front.first_sent == 0 || now < retry_at(front)) continue;
    ++front.attempts;
    transmit_all(node, front, true, now);
  }
}

Time NodeStreams::next_deadline() const {
  if (queued_ == 0) return kNever;
  Time deadline = kNever;
  for (const auto& [node, stream] : streams_) {
    if (stream.queue.empty()) continue;
    // What waits for the node's answer to a ping is woken by that.
    const Waiting& front = stream.queue.front();
    if (front.first_sent != 0) deadline = std::min(deadline, retry_at(front));
  }
  return deadline;
}

}  // namespace pkgdist::lead
