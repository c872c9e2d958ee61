#include "control/outbox.h"

#include <algorithm>
#include <utility>

namespace pkgdist::lead {

namespace {

// How long a list waits for those before it.
constexpr Time kListHold = 2 * kSecond;
// Reports of finished messages that are remembered.
constexpr size_t kMaxFinished = 256;
// A message that waits for others to the same node is looked at this often.
constexpr Time kCheckPeriod = 20 * kMillisecond;

bool sensible(const Audience& audience) {
  if (audience.unicast) return audience.nodes.size() == 1;
  return audience.nodes.empty() != (audience.card_class == kCardClassListed);
}

}  // namespace

bool MessageReport::complete() const {
  return finished && !nodes.empty() &&
         std::all_of(nodes.begin(), nodes.end(), [](const MessageNode& node) {
           return node.delivery == Delivery::kAcknowledged;
         });
}

MessageId Outbox::post(MessageKind kind, uint32_t msg_class, std::vector<uint8_t> bytes,
                       const Audience& audience, Time timeout, Time now) {
  if (bytes.empty() || bytes.size() > kMaxMessageSize || !sensible(audience)) return 0;
  if (++last_id_ == 0) ++last_id_;
  Message& message = messages_[last_id_];
  message.report.id = last_id_;
  message.report.kind = kind;
  message.msg_class = msg_class;
  message.bytes = std::move(bytes);
  message.audience = audience;
  message.timeout = audience.unicast ? std::min(timeout, kUnicastTimeout) : timeout;
  message.hold_until = msg_class == PKGDIST_CTRL_CLASS_FILE_SEND ? now + kListHold : now;
  ++open_;
  const MessageId id = last_id_;
  enter_nodes(message);
  send_if_due(message, now);
  return id;  // known to the owner before it is finished, by run()
}

void Outbox::enter_nodes(Message& message) const {
  const Audience& audience = message.audience;
  std::vector<MessageNode>& entered = message.report.nodes;
  for (uint32_t address : audience.nodes) {
    const NodeIndex index = nodes_.find(address);
    const bool heard = index != kNoNode && nodes_[index].info.pid != 0;
    MessageNode& node = entered.emplace_back();
    node.info.address = address;
    if (heard) node.info = nodes_[index].info;
    if (!heard) node.delivery = Delivery::kNeverHeard;
    if (heard && nodes_[index].silent) node.delivery = Delivery::kSilent;
  }
  for (NodeIndex i = 0; audience.nodes.empty() && i < nodes_.size(); ++i) {
    const NodeInfo& info = nodes_[i].info;
    if (!nodes_[i].silent && info.pid != 0 && audience.includes(info.address, info.card_class))
      entered.push_back({info});
  }
  message.pending = static_cast<uint32_t>(
      std::count_if(entered.begin(), entered.end(),
                    [](const MessageNode& node) { return node.delivery == Delivery::kPending; }));
}

void Outbox::send_if_due(Message& message, Time now) {
  if (message.sent || (now < message.hold_until && control_.lists_outstanding())) return;
  send(message, now);
}

void Outbox::send(Message& message, Time now) {
  message.sent = true;
  message.deadline = now + message.timeout;
  if (!message.audience.unicast) return send_multicast(message, now);
  if (message.pending == 0) return;
  streams_.post(message.report.id, nodes_.find(message.audience.nodes[0]), message.msg_class,
                std::move(message.bytes), now);
}

void Outbox::send_multicast(Message& message, Time now) {
  const std::vector<uint32_t>& listed = message.audience.nodes;
  size_t start = 0;
  do {
    Audience part = message.audience;
    if (!listed.empty()) {
      const size_t end = std::min(listed.size(), start + kMaxNodesPerMessage);
      part.nodes.assign(listed.begin() + static_cast<ptrdiff_t>(start),
                        listed.begin() + static_cast<ptrdiff_t>(end));
    }
    std::vector<NodeIndex> waiting;
    for (const MessageNode& node : message.report.nodes)
      if (node.delivery == Delivery::kPending &&
          part.includes(node.info.address, node.info.card_class))
        waiting.push_back(nodes_.find(node.info.address));
    const uint32_t sequence =
        control_.post(message.msg_class, message.bytes, std::move(part), std::move(waiting), now);
    message.sequences.push_back(sequence);
    by_sequence_[sequence] = message.report.id;
    start += kMaxNodesPerMessage;
  } while (start < listed.size());
  message.bytes = {};
}

Outbox::Message* Outbox::find(MessageId id) {
  const auto found = messages_.find(id);
  return found != messages_.end() ? &found->second : nullptr;
}

MessageReport Outbox::report(MessageId id) const {
  const auto found = messages_.find(id);
  return found != messages_.end() ? found->second.report : MessageReport{};
}

// --- What became of it ---

void Outbox::settle(Message& message, MessageNode& node, Delivery how) {
  if (node.delivery != Delivery::kPending) return;
  node.delivery = how;
  --message.pending;
  if (how == Delivery::kAcknowledged)
    events_.message_acknowledged(node.info, message.report.id);
  else
    events_.message_missed(node.info, message.report.id, how);
}

void Outbox::settle_rest(Message& message, Delivery how) {
  for (MessageNode& node : message.report.nodes) settle(message, node, how);
}

void Outbox::finish_if_ended(Message& message) {
  if (message.report.finished || message.pending != 0 || !message.sent) return;
  message.report.finished = true;
  --open_;
  for (uint32_t sequence : message.sequences) by_sequence_.erase(sequence);
  for (const MessageNode& node : message.report.nodes)
    if (node.delivery == Delivery::kNeverHeard)
      events_.message_missed(node.info, message.report.id, node.delivery);
  events_.message_finished(message.report);
  finished_.push_back(message.report.id);
  if (finished_.size() <= kMaxFinished) return;
  messages_.erase(finished_.front());
  finished_.pop_front();
}

bool Outbox::on_acknowledged(uint32_t sequence, NodeIndex node, bool certain) {
  const auto found = by_sequence_.find(sequence);
  if (found == by_sequence_.end()) return false;
  Message& message = messages_.at(found->second);
  for (MessageNode& one : message.report.nodes)
    if (one.info.address == nodes_[node].info.address)
      settle(message, one, certain ? Delivery::kAcknowledged : Delivery::kUncertain);
  message.progressed = true;
  finish_if_ended(message);
  return true;
}

void Outbox::on_unicast_acknowledged(MessageId id) {
  Message* message = find(id);
  if (message == nullptr || message->report.finished) return;
  settle_rest(*message, Delivery::kAcknowledged);
  finish_if_ended(*message);
}

// Finishing a message drops an older one: by number, not by iterator.
std::vector<MessageId> Outbox::open_messages() const {
  std::vector<MessageId> open;
  if (open_ == 0) return open;
  for (const auto& [id, message] : messages_)
    if (!message.report.finished) open.push_back(id);
  return open;
}

void Outbox::on_gone(NodeIndex node, Delivery why) {
  for (MessageId id : open_messages()) {
    Message& message = messages_.at(id);
    for (MessageNode& one : message.report.nodes)
      if (one.info.address == nodes_[node].info.address) settle(message, one, why);
    finish_if_ended(message);
  }
}

void Outbox::give_up_all(Delivery why) {
  for (MessageId id : open_messages()) {
    Message& message = messages_.at(id);
    message.sent = true;
    settle_rest(message, why);
    finish_if_ended(message);
  }
}

void Outbox::check_deadline(Message& message, Time now) {
  const bool unicast = message.audience.unicast;
  const NodeIndex only = unicast ? nodes_.find(message.audience.nodes[0]) : kNoNode;
  if (unicast) {
    // The clock runs from the first transmission, behind whatever was queued before it.
    const Time first = streams_.first_sent(message.report.id, only);
    const bool queued = first == 0 && nodes_[only].adopted_at != 0;
    if (first != 0) message.deadline = first + message.timeout;
    if (queued) message.deadline = now + kCheckPeriod;
  }
  if (std::exchange(message.progressed, false)) message.deadline = now + message.timeout;
  if (now < message.deadline) return;
  for (uint32_t sequence : message.sequences) control_.give_up(sequence);
  if (unicast) streams_.give_up(message.report.id, only, now);
  settle_rest(message, Delivery::kTimeout);
}

void Outbox::run(Time now) {
  for (MessageId id : open_messages()) {
    Message& message = messages_.at(id);
    send_if_due(message, now);
    if (message.sent && message.pending != 0) check_deadline(message, now);
    finish_if_ended(message);
  }
}

Time Outbox::next_deadline() const {
  if (open_ == 0) return kNever;
  Time deadline = kNever;
  for (const auto& [id, message] : messages_) {
    if (message.report.finished) continue;
    if (message.sent && message.pending == 0) return 0;
    deadline = std::min(deadline, message.sent ? message.deadline : message.hold_until);
  }
  return deadline;
}

}  // namespace pkgdist::lead
