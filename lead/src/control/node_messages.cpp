#include "control/node_messages.h"

#include <algorithm>
#include <iterator>

namespace pkgdist::lead {

namespace {

// After this long without a segment the missing ones are asked for, each time twice as long.
constexpr Time kFirstNack = 30 * kMillisecond;
constexpr Time kScanPeriod = 10 * kMillisecond;
// A node sends a segment again for five NACKs; its own time-outs use the same account.
constexpr uint32_t kMaxNacks = 3;
// One round asks for this many segments at most: what is lacking beyond comes by the node's
// time-out.
constexpr size_t kMaxAsked = 64;
// A message without a new segment for this long was given up by its node.
constexpr Time kAbandoned = 30 * kSecond;
// Processes of a node whose messages are remembered; it has one after the other.
constexpr size_t kMaxProcesses = 8;
// Messages of one of them: in the making, and remembered as finished.
constexpr size_t kMaxOpen = 1024;
constexpr size_t kMaxDone = 8192;
// Of all nodes together, unfinished.
constexpr size_t kMaxKept = 64 * 1024 * 1024;
// What one of them, or one of their segments, takes beside its bytes.
constexpr size_t kEntryBytes = 128;
// Nodes send segments of 1,390 bytes. Smaller ones would make a message of a million of them.
constexpr uint32_t kLeastSegment = 256;
// Once per transmission of a finished message, not once per segment of it: a node's repetitions are
// a tenth of a second apart at least.
constexpr Time kAckHoldoff = 50 * kMillisecond;
constexpr uint32_t kMaxAckCopies = 3;

}  // namespace

NodeMessages::NodeMessages(const Settings& self, const NodeTable& nodes, DatagramSink& sink,
                           Counters& counters, Deliver deliver)
    : self_(self), nodes_(nodes), sink_(sink), counters_(counters), deliver_(std::move(deliver)) {}

Time NodeMessages::Message::due() const {
  return last_activity + (nacks < kMaxNacks ? backoff(kFirstNack, nacks, kSecond) : kAbandoned);
}

size_t NodeMessages::Message::kept_bytes() const {
  size_t bytes = kEntryBytes;
  for (const auto& [index, segment] : segments) bytes += segment.size() + kEntryBytes;
  return bytes;
}

bool NodeMessages::plausible(const pkgdist_ctrl_msg_hdr& header, const pkgdist_ctrl_msg& body) {
  if (body.total_size == 0 || body.total_size > kMaxMessageSize) return false;
  if (body.segment_size == 0) return false;
  if (body.segment_size < kLeastSegment && body.segment_size < body.total_size) return false;
  const uint64_t offset = uint64_t{header.segment} * body.segment_size;
  if (offset >= body.total_size) return false;
  return body.data_size == std::min<uint64_t>(body.segment_size, body.total_size - offset);
}

void NodeMessages::on_segment(NodeIndex node, const pkgdist_ctrl_msg_hdr& header,
                              const pkgdist_ctrl_msg& body, Time now) {
  if (!plausible(header, body)) {
    ++counters_.bad_datagrams;
    return;
  }
  Peer& peer = peer_of(node, header.pid);
  if (const auto done = peer.done.find(header.sequence); done != peer.done.end())
    return acknowledge_again(node, header.sequence, done->second, now);
  Message* const message = entry(peer, header.sequence, body, now);
  if (message == nullptr) return;
  message->last_activity = now;
  keep(peer, *message, header.segment, body);
  if (message->segments.size() == message->expected())
    finish(node, peer, header.sequence, now);
  else if (kept_bytes_ > kMaxKept)
    make_room();
}

// The unfinished message of this sequence; null when the segment is of another one, or the node has
// too many: it sends this one again.
NodeMessages::Message* NodeMessages::entry(Peer& peer, uint32_t sequence,
                                           const pkgdist_ctrl_msg& body, Time now) {
  if (const auto found = peer.open.find(sequence); found != peer.open.end()) {
    Message& message = found->second;
    if (message.total == body.total_size && message.segment_size == body.segment_size)
      return &message;
    ++counters_.bad_datagrams;
    return nullptr;
  }
  if (peer.open.size() >= kMaxOpen) return nullptr;
  Message& message = peer.open[sequence];
  message.msg_class = body.msg_class;
  message.total = body.total_size;
  message.segment_size = body.segment_size;
  peer.kept_bytes += kEntryBytes;
  kept_bytes_ += kEntryBytes;
  if (open_++ == 0) next_scan_ = now + kScanPeriod;
  return &message;
}

void NodeMessages::keep(Peer& peer, Message& message, uint32_t segment,
                        const pkgdist_ctrl_msg& body) {
  if (!message.segments.try_emplace(segment, body.data, body.data + body.data_size).second) return;
  peer.kept_bytes += body.data_size + kEntryBytes;
  kept_bytes_ += body.data_size + kEntryBytes;
}

NodeMessages::Open NodeMessages::drop(Peer& peer, Open message) {
  const size_t bytes = message->second.kept_bytes();
  peer.kept_bytes -= bytes;
  kept_bytes_ -= bytes;
  --open_;
  return peer.open.erase(message);
}

void NodeMessages::drop_all(Peer& peer) {
  for (auto at = peer.open.begin(); at != peer.open.end();) at = drop(peer, at);
}

void NodeMessages::make_room() {
  const auto most = std::max_element(
      peers_.begin(), peers_.end(),
      [](const auto& a, const auto& b) { return a.second.kept_bytes < b.second.kept_bytes; });
  drop_all(most->second);
}

void NodeMessages::acknowledge_again(NodeIndex node, uint32_t sequence, Done& done, Time now) {
  if (elapsed(now, done.acknowledged) < kAckHoldoff) return;
  done.acknowledged = now;
  done.repeats = std::min(done.repeats + 1, kMaxAckCopies - 1);
  for (uint32_t copies = 0; copies <= done.repeats; ++copies)
    answer(node, PKGDIST_CTRL_MSG_ACK, sequence, nullptr);
}

void NodeMessages::finish(NodeIndex node, Peer& peer, uint32_t sequence, Time now) {
  const auto found = peer.open.find(sequence);
  const size_t kept = found->second.kept_bytes();
  const Message message = std::move(found->second);
  peer.open.erase(found);
  peer.kept_bytes -= kept;
  kept_bytes_ -= kept;
  --open_;
  peer.done.emplace(sequence, Done{now, 0});
  if (peer.done.size() > kMaxDone) peer.done.erase(peer.done.begin());
  answer(node, PKGDIST_CTRL_MSG_ACK, sequence, nullptr);
  std::vector<uint8_t> bytes;
  bytes.reserve(message.total);
  for (const auto& [index, segment] : message.segments)
    bytes.insert(bytes.end(), segment.begin(), segment.end());
  deliver_(node, message.msg_class, bytes);
}

void NodeMessages::answer(NodeIndex node, uint32_t msg_id, uint32_t sequence,
                          const uint32_t* segment) {
  const size_t length = build_answer(sink_.buffer(), self_, msg_id, sequence, segment);
  if (length == 0) return;
  sink_.send(Channel::kControl, nodes_[node].info.address, length);
  ++counters_.control_sent;
}

void NodeMessages::ask_missing(NodeIndex node, uint32_t sequence, const Message& message) {
  size_t asked = 0;
  const uint64_t expected = message.expected();
  for (uint32_t i = 0; i < expected && asked < kMaxAsked; ++i) {
    if (message.segments.contains(i)) continue;
    answer(node, PKGDIST_CTRL_MSG_NACK, sequence, &i);
    ++asked;
  }
}

void NodeMessages::forget(NodeIndex node) {
  for (auto at = peers_.lower_bound({node, 0}); at != peers_.end() && at->first.first == node;) {
    drop_all(at->second);
    at = peers_.erase(at);
  }
}

// Of too many processes of a node, one that is not the present one makes room.
NodeMessages::Peer& NodeMessages::peer_of(NodeIndex node, uint32_t pid) {
  const auto found = peers_.find({node, pid});
  if (found != peers_.end()) return found->second;
  const auto first = peers_.lower_bound({node, 0});
  const auto end = peers_.upper_bound({node, UINT32_MAX});
  if (static_cast<size_t>(std::distance(first, end)) >= kMaxProcesses) {
    const auto other = first->first.second != nodes_[node].info.pid ? first : std::next(first);
    drop_all(other->second);
    peers_.erase(other);
  }
  return peers_[{node, pid}];
}

void NodeMessages::run(Time now) {
  if (open_ == 0 || now < next_scan_) return;
  next_scan_ = now + kScanPeriod;
  for (auto& [process, peer] : peers_) {
    for (auto at = peer.open.begin(); at != peer.open.end();) {
      Message& message = at->second;
      if (message.due() > now) {
        ++at;
        continue;
      }
      if (message.nacks >= kMaxNacks) {
        at = drop(peer, at);
        continue;
      }
      ask_missing(process.first, at->first, message);
      ++message.nacks;
      message.last_activity = now;
      ++at;
    }
  }
}

Time NodeMessages::next_deadline() const {
  return open_ == 0 ? kNever : next_scan_;
}

}  // namespace pkgdist::lead
