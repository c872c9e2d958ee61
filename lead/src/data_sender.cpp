#include "data_sender.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

constexpr uint64_t kMaxFileSize = UINT32_MAX;

int check_size(const FileAttributes& attributes) {
  if (attributes.size > kMaxFileSize) return EFBIG;
  if (attributes.symlink && attributes.size > PKGDIST_SYMLINK_TARGET_MAX) return ENAMETOOLONG;
  return 0;
}

uint32_t segments_of(uint64_t size, uint32_t segment_size) {
  return static_cast<uint32_t>(std::max<uint64_t>(1, (size + segment_size - 1) / segment_size));
}

TransferId first_id(uint64_t seed) {
  // One step of a common mixer: neighbouring start values give distant identifiers, so that those
  // of an earlier process, which nodes remember for a while, are not met again.
  uint64_t x = seed + 0x9E3779B97F4A7C15u;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return static_cast<TransferId>(x >> 32);
}

}  // namespace

DataSender::DataSender(const Settings& self, const NodeTable& nodes, DatagramSink& sink,
                       ContentStore& store, Counters& counters, TransferObserver& observer)
    : self_(self),
      nodes_(nodes),
      sink_(sink),
      store_(store),
      counters_(counters),
      observer_(observer),
      segment_(self.address),
      pacer_(self.rate_bits),
      last_id_(first_id(self.seed)) {
  if (self.rate_bits != 0) return;
  rate_.emplace(self.max_rate_bits);
  pacer_.set_rate(rate_->rate_bits());
}

DataSender::~DataSender() = default;

Transfer* DataSender::at(TransferId id) const {
  const auto found = transfers_.find(id);
  return found != transfers_.end() ? found->second.get() : nullptr;
}

const Transfer* DataSender::get(TransferId id) const {
  return at(id);
}

TransferId DataSender::find(const FileKey& key) const {
  const auto found = by_key_.find(key.text());
  return found != by_key_.end() ? found->second : kNoTransfer;
}

TransferId DataSender::next_id() {
  do ++last_id_;
  while (last_id_ == kNoTransfer || transfers_.contains(last_id_));
  return last_id_;
}

TransferId DataSender::start(FileKey key, uint32_t priority, uint64_t tag,
                             const std::vector<NodeIndex>& nodes, Time now) {
  FileAttributes attributes;
  std::unique_ptr<Content> content;
  int error = store_.open(key.location, key.name, attributes, content);
  if (error == 0) error = check_size(attributes);
  if (error != 0) attributes = {};

  const TransferId id = next_id();
  auto owned = std::make_unique<Transfer>(id, std::move(key), attributes,
                                          segments_of(attributes.size, self_.segment_size));
  Transfer& transfer = *owned;
  transfers_.emplace(id, std::move(owned));
  by_key_.emplace(transfer.key.text(), id);
  transfer.tag = tag;
  transfer.started = now;
  transfer.priority = priority;
  if (error != 0) transfer.status = PKGDIST_STATUS_FROM_ERRNO(error);
  // Without room it is opened again when its turn comes: what is before it needs the room earlier.
  if (error == 0 && room_for_content()) {
    transfer.content = std::move(content);
    use_content(transfer);
  }
  for (NodeIndex node : nodes) {
    transfer.set_state(node, TransferNode::State::kOpen);
    transfer.node(node).heard = now;
  }
  announcing_.push_back(id);
  ++waiting_;
  waiting_bytes_ += attributes.size;
  return id;
}

void DataSender::leave_waiting(Transfer& transfer) {
  --waiting_;
  waiting_bytes_ -= transfer.attributes.size;
}

void DataSender::join(TransferId id, NodeIndex node, bool asked, Time now) {
  Transfer* transfer = at(id);
  if (transfer == nullptr) return;
  const bool had_info = transfer->node(node).has_info;
  transfer->set_state(node, TransferNode::State::kOpen);
  transfer->node(node).hear(now);
  if (transfer->stage == Transfer::Stage::kQueued) return;
  // Several nodes ask at the same moment: one information serves them all.
  constexpr Time kInfoHoldoff = 2 * kMillisecond;
  if (elapsed(now, transfer->info_sent) >= kInfoHoldoff) send_info(*transfer, now);
  if (transfer->status != 0 || transfer->stage == Transfer::Stage::kAnnounced) return;
  if (had_info && asked) {
    transfer->help_now = true;  // it has most of the file: help it to the rest
    if (transfer->stage == Transfer::Stage::kSettling) arm(*transfer, now);
    return;
  }
  if (transfer->stage == Transfer::Stage::kStreaming)
    transfer->turn.extend();
  else
    restart_turn(*transfer);
}

void DataSender::drop_node(NodeIndex node, Time) {
  std::vector<TransferId> ended;
  for (auto& [id, transfer] : transfers_) {
    if (node >= transfer->nodes.size()) continue;
    transfer->set_state(node, TransferNode::State::kAbsent);
    if (transfer->open + transfer->unlisted == 0) ended.push_back(id);
  }
  for (TransferId id : ended)
    if (Transfer* transfer = at(id)) close_if_ended(*transfer);
}

void DataSender::abandon(uint64_t tag_limit) {
  std::vector<TransferId> ids;
  for (auto& [id, transfer] : transfers_)
    if (transfer->tag < tag_limit) ids.push_back(id);
  for (TransferId id : ids) close(*at(id));
}

void DataSender::abandon_all() {
  while (!transfers_.empty()) close(*transfers_.begin()->second);
}

void DataSender::close_if_ended(Transfer& transfer) {
  if (transfer.open + transfer.unlisted == 0) close(transfer);
}

void DataSender::close(Transfer& transfer) {
  if (transfer.stage == Transfer::Stage::kQueued || transfer.stage == Transfer::Stage::kAnnounced)
    leave_waiting(transfer);
  arm(transfer, kNever);
  by_key_.erase(transfer.key.text());
  const auto found = transfers_.find(transfer.id);
  const std::unique_ptr<Transfer> last = std::move(found->second);
  transfers_.erase(found);
  observer_.transfer_closed(*last);
}

void DataSender::end_node(Transfer& transfer, NodeIndex node, uint64_t status) {
  transfer.set_state(node, TransferNode::State::kEnded);
  transfer.progress();
  observer_.transfer_ended(transfer, node, status, status == 0 && transfer.segments_sent == 0);
}

void DataSender::arm(Transfer& transfer, Time when) {
  if (transfer.timer != kNever) timers_.erase({transfer.timer, transfer.id});
  transfer.timer = when;
  if (when != kNever) timers_.emplace(when, transfer.id);
}

// The first transfer of a line that still exists.
Transfer* DataSender::head(Line& line) {
  while (!line.empty()) {
    if (Transfer* transfer = at(line.front())) return transfer;
    line.pop_front();
  }
  return nullptr;
}

void DataSender::send(size_t length) {
  if (length == 0) return;
  sink_.send(Channel::kData, kGroup, length);
  pacer_.spend(length);
  period_bytes_ += length;
  counters_.data_bytes_sent += length;
  ++batched_;
}

// The addresses of the open nodes, none when the message may as well go to everybody.
std::span<uint32_t> DataSender::open_nodes(const Transfer& transfer) {
  listed_.clear();
  if (transfer.open > kMaxListedNodes || transfer.open == nodes_.size()) return {};
  for (NodeIndex i = 0; i < transfer.nodes.size(); ++i)
    if (transfer.nodes[i].state == TransferNode::State::kOpen)
      listed_.push_back(nodes_[i].info.address);
  return listed_;
}

void DataSender::send_info(Transfer& transfer, Time now) {
  // A bad status ends the file on whoever takes it: only for the nodes concerned.
  std::span<uint32_t> nodes;
  if (transfer.status != 0) nodes = open_nodes(transfer);
  send(build_info(sink_.buffer(), self_.address, transfer, self_.segment_size, nodes));
  transfer.info_sent = now;
  batch_of_ = kNoTransfer;  // a shorter datagram is the last of its batch
  ++counters_.infos_sent;
}

void DataSender::refuse(const FileKey& key, uint64_t status, NodeIndex node) {
  Transfer refusal(next_id(), key, {}, 1);
  refusal.status = status;
  uint32_t address = nodes_[node].info.address;
  send(build_info(sink_.buffer(), self_.address, refusal, self_.segment_size, {&address, 1}));
  ++counters_.infos_sent;
}

// --- Content ---

void DataSender::use_content(Transfer& transfer) {
  opened_.push_back(transfer.id);
  while (opened_.size() > kMaxOpenContents || at(opened_.front()) == nullptr) {
    Transfer* oldest = at(opened_.front());
    opened_.pop_front();
    if (oldest != nullptr) oldest->content.reset();
  }
}

int DataSender::open_content(Transfer& transfer) {
  if (transfer.content != nullptr) return 0;
  FileAttributes attributes;
  const int error =
      store_.open(transfer.key.location, transfer.key.name, attributes, transfer.content);
  if (error != 0) return error;
  if (attributes != transfer.attributes) return ESTALE;  // changed since it was announced
  use_content(transfer);
  return 0;
}

// The file cannot be sent any further: the nodes are told instead.
void DataSender::fail(Transfer& transfer, int error, Time now) {
  transfer.status = PKGDIST_STATUS_FROM_ERRNO(error);
  transfer.repairs.clear();
  transfer.confirmed.clear();
  transfer.content.reset();
  transfer.progress();
  begin_settling(transfer, now);
  send_info(transfer, now);
}

int DataSender::read_content(Transfer& transfer, uint64_t offset, std::span<uint8_t> out,
                             Sending how) {
  if (how != Sending::kInPlace) return transfer.content->read(offset, out);
  return window_.read(transfer.id, *transfer.content, transfer.attributes.size, offset, out);
}

bool DataSender::send_segment(Transfer& transfer, uint32_t segment, Sending how, Time now) {
  int error = open_content(transfer);
  const uint64_t offset = uint64_t{segment} * self_.segment_size;
  const size_t length = static_cast<size_t>(
      std::min<uint64_t>(self_.segment_size, transfer.attributes.size - offset));
  const std::span<uint8_t> out = sink_.buffer();
  if (error == 0 && length != 0)
    error = read_content(transfer, offset, segment_.data(out, length), how);
  if (error != 0) {
    fail(transfer, error, now);
    return false;
  }
  send(segment_.finish(out, transfer.id, segment, how != Sending::kInPlace, length));
  ++transfer.segments_sent;
  ++counters_.segments_sent;
  ++period_segments_;
  if (how == Sending::kRepair) ++counters_.repairs_sent;
  return true;
}

// --- What is sent next ---

bool DataSender::send_announcement(Time now) {
  Transfer* transfer = head(announcing_);
  if (transfer == nullptr) return false;
  announcing_.pop_front();
  send_info(*transfer, now);
  for (int copies = 3; copies <= loss_.info_copies(); ++copies) send_info(*transfer, now);
  if (transfer->status != 0) {
    leave_waiting(*transfer);
    begin_settling(*transfer, now);
    return true;
  }
  transfer->stage = Transfer::Stage::kAnnounced;
  streaming_[transfer->priority].push_back(transfer->id);
  stream_due_ = std::min(stream_due_, stream_time(*transfer));
  return true;
}

// The most urgent file whose turn it is, in the order of announcement; one that was announced a
// moment ago waits for the nodes that have it already.
Transfer* DataSender::streamable(Time now) {
  stream_due_ = kNever;
  for (auto line = streaming_.begin(); line != streaming_.end();) {
    Transfer* transfer = head(line->second);
    if (transfer == nullptr) {
      line = streaming_.erase(line);
      continue;
    }
    const Time due = stream_time(*transfer);
    if (due <= now) {
      stream_due_ = 0;
      return transfer;
    }
    stream_due_ = std::min(stream_due_, due);
    ++line;
  }
  return nullptr;
}

void DataSender::enter_stream(Transfer& transfer, Time now) {
  leave_waiting(transfer);
  transfer.stage = Transfer::Stage::kStreaming;
  if (loss_.info_copies() >= 2) send_info(transfer, now);
}

bool DataSender::send_stream(Time now) {
  Transfer* transfer = streamable(now);
  if (transfer == nullptr) return false;
  if (transfer->stage == Transfer::Stage::kAnnounced) enter_stream(*transfer, now);
  Line& line = streaming_[transfer->priority];
  if (transfer->stage != Transfer::Stage::kStreaming || !transfer->turn.active()) {
    line.pop_front();  // failed meanwhile
    return true;
  }
  if (transfer->first_turn && informs_again_at(transfer->turn.done())) send_info(*transfer, now);
  if (!send_in_place(*transfer, now)) return true;
  loss_.sent(1);
  if (transfer->repairs.ripen(now)) enter_repair_line(*transfer);
  transfer->turn.advance();
  if (transfer->turn.active()) return true;
  confirm_last_batch(*transfer, now);
  transfer->first_turn = false;
  line.pop_front();
  begin_settling(*transfer, now);
  return true;
}

// The segment whose turn it is, unless it was sent ahead; and one ahead of its place. False when
// the file cannot be sent any further.
bool DataSender::send_in_place(Transfer& transfer, Time now) {
  const uint32_t segment = transfer.turn.segment();
  enter_batch(transfer);
  if (!transfer.first_round() || transfer.segments <= kMediumFile)
    return send_segment(transfer, segment, Sending::kInPlace, now);
  BatchLog& batches = transfer.batches;
  if (!batches.was_sent_ahead(segment) && !send_segment(transfer, segment, Sending::kInPlace, now))
    return false;
  const std::optional<uint32_t> ahead = batches.forerunner(segment);
  if (!ahead || !confirms(transfer, now)) return true;
  batches.sent_ahead(*ahead);
  return send_segment(transfer, *ahead, Sending::kAhead, now);
}

// A batch has segments of one file. Where it may be lost as a whole, a small file is better lost
// all at once than in part to one node and in part to another; and a short batch costs as much as a
// long one. With a few segments sent ahead it is as much as goes out in one call.
void DataSender::enter_batch(Transfer& transfer) {
  constexpr size_t kBatch = 42;
  if (batch_of_ == transfer.id && batched_ < kBatch) return;
  sink_.end_batch();
  batch_of_ = transfer.id;
  batched_ = 0;
  const auto half = static_cast<size_t>(pacer_.batch_bytes() / 2) / self_.segment_size;
  batch_least_ = transfer.segments <= kBatch ? transfer.turn.ahead() : half;
  if (transfer.first_round() && transfer.segments > kMediumFile)
    transfer.batches.begin(transfer.turn.segment());
}

double DataSender::streaming_seconds() {
  uint64_t bytes = 0;
  for (auto& [priority, line] : streaming_)
    if (const Transfer* first = head(line); first != nullptr)
      if (first->stage == Transfer::Stage::kStreaming)
        bytes += first->turn.ahead() * self_.segment_size;
  return static_cast<double>(bytes) * 8 / static_cast<double>(pacer_.rate());
}

double DataSender::backlog_seconds() {
  return streaming_seconds() +
         static_cast<double>(waiting_bytes_) * 8 / static_cast<double>(pacer_.rate());
}

bool DataSender::run_timer(Time now) {
  if (timers_.empty() || timers_.begin()->first > now) return false;
  Transfer& transfer = *at(timers_.begin()->second);
  arm(transfer, kNever);
  settle(transfer, now);
  return true;
}

bool DataSender::send_one(Time now) {
  if (!worth_a_call() && send_stream(now)) {
    --repairs_ahead_;
    return true;
  }
  if (run_timer(now) || send_announcement(now)) return true;
  if (repairs_ahead_ > 0 && send_stream(now)) {
    --repairs_ahead_;
    return true;
  }
  repairs_ahead_ = std::min<int64_t>(repairs_ahead_, 0);
  if (send_repair(now)) return true;
  repairs_ahead_ = 0;
  return send_stream(now);
}

void DataSender::run(Time now) {
  pacer_.refill(now);
  adapt_rate(now);
  batch_of_ = kNoTransfer;
  if (pacer_.next_ready(now) > now) return;  // woken early: less would go out than a call is worth
  while (pacer_.ready() || !worth_a_call())
    if (!send_one(now)) {
      period_idle_ = true;
      return;
    }
}

// Whether the batch that is being put together may end here.
bool DataSender::worth_a_call() const {
  return batch_of_ == kNoTransfer || batched_ >= batch_least_;
}

Time DataSender::next_deadline(Time now) const {
  Time deadline = announcing_.empty() && repairing_.empty() ? stream_due_ : now;
  if (!timers_.empty()) deadline = std::min(deadline, timers_.begin()->first);
  for (const TransferId id : confirming_)
    if (const Transfer* transfer = at(id)) deadline = std::min(deadline, transfer->confirmed.due());
  if (deadline == kNever) return kNever;
  return std::max(deadline, pacer_.next_ready(now));
}

void DataSender::adapt_rate(Time now) {
  const Time passed = elapsed(now, period_started_);
  if (!rate_ || passed < RateControl::kPeriod) return;
  // Fewer segments say nothing about the loss; a slow stream has longer periods.
  constexpr uint64_t kMinSample = 200;
  constexpr Time kMaxPeriod = 10 * RateControl::kPeriod;
  if (period_segments_ < kMinSample && passed < kMaxPeriod) return;
  if (period_segments_ >= kMinSample) {
    uint32_t worst = 0;
    for (uint32_t requested : period_requested_) worst = std::max(worst, requested);
    const double loss = static_cast<double>(worst) / static_cast<double>(period_segments_);
    const double sent =
        static_cast<double>(period_bytes_) * 8 * kSecond / static_cast<double>(passed);
    rate_->on_period({std::min(1.0, loss), period_delay_, !period_idle_, sent, probe_.unanswered(),
                      probe_.silence(now)});
    pacer_.set_rate(rate_->rate_bits());
    probe_queues(now);
  }
  period_started_ = now;
  period_segments_ = 0;
  period_requested_.assign(nodes_.size(), 0);
  period_delay_ = 0;
  period_bytes_ = 0;
  period_idle_ = false;
}

// Asks the nodes of listed_ under a number of its own, which is returned.
TransferId DataSender::send_question(const Transfer& transfer) {
  const TransferId number = next_id();
  send(build_miss_done(sink_.buffer(), self_.address, transfer, number, listed_));
  batch_of_ = kNoTransfer;
  return number;
}

// Asks some nodes of the file in the stream, others each time, how they stand with it.
void DataSender::probe_queues(Time now) {
  constexpr size_t kProbedNodes = 8;
  const Transfer* transfer = nullptr;
  for (auto& [priority, line] : streaming_)
    if (transfer == nullptr) transfer = head(line);
  if (transfer == nullptr || transfer->open == 0) return;
  listed_.clear();
  const auto count = static_cast<NodeIndex>(transfer->nodes.size());
  for (NodeIndex i = 0; i < count && listed_.size() < kProbedNodes; ++i) {
    const NodeIndex node = probed_++ % count;
    if (transfer->nodes[node].state == TransferNode::State::kOpen)
      listed_.push_back(nodes_[node].info.address);
  }
  probe_.sent(send_question(*transfer), transfer->id, now);
}

}  // namespace pkgdist::lead
