#include "stream/data_sender.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

uint32_t segments_of(uint64_t size, uint32_t segment_size) {
  return static_cast<uint32_t>(std::max<uint64_t>(1, (size + segment_size - 1) / segment_size));
}

// A fixed rate, else a ceiling, else none.
uint64_t rate_limit(const Settings& self) {
  return self.rate_bits != 0 ? self.rate_bits : self.max_rate_bits;
}

}  // namespace

DataSender::DataSender(const Settings& self, const NodeTable& nodes, DatagramSink& sink,
                       ContentStore& store, Counters& counters, TransferObserver& observer)
    : self_(self),
      counters_(counters),
      table_(self.seed),
      contents_(store),
      window_(table_.busy()),
      pacer_(rate_limit(self)),
      output_(self, nodes, sink, contents_, window_, pacer_, counters),
      schedule_(table_),
      repairs_(table_),
      settling_({table_, contents_, window_, output_, schedule_, repairs_, loss_}, counters,
                observer) {}

// --- Transfers ---

TransferId DataSender::start(FileKey key, uint32_t priority, uint64_t tag,
                             const std::vector<NodeIndex>& nodes, Time now) {
  FileAttributes attributes;
  std::unique_ptr<Content> content;
  const int error = contents_.inspect(key, attributes, content);
  if (error != 0) attributes = {};
  Transfer& transfer =
      table_.add(std::move(key), attributes, segments_of(attributes.size, self_.segment_size));
  transfer.tag = tag;
  transfer.started = now;
  transfer.priority = priority;
  if (error != 0) transfer.status = PKGDIST_STATUS_FROM_ERRNO(error);
  if (error == 0) contents_.adopt(transfer.id, std::move(content));
  for (const NodeIndex node : nodes) {
    transfer.set_state(node, TransferNode::State::kOpen);
    transfer.node(node).heard = now;
  }
  schedule_.enter(transfer);
  return transfer.id;
}

void DataSender::join(TransferId id, NodeIndex node, bool asked, Time now) {
  Transfer* const transfer = table_.at(id);
  if (transfer == nullptr) return;
  using Stage = Transfer::Stage;
  if (asked) contact_.asked(node);
  const bool had_info = transfer->node(node).has_info;
  transfer->set_state(node, TransferNode::State::kOpen);
  transfer->node(node).hear(now);
  if (transfer->stage == Stage::kQueued) return;
  // Several nodes ask at the same moment: one information serves them all.
  constexpr Time kInfoHoldoff = 2 * kMillisecond;
  if (elapsed(now, transfer->info_sent) >= kInfoHoldoff) output_.info(*transfer, now);
  if (transfer->stage == Stage::kAnnounced) return;
  if (transfer->status != 0) return settling_.begin(*transfer, now);
  if (had_info && asked) return settling_.hurry(*transfer, now);  // it has most of the file
  if (transfer->stage == Stage::kStreaming)
    transfer->turn.extend();
  else
    settling_.stream_again(*transfer);
}

void DataSender::drop_node(NodeIndex node) {
  contact_.forget(node);
  for (const TransferId id : table_.ids()) {
    Transfer* const transfer = table_.at(id);
    if (transfer == nullptr || node >= transfer->nodes.size()) continue;
    transfer->set_state(node, TransferNode::State::kAbsent);
    settling_.close_if_ended(*transfer);
  }
}

void DataSender::abandon(uint64_t tag_limit) {
  for (const TransferId id : table_.ids())
    if (Transfer* const transfer = table_.at(id);
        transfer->tag < tag_limit || tag_limit == UINT64_MAX)
      settling_.close(*transfer);
}

double DataSender::backlog_seconds() {
  const double bytes = static_cast<double>(schedule_.waiting_bytes() +
                                           schedule_.segments_ahead() * self_.segment_size);
  const double limit = pacer_.bytes_per_second();
  const double rate = limit != 0 ? std::min(limit, window_.rate()) : window_.rate();
  return bytes / rate;
}

// --- What nodes say ---

// Whether the node has only now found out that it lacks the run: what the stream has just sent, or
// a small file of which it has not asked for anything yet. Others come from its time-outs.
bool DataSender::is_first_request(const Transfer& transfer, NodeIndex node, uint32_t first,
                                  uint32_t num) const {
  if (!transfer.first_turn && transfer.segments > kFirstInformedAgain) return false;
  if (transfer.segments <= kFirstInformedAgain) return !transfer.nodes[node].has_info;
  const uint64_t recent = 2 * window_.size() / self_.segment_size + 2 * kFirstInformedAgain;
  return uint64_t{first} + num + recent >= transfer.turn.done();
}

uint32_t DataSender::on_segment_request(NodeIndex node, uint32_t file_id, uint32_t first,
                                        uint32_t num, Time now) {
  Transfer* const transfer = table_.at(file_id);
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
  if (state.has_info)
    contact_.asked(node);
  else
    contact_.answered(node);  // the information has reached it
  uint32_t gone = 0;
  transfer->repairs.set_holdoff(2 * window_.round_trip());
  transfer->turn.behind(first, num, [&](uint32_t from, uint32_t count) {
    transfer->repairs.request(from, count, now);
    gone += count;
  });
  if (state.state == TransferNode::State::kOpen) {
    if (is_first_request(*transfer, node, first, num)) window_.lost(node, gone);
    settling_.on_request(*transfer, node, gone, now);
  }
  state.asked = state.has_info = true;
  state.hear(now);
  transfer->last_request = now;
  transfer->progress();
  counters_.segments_requested += gone;
  loss_.lost(static_cast<double>(gone) / std::max<double>(1, transfer->open));
  repairs_.enter(*transfer);
  return gone;
}

void DataSender::on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now) {
  if (report.status != PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT)) contact_.answered(node);
  if (!window_.answered(report.file_id, node, now)) settling_.on_report(node, report, now);
}

// --- What is sent next ---

bool DataSender::send_segment(Transfer& transfer, uint32_t segment, DataOutput::As as, Time now) {
  const int error = output_.segment(transfer, segment, as, now);
  if (error != 0) settling_.fail(transfer, error, now);
  return error == 0;
}

void DataSender::send_infos(Transfer& transfer, int copies, Time now) {
  for (int i = 0; i < copies; ++i) output_.info(transfer, now);
}

// The copies of an information are divided: some now, some right ahead of the first segment.
bool DataSender::send_announcement(Time now) {
  Transfer* const transfer = schedule_.next_announcement();
  if (transfer == nullptr) return false;
  const int copies = loss_.info_copies(transfer->open, transfer->attributes.size);
  send_infos(*transfer, copies - copies / 2, now);
  if (transfer->status != 0) {
    schedule_.leave_waiting(*transfer);
    settling_.begin(*transfer, now);
    return true;
  }
  transfer->stage = Transfer::Stage::kAnnounced;
  schedule_.announced(*transfer, now);
  return true;
}

bool DataSender::send_repair(Time now) {
  const std::optional<RepairLine::Repair> repair = repairs_.take(now);
  if (!repair) return false;
  Transfer& transfer = *repair->transfer;
  if (send_segment(transfer, repair->segment, DataOutput::As::kRepair, now) && repair->last)
    settling_.repaired(transfer);
  return true;
}

bool DataSender::send_stream(Time now) {
  Transfer* const next = schedule_.streamable(now);
  if (next == nullptr) return false;
  Transfer& transfer = *next;
  if (transfer.stage == Transfer::Stage::kAnnounced) {
    schedule_.leave_waiting(transfer);
    transfer.stage = Transfer::Stage::kStreaming;
    send_infos(transfer, loss_.info_copies(transfer.open, transfer.attributes.size) / 2, now);
  }
  if (transfer.stage != Transfer::Stage::kStreaming || !transfer.turn.active()) {
    schedule_.end_turn(transfer);  // failed meanwhile
    return true;
  }
  if (transfer.first_turn && informs_again_at(transfer.turn.done())) output_.info(transfer, now);
  if (!send_segment(transfer, transfer.turn.segment(), DataOutput::As::kFirst, now)) return true;
  loss_.sent(1);
  transfer.turn.advance();
  if (transfer.turn.active()) return true;
  transfer.first_turn = false;
  schedule_.end_turn(transfer);
  settling_.begin(transfer, now);
  return true;
}

// Repairs and the stream take turns.
bool DataSender::send_next(Time now) {
  if (send_announcement(now)) return true;
  const bool repair_first = std::exchange(repair_next_, !repair_next_);
  if (repair_first && send_repair(now)) return true;
  return send_stream(now) || (!repair_first && send_repair(now));
}

bool DataSender::poll_if_due(bool stops, Time now) {
  if (!window_.poll_due(stops, now)) return false;
  const TransferId number = table_.next_id();
  const std::vector<NodeIndex>& nodes = window_.begin_poll(number, now);
  if (nodes.empty()) return false;
  for (const NodeIndex node : nodes) contact_.polled(node, now);
  output_.window_poll(number, nodes);
  return true;
}

void DataSender::run(Time now) {
  pacer_.refill(now);
  if (pacer_.next_ready(now) > now) return;  // woken early: less would go out than a call is worth
  while (pacer_.ready()) {
    if (poll_if_due(false, now) || settling_.run(now)) continue;
    if (!window_.open()) {
      window_.note_full(now);
      break;
    }
    if (!send_next(now)) break;
  }
  poll_if_due(true, now);
}

Time DataSender::next_deadline(Time now) const {
  Time deadline = settling_.next_deadline();
  if (window_.open())
    deadline = std::min(deadline, repairs_.empty() ? schedule_.next_deadline() : now);
  deadline = std::min(deadline, window_.next_poll(now));
  if (deadline == kNever) return kNever;
  return std::max(deadline, pacer_.next_ready(now));
}

}  // namespace pkgdist::lead
