// Repairs on their way: what nodes asked for, from the request to the datagram and, where batches
// of datagrams get lost as a whole, to the node's confirmation. What is repaired without a request
// is up to settling (data_settling.cpp).
#include "data_sender.h"

namespace pkgdist::lead {

namespace {

// Datagrams of one batch of repairs; a question follows.
constexpr size_t kRepairBatch = 42;
// Each of the nodes answers to each batch of repairs: for a few nodes only.
constexpr uint32_t kFewNodes = 8;
// How long a batch that was lost, or torn when a queue ran over, makes it likely that others are.
constexpr Time kLikelyAgain = 2 * kSecond;

}  // namespace

// Whether batches get lost as a whole, and these nodes can be asked to confirm them.
bool DataSender::confirms(const Transfer& transfer, Time now) const {
  return batch_lost_ != 0 && elapsed(now, batch_lost_) < kLikelyAgain &&
         transfer.segments > kMediumFile && transfer.open <= kFewNodes;
}

// --- Requests ---

// A node that asks for a part of a batch has lost it: all of it is repaired, the rest of the run as
// it was asked for. A run that is not made of parts may have been lost otherwise; as long as
// nothing else is known it is just repaired. Returns how many segments are to be repaired because
// of it.
uint32_t DataSender::request_repair(Transfer& transfer, NodeIndex node, uint32_t first,
                                    uint32_t num, Time now) {
  const bool concerned = transfer.node(node).state == TransferNode::State::kOpen;
  if (!concerned || transfer.open > kFewNodes) return transfer.repairs.request(first, num, now);
  const auto streamed = static_cast<uint32_t>(transfer.streamed_segments());
  const bool parts = transfer.batches.made_of_parts(first, num, streamed);
  if (parts) batch_lost_ = now;
  if (!confirms(transfer, now)) return transfer.repairs.request(first, num, now);
  if (!parts && !transfer.batches.was_sent_ahead(first)) overrun_ = now;
  const uint32_t end = first + num;
  uint32_t from = first;
  uint32_t due = 0;
  for (const BatchLog::Batch& lost : transfer.batches.lost(first, num, streamed)) {
    if (!transfer.confirmed.join(lost.first, node)) {
      if (transfer.confirmed.full()) continue;
      repair_confirmed(transfer, lost.first, transfer.batches.segments_of(lost), {node});
      due += lost.end - lost.first;
    }
    for (const uint32_t ahead : transfer.batches.ahead_of(lost, first, num))
      due += transfer.repairs.request(ahead, 1, now);
    if (from < lost.first) due += transfer.repairs.request(from, lost.first - from, now);
    from = std::min(end, lost.end);
  }
  if (from < end) due += transfer.repairs.request(from, end - from, now);
  return due;
}

ConfirmedRepairs::Batch& DataSender::repair_confirmed(Transfer& transfer, uint32_t place,
                                                      std::vector<uint32_t> segments,
                                                      const std::vector<NodeIndex>& nodes) {
  if (transfer.confirmed.empty()) confirming_.push_back(transfer.id);
  return transfer.confirmed.add(place, std::move(segments), nodes);
}

bool DataSender::on_confirmed(Transfer& transfer, NodeIndex node, uint32_t question, Time now) {
  const Time delay = transfer.confirmed.answered(question, node, now);
  if (delay == 0) return false;
  note_reaction(now - delay, now);
  transfer.node(node).hear(now);
  const bool last = transfer.confirmed.empty() && !transfer.in_repair_line;
  if (last && transfer.stage == Transfer::Stage::kSettling) arm(transfer, now + grace());
  return true;
}

// --- Sending ---

void DataSender::enter_repair_line(Transfer& transfer) {
  if (transfer.in_repair_line || transfer.repairs.empty()) return;
  transfer.in_repair_line = true;
  repairing_.push_back(transfer.id);
}

// A file with a batch of repairs that is due.
Transfer* DataSender::confirming(Time now) {
  std::erase_if(confirming_, [&](TransferId id) {
    const Transfer* transfer = at(id);
    return transfer == nullptr || transfer->confirmed.empty();
  });
  for (const TransferId id : confirming_)
    if (Transfer* transfer = at(id); transfer->confirmed.due() <= now) return transfer;
  return nullptr;
}

// The stream gets as many segments afterwards.
bool DataSender::send_repair(Time now) {
  if (Transfer* transfer = confirming(now))
    if (ConfirmedRepairs::Batch* batch = transfer->confirmed.next_due(now)) {
      send_confirmed(*transfer, *batch, now);
      return true;
    }
  Transfer* transfer = head(repairing_);
  if (transfer == nullptr) return false;
  // One segment or batch of a file, then the next file has its turn.
  repairing_.pop_front();
  if (!transfer->repairs.empty()) send_repair_of(*transfer, now);
  if (!transfer->repairs.empty()) {
    repairing_.push_back(transfer->id);
    return true;
  }
  transfer->in_repair_line = false;
  if (transfer->stage == Transfer::Stage::kSettling) arm(*transfer, now + grace());
  return true;
}

void DataSender::send_repair_of(Transfer& transfer, Time now) {
  if (confirms(transfer, now) && !transfer.confirmed.full()) {
    const std::vector<NodeIndex> askers = nodes_of(transfer, true);
    if (!askers.empty())
      return send_confirmed(transfer, gather_repairs(transfer, askers, now), now);
  }
  ++repairs_ahead_;
  send_segment(transfer, transfer.repairs.take(now), Sending::kRepair, now);
}

// The nodes that have not ended the file; those who have asked for segments of it, or all.
std::vector<NodeIndex> DataSender::nodes_of(const Transfer& transfer, bool askers) {
  std::vector<NodeIndex> nodes;
  for (NodeIndex i = 0; i < transfer.nodes.size(); ++i) {
    const TransferNode& node = transfer.nodes[i];
    if (node.state == TransferNode::State::kOpen && (node.has_info || !askers)) nodes.push_back(i);
  }
  return nodes;
}

// The next of what is to be repaired.
ConfirmedRepairs::Batch& DataSender::gather_repairs(Transfer& transfer,
                                                    const std::vector<NodeIndex>& nodes, Time now) {
  std::vector<uint32_t> segments;
  while (segments.size() < kRepairBatch && !transfer.repairs.empty())
    segments.push_back(transfer.repairs.take(now));
  return repair_confirmed(transfer, ConfirmedRepairs::kNoPlace, std::move(segments), nodes);
}

// The question before it is the last datagram of the batch before, the other one of its own.
void DataSender::send_confirmed(Transfer& transfer, ConfirmedRepairs::Batch& batch, Time now) {
  const bool torn = overrun_ != 0 && elapsed(now, overrun_) < kLikelyAgain;
  const TransferId before = torn ? ask(transfer, batch) : kNoTransfer;
  sink_.end_batch();
  repairs_ahead_ += static_cast<int64_t>(batch.segments.size());
  for (const uint32_t segment : batch.segments)
    if (!send_segment(transfer, segment, Sending::kRepair, now)) return;  // and `batch` is gone
  ConfirmedRepairs::sent(batch, before, ask(transfer, batch), now, answer_time());
  sink_.end_batch();
}

TransferId DataSender::ask(const Transfer& transfer, const ConfirmedRepairs::Batch& batch) {
  listed_.clear();
  for (const auto& node : batch.nodes) listed_.push_back(nodes_[node.index].info.address);
  return send_question(transfer);
}

// No segment follows by which a node would notice that it lost the end of the stream.
void DataSender::confirm_last_batch(Transfer& transfer, Time now) {
  const bool logged = transfer.first_turn && transfer.turn.done() == transfer.segments;
  if (!logged || !confirms(transfer, now) || transfer.confirmed.full()) return;
  const BatchLog::Batch last = transfer.batches.last(transfer.segments);
  ConfirmedRepairs::Batch& batch = repair_confirmed(
      transfer, last.first, transfer.batches.segments_of(last), nodes_of(transfer, false));
  ConfirmedRepairs::sent(batch, kNoTransfer, ask(transfer, batch), now, answer_time());
}

}  // namespace pkgdist::lead
