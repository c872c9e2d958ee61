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
      table_(self.seed),
      contents_(store),
      window_(table_.busy()),
      pacer_(rate_limit(self)),
      output_(self, nodes, sink, contents_, window_, pacer_, counters),
      schedule_(table_),
      repairs_(table_),
      arrival_(table_.busy()),
      settling_({table_, contents_, window_, output_, schedule_, repairs_, loss_}, counters,
                observer),
      recipients_({table_, window_, output_, schedule_, contact_, arrival_, settling_}),
      requests_({table_, window_, repairs_, loss_, contact_, arrival_, settling_},
                self.segment_size, counters) {}

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
  for (const NodeIndex node : nodes) recipients_.admit(transfer, node, false, now);
  schedule_.enter(transfer);
  return transfer.id;
}

TransferId DataSender::start_requested(FileKey key, uint32_t priority, NodeIndex asker, Time now) {
  if (!table_.free_for(asker)) return kNoTransfer;
  Transfer& transfer = add(std::move(key), priority, kRequested, now);
  table_.set_asker(transfer, asker);
  recipients_.admit(transfer, asker, true, now);
  schedule_.enter(transfer);
  return transfer.id;
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
  if (transfer != nullptr && report.status == 0) {
    arrival_.reached(node, transfer->stream_end);
    if (node < transfer->nodes.size() && !transfer->nodes[node].has_info)
      window_.reported(transfer->id, node, now);
  }
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
  if (transfer.first_turn && requests_.ends_turn(transfer, now)) {
    schedule_.end_turn(transfer);
    settling_.begin(transfer, now);
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
  if (transfer.first_turn && loss_.arrives_whole(transfer.segments))
    window_.expect_reports(transfer, now);
  transfer.first_turn = false;
  schedule_.end_turn(transfer);
  settling_.begin(transfer, now);
  return true;
}

// Repairs and the stream take turns of many datagrams. If they alternated one by one, each datagram
// would belong to another file than the one before: a batch and a write of the nodes for each.
bool DataSender::send_next(Time now) {
  constexpr uint32_t kTurn = 32;  // datagrams, as many as a node takes at once
  if (send_announcement(Lane::kPush, now)) return true;
  if (++turn_ >= 2 * kTurn) turn_ = 0;
  const bool repair_first = turn_ < kTurn;
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
  window_.set_loss(loss_.loss());
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
  poll_if_due(pacer_.ready(), now);  // the pacer's pauses are no stops
}

Time DataSender::next_deadline(Time now) const {
  Time deadline = settling_.next_deadline();
  if (window_.open())
    deadline = std::min({deadline, repairs_.next_deadline(), schedule_.next_deadline()});
  deadline = std::min(deadline, window_.next_poll(now));
  if (deadline == kNever) return kNever;
  return std::max(deadline, pacer_.next_ready(now));
}

}  // namespace pkgdist::lead
