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
      arrival_(table_.busy()),
      settling_({table_, contents_, window_, output_, schedule_, repairs_, loss_}, counters,
                observer) {}

// --- Transfers ---

Transfer& DataSender::add(FileKey key, uint32_t priority, uint64_t tag, Time now) {
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
  return transfer;
}

TransferId DataSender::start(FileKey key, uint32_t priority, uint64_t tag,
                             const std::vector<NodeIndex>& nodes, Time now) {
  Transfer& transfer = add(std::move(key), priority, tag, now);
  for (const NodeIndex node : nodes) admit(transfer, node, false, now);
  schedule_.enter(transfer);
  return transfer.id;
}

TransferId DataSender::start_requested(FileKey key, uint32_t priority, NodeIndex asker, Time now) {
  if (!table_.free_for(asker)) return kNoTransfer;
  Transfer& transfer = add(std::move(key), priority, kRequested, now);
  table_.set_asker(transfer, asker);
  admit(transfer, asker, true, now);
  schedule_.enter(transfer);
  return transfer.id;
}

// The asker decides about the lane.
void DataSender::set_asker(Transfer& transfer, NodeIndex asker) {
  const Schedule::Place place = schedule_.leave(transfer);
  table_.set_asker(transfer, asker);
  schedule_.come_back(transfer, place);
}

void DataSender::hand_over(TransferId id, uint64_t tag) {
  Transfer& transfer = *table_.at(id);
  transfer.tag = tag;
  set_asker(transfer, kNoNode);
}

void DataSender::leave_to_guests(TransferId id) {
  Transfer& transfer = *table_.at(id);
  const auto guest = std::find_if(
      transfer.nodes.begin(), transfer.nodes.end(),
      [](const TransferNode& node) { return node.state == TransferNode::State::kOpen; });
  const auto node = static_cast<NodeIndex>(guest - transfer.nodes.begin());
  transfer.tag = kRequested;
  if (guest == transfer.nodes.end() || !table_.free_for(node)) return settling_.close(transfer);
  set_asker(transfer, node);
}

void DataSender::admit(Transfer& transfer, NodeIndex node, bool guest, Time now) {
  transfer.set_guest(node, guest);
  transfer.set_state(node, TransferNode::State::kOpen);
  transfer.node(node).hear(now);
  arrival_.joins(node, window_.position());
}

void DataSender::join(TransferId id, NodeIndex node, bool guest, Time now) {
  Transfer* const transfer = table_.at(id);
  if (transfer == nullptr) return;
  using Stage = Transfer::Stage;
  admit(*transfer, node, guest, now);
  if (!inform_again(*transfer, now)) return;
  if (guest && transfer->lane() == Lane::kPush) return settling_.hurry(*transfer, now);
  if (transfer->stage == Stage::kStreaming)
    transfer->turn.extend();
  else
    settling_.stream_again(*transfer);
}

// False when that is all there is to do for a node that joins.
bool DataSender::inform_again(Transfer& transfer, Time now) {
  using Stage = Transfer::Stage;
  if (transfer.stage == Stage::kQueued) return false;
  // Several nodes ask at the same moment: one information serves them all.
  constexpr Time kInfoHoldoff = 2 * kMillisecond;
  if (elapsed(now, transfer.info_sent) >= std::max(kInfoHoldoff, window_.round_trip()))
    output_.info(transfer, now);
  if (transfer.stage == Stage::kAnnounced) return false;
  if (transfer.status != 0) settling_.begin(transfer, now);
  return transfer.status == 0;
}

// Once per round trip: what was sent for the first question is on its way. A node that has asked
// for segments has most of the file.
void DataSender::join_asking(TransferId id, NodeIndex node, bool guest, Time now) {
  Transfer* const transfer = table_.at(id);
  if (transfer == nullptr) return;
  contact_.asked(node);
  const TransferNode before = transfer->node(node);
  const bool is_open = before.state == TransferNode::State::kOpen;
  if (is_open && elapsed(now, before.heard) < window_.round_trip()) return;
  if (!before.has_info) return join(id, node, is_open ? before.guest : guest, now);
  admit(*transfer, node, is_open ? before.guest : guest, now);
  if (inform_again(*transfer, now)) settling_.hurry(*transfer, now);
}

void DataSender::drop_node(NodeIndex node) {
  contact_.forget(node);
  arrival_.forget(node);
  for (const TransferId id : table_.ids()) {
    Transfer* const transfer = table_.at(id);
    if (transfer == nullptr || node >= transfer->nodes.size()) continue;
    transfer->set_state(node, TransferNode::State::kAbsent);
    settling_.close_if_ended(*transfer);
  }
}

void DataSender::forget_node(NodeIndex node) {
  contact_.forget(node);
  arrival_.forget(node);
  table_.each([&](Transfer& transfer) {
    if (node >= transfer.nodes.size()) return;
    transfer.set_state(node, TransferNode::State::kAbsent);
    transfer.nodes[node] = {};
    settling_.forget(transfer.id, node);
  });
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
  return bytes / pace();
}

double DataSender::pace() const {
  const double limit = pacer_.bytes_per_second();
  return limit != 0 ? std::min(limit, window_.rate()) : window_.rate();
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

// A run up to the file's end comes from a time-out of the node: it names what has not arrived
// there, lost or not. The latest segments of the file that the node may not have come to yet.
uint64_t DataSender::on_the_way(const Transfer& transfer, NodeIndex node, uint32_t first,
                                uint32_t num) const {
  if (!transfer.turn.has_last(first, num)) return 0;
  const uint64_t bytes = window_.unhandled(node, transfer.stream_end);
  return (bytes + self_.segment_size - 1) / self_.segment_size;
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
  const uint64_t coming = on_the_way(*transfer, node, first, num);
  transfer->turn.behind(first, num, coming, [&](uint32_t from, uint32_t count) {
    transfer->repairs.request(from, count, now);
    state.parts |= transfer->repairs.parts_of(from, count);
    gone += count;
  });
  if (state.state == TransferNode::State::kOpen) {
    const bool paced = table_.busy().contains(node);
    if (paced && is_first_request(*transfer, node, first, num)) window_.lost(node, gone);
    settling_.on_request(*transfer, node, gone, now);
  }
  state.asked = state.has_info = true;
  state.hear(now);
  transfer->last_request = now;
  transfer->progress();
  counters_.segments_requested += gone;
  arrival_.lacks(node, uint64_t{gone} * self_.segment_size);
  loss_.lost(static_cast<double>(gone) / std::max<double>(1, transfer->open));
  repairs_.enter(*transfer);
  return gone;
}

void DataSender::on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now) {
  if (report.status != PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT)) contact_.answered(node);
  const uint64_t position = window_.position();
  if (const std::optional<uint64_t> asked = window_.position_of(report.file_id)) {
    arrival_.answers(node, *asked, position);
    (void)window_.answered(report.file_id, node, now);
    return;
  }
  if (arrival_.answered(report.file_id, node, position)) return;
  const Transfer* const transfer = table_.at(report.file_id);
  if (transfer != nullptr && report.status == 0) arrival_.reached(node, transfer->stream_end);
  settling_.on_report(node, report, now);
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
bool DataSender::send_announcement(Lane lane, Time now) {
  Transfer* const transfer = schedule_.next_announcement(now, lane);
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

// The lanes take turns, by datagrams.
bool DataSender::send_stream(Time now) {
  const Lane first = schedule_.next_lane();
  for (const Lane lane : {first, other(first)}) {
    const bool announced = lane == Lane::kRequests && send_announcement(lane, now);
    if (!announced && !send_stream_of(lane, now)) continue;
    schedule_.end_turn_of(lane);
    return true;
  }
  return false;
}

bool DataSender::send_stream_of(Lane lane, Time now) {
  Transfer* const next = schedule_.streamable(now, lane);
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
  if (transfer.streamed == 0) transfer.stream_begin = window_.position();
  if (!send_segment(transfer, transfer.turn.segment(), DataOutput::As::kFirst, now)) return true;
  ++transfer.streamed;
  transfer.stream_end = window_.position();
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
  if (send_announcement(Lane::kPush, now)) return true;
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

void DataSender::poll_for_arrival(Time now) {
  if (!arrival_.poll_due(window_.position(), now)) return;
  const TransferId number = table_.next_id();
  output_.window_poll(number, arrival_.begin_poll(number, window_.position(), now));
}

void DataSender::run(Time now) {
  pacer_.refill(now);
  schedule_.set_rate(pace());
  if (pacer_.next_ready(now) > now) return;  // woken early: less would go out than a call is worth
  while (pacer_.ready()) {
    if (poll_if_due(false, now) || settling_.run(now)) continue;
    if (!window_.open()) {
      window_.note_full(now);
      break;
    }
    if (!send_next(now)) break;
  }
  poll_for_arrival(now);
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
