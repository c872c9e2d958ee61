#include "pkgdist_lead/lead.h"

#include <cerrno>

#include "control/control_stream.h"
#include "control/leadership.h"
#include "control/node_messages.h"
#include "control/outbox.h"
#include "node_table.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"
#include "push/push_job.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

namespace {

// Tag of transfers that a node asked for outside of a push.
constexpr uint64_t kRequested = UINT64_MAX;
// Transfers at a time beyond which requests are not heeded; a node asks again.
constexpr size_t kMaxTransfers = 8192;
// How often the node table is looked through for silent nodes.
constexpr Time kExpiryPeriod = 250 * kMillisecond;
// An acknowledgement point above a message says that the node has it as long as the node cannot
// have given it up; see outbox.h.
constexpr Time kPointTrust = 5 * kSecond;
// Nodes that have not answered for this long do not follow this lead.
constexpr Time kFollowTimeout = 3 * kSecond;
// Of the datagrams of another lead, every so many are told.
constexpr uint64_t kTellOtherLead = 1000;
// Longer round trips are no measurement: the reply carries what somebody made up.
constexpr Time kMaxRoundTrip = 2 * kSecond;

// The lead's transactions have identifiers of the upper half. A node's own requests count up from
// 1; a node that finds an identifier under both takes one for the other.
constexpr uint32_t kLeadTransactions = 0x8000'0000;

const char* request_problem(const PushRequest& request) {
  if (request.location < PKGDIST_LOCATION_FIRST || request.location > PKGDIST_LOCATION_LAST)
    return "the location is not 1 to 6";
  if (request.type < PKGDIST_FILE_TYPE_FIRST || request.type > PKGDIST_FILE_TYPE_LAST)
    return "the file type is not 1 to 11";
  if (request.priority < PKGDIST_PRIORITY_FIRST || request.priority > PKGDIST_PRIORITY_LAST)
    return "the priority is not 1 to 4";
  if (request.files.empty()) return "there is no file to push";
  for (const PushFile& file : request.files)
    if (const char* problem = name_problem(file.name)) return problem;
  return nullptr;
}

Settings checked(Settings settings) {
  settings.segment_size = std::clamp<uint32_t>(settings.segment_size, 1, kMaxSegmentSize);
  return settings;
}

}  // namespace

class Lead::Impl : private TransferObserver {
 public:
  Impl(const Settings& settings, DatagramSink& sink, ContentStore& store, Events& events)
      : settings_(checked(settings)),
        sink_(sink),
        events_(events),
        leadership_(settings_),
        control_(settings_, sink, counters_,
                 [this](const ControlStream::Finished& finished) { on_acknowledged(finished); }),
        streams_(settings_, nodes_, sink, counters_,
                 [this](MessageId id) { outbox_.on_unicast_acknowledged(id); }),
        outbox_(nodes_, control_, streams_, events_),
        messages_(settings_, nodes_, sink, counters_,
                  [this](NodeIndex node, uint32_t msg_class, std::span<const uint8_t> bytes) {
                    events_.message_received(nodes_[node].info, msg_class, bytes);
                  }),
        data_(settings_, nodes_, sink, store, counters_, *this),
        next_xact_(static_cast<uint32_t>(settings.seed)) {}

  void on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from, Time now);
  void run(Time now);
  Time next_deadline(Time now) const;
  const char* start_push(PushRequest request, Time now);
  MessageId post(MessageKind kind, uint32_t msg_class, std::vector<uint8_t> bytes,
                 const Audience& audience, Time now, Time timeout) {
    return leads() ? outbox_.post(kind, msg_class, std::move(bytes), audience, timeout, now) : 0;
  }
  MessageId cancel(uint32_t xact, const Audience& audience, Time now, Time timeout);
  MessageId delete_files(uint32_t location, const std::vector<std::string>& names,
                         const Audience& audience, Time now, Time timeout);
  MessageReport message_report(MessageId id) const { return outbox_.report(id); }
  const Leadership& leadership() const { return leadership_; }
  NodeCounts node_counts() const;
  uint32_t xact() const { return push_ ? next_xact_ : 0; }

  std::unique_ptr<PushJob> push_;
  Counters counters_;
  DataSender& data() { return data_; }

 private:
  void on_control(const Frame& frame, uint32_t from, Time now);
  void on_data(const Frame& frame, uint32_t from, Time now);
  void on_message(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, std::span<const uint8_t> body,
                  Time now);
  void on_acknowledged(const ControlStream::Finished& finished);
  void on_answer(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now);
  bool follows(const pkgdist_ctrl_msg_hdr& header) const;
  bool echoes_own_ping(const pkgdist_ctrl_msg_hdr& header) const;
  void on_ping_reply(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now);
  void on_other_lead(std::span<const uint8_t> header, Time now);
  void update_role(Time now);
  void ask_for_leads(Time now);
  void step_aside(Time now);
  bool leads() const { return leadership_.leads(); }
  void on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now);
  void on_sighting(NodeTable::Result seen);
  void measure_round_trip(uint64_t echo, Time now);
  void expire_nodes(Time now);

  void transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                      bool skipped) override;
  bool transfer_unlisted(const Transfer& transfer, NodeIndex node) override;
  bool transfer_ends_unknown(const Transfer& transfer, uint64_t status) override;
  void transfer_closed(const Transfer& transfer) override;

  const Settings settings_;
  DatagramSink& sink_;
  Events& events_;
  NodeTable nodes_;
  Leadership leadership_;
  ControlStream control_;
  NodeStreams streams_;
  Outbox outbox_;
  NodeMessages messages_;
  DataSender data_;
  uint32_t next_xact_;
  Role told_role_ = Role::kListening;
  bool has_led_ = false;  // since it stepped aside last
  Time now_ = 0;          // of the event being handled
  Time last_reply_ = 0;   // of any node to this lead's pings
  Time round_trip_ = 0;
  Time next_expiry_ = 0;
};

// --- What arrives ---

void Lead::Impl::on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from,
                             Time now) {
  now_ = now;
  Frame frame;
  if (!split_frame(bytes, frame)) {
    ++counters_.bad_datagrams;
    return;
  }
  update_role(now);
  if (channel == Channel::kOverheard) return on_other_lead(frame.header, now);
  if (!leads()) {
    ++counters_.not_leading;
    return;
  }
  if (channel == Channel::kControl)
    on_control(frame, from, now);
  else
    on_data(frame, from, now);
}

// Own datagrams come back, too. A namesake on the same address is this host's previous process.
void Lead::Impl::on_other_lead(std::span<const uint8_t> bytes, Time now) {
  using H = pkgdist_ctrl_msg_hdr;
  const Decoded<H> header(bytes);
  if (!header) {
    ++counters_.bad_datagrams;
    return;
  }
  if (header->node_ip == 0 || header->node_ip == settings_.address) return;
  if (header->msg_id == PKGDIST_CTRL_MSG_ACK && header->sequence == kLeadQuerySequence) {
    leadership_.on_query(header->node_ip, now);
    if (leads()) control_.on_lead_query(now);
    return;
  }
  const bool ping = header->msg_id == PKGDIST_CTRL_MSG_PING;
  if (!ping && header->msg_id != PKGDIST_CTRL_MSG_CTRL) return;
  const uint64_t heard = ++counters_.other_lead_heard;
  if (leads() && heard % kTellOtherLead == 1)
    events_.other_lead_heard(header->node_ip, header->pid, heard);
  if (leads() && !ping) return;  // what it says in pings decides
  const bool followed = last_reply_ != 0 && elapsed(now, last_reply_) < kFollowTimeout;
  leadership_.on_other_lead(header->node_ip, ping ? leading_since_of(header->status) : 0, followed,
                            now);
  update_role(now);
}

void Lead::Impl::on_control(const Frame& frame, uint32_t from, Time now) {
  using H = pkgdist_ctrl_msg_hdr;
  const Decoded<H> header(frame.header);
  if (!header) {
    ++counters_.bad_datagrams;
    return;
  }
  const uint32_t kind = header->msg_id;
  const bool reply = kind == PKGDIST_CTRL_MSG_PING_REPLY;
  const bool answer = kind == PKGDIST_CTRL_MSG_ACK || kind == PKGDIST_CTRL_MSG_NACK;
  const bool message = kind == PKGDIST_CTRL_MSG_CTRL;
  if ((!reply && !answer && !message) || header->node_ip == settings_.address) {
    ++counters_.foreign_datagrams;
    return;
  }
  // A node that has not heard this lead yet still answers the one before it: its points say nothing
  // about what this lead has sent.
  if (reply ? !echoes_own_ping(*header) : answer && !follows(*header)) {
    ++counters_.foreign_datagrams;
    return;
  }
  const bool has_point = reply || qidl::has<&H::ack_sequence>(*header);
  const uint32_t point = reply ? header->sequence : header->ack_sequence;
  const NodeTable::Result seen = nodes_.observe_control(*header, from, has_point, point, now);
  if (seen.index == kNoNode) {
    ++counters_.foreign_datagrams;
    return;
  }
  if (reply) control_.adopt(point);
  on_sighting(seen);
  if (reply) return on_ping_reply(seen.index, *header, now);
  if (message) return on_message(seen.index, *header, frame.body, now);
  on_answer(seen.index, *header, now);
}

// Whether this process of the node is known here: answers that come before are for an earlier lead.
bool Lead::Impl::follows(const pkgdist_ctrl_msg_hdr& header) const {
  const NodeIndex node = nodes_.find(header.node_ip);
  return node != kNoNode && header.pid == nodes_[node].info.pid;
}

bool Lead::Impl::echoes_own_ping(const pkgdist_ctrl_msg_hdr& header) const {
  return qidl::has<&pkgdist_ctrl_msg_hdr::status>(header) &&
         leading_since_of(header.status) == leadership_.leading_since();
}

void Lead::Impl::on_ping_reply(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now) {
  measure_round_trip(header.status, now);
  nodes_.note_reply(node, now);
  last_reply_ = now;
  control_.on_ping_reply(node, header.sequence, now);
}

// An ACK or NACK, of either stream.
void Lead::Impl::on_answer(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now) {
  using H = pkgdist_ctrl_msg_hdr;
  const bool positive = header.msg_id == PKGDIST_CTRL_MSG_ACK;
  const bool has_segment = qidl::has<&H::segment>(header);
  if (header.unicast == 1) {
    if (positive) return streams_.on_ack(node, header.sequence, now);
    return streams_.on_nack(node, header.sequence, has_segment, header.segment, now);
  }
  if (positive)
    control_.on_ack(node, header.sequence);
  else
    control_.on_nack(header.sequence, has_segment, header.segment, now);
  if (qidl::has<&H::ack_sequence>(header)) control_.on_point(node, header.ack_sequence);
}

void Lead::Impl::on_message(NodeIndex node, const pkgdist_ctrl_msg_hdr& header,
                            std::span<const uint8_t> bytes, Time now) {
  const Decoded<pkgdist_ctrl_msg> body(bytes);
  if (body)
    messages_.on_segment(node, header, *body, now);
  else
    ++counters_.bad_datagrams;
}

void Lead::Impl::on_acknowledged(const ControlStream::Finished& finished) {
  const Time adopted = nodes_[finished.node].adopted_at;
  const bool certain = finished.direct || (adopted != 0 && adopted <= finished.first_sent &&
                                           elapsed(now_, finished.first_sent) < kPointTrust);
  if (outbox_.on_acknowledged(finished.sequence, finished.node, certain)) return;
  if (push_) push_->on_acknowledged(finished.sequence, finished.node, finished.direct);
}

MessageId Lead::Impl::cancel(uint32_t xact, const Audience& audience, Time now, Time timeout) {
  if (xact == 0) return 0;
  const MessageId id = post(MessageKind::kCancel, PKGDIST_CTRL_CLASS_FILE_SEND, encode_cancel(xact),
                            audience, now, timeout);
  if (id != 0 && push_ && xact == this->xact()) push_->cancel(audience, now);
  return id;
}

MessageId Lead::Impl::delete_files(uint32_t location, const std::vector<std::string>& names,
                                   const Audience& audience, Time now, Time timeout) {
  if (location < PKGDIST_LOCATION_FIRST || location > PKGDIST_LOCATION_LAST) return 0;
  if (names.empty() || names.size() > UINT16_MAX) return 0;
  for (const std::string& name : names)
    if (name_problem(name) != nullptr) return 0;
  if (push_ && leads()) push_->note_deleted(location, names);
  return post(MessageKind::kDelete, PKGDIST_CTRL_CLASS_FILE_SEND, encode_delete(location, names),
              audience, now, timeout);
}

void Lead::Impl::measure_round_trip(uint64_t echo, Time now) {
  const Time sample = age_of(echo, now);
  if (sample == 0 || sample > kMaxRoundTrip) return;
  round_trip_ = round_trip_ == 0 ? sample : (7 * round_trip_ + sample) / 8;
  data_.set_round_trip(round_trip_);
}

void Lead::Impl::on_sighting(NodeTable::Result seen) {
  if (seen.sighting == Sighting::kKnown || seen.sighting == Sighting::kIgnored) return;
  const NodeInfo& info = nodes_[seen.index].info;
  if (seen.sighting == Sighting::kAppeared) events_.node_appeared(info);
  if (seen.sighting == Sighting::kReturned) events_.node_returned(info);
  if (seen.sighting == Sighting::kRestarted) {
    events_.node_restarted(info);
    control_.forget(seen.index);
    streams_.forget(seen.index);
    outbox_.on_gone(seen.index, Delivery::kRestarted);
    messages_.forget(seen.index);
    data_.drop_node(seen.index);
  }
  if (push_) push_->on_node_fresh(seen.index, seen.sighting == Sighting::kRestarted);
}

void Lead::Impl::on_data(const Frame& frame, uint32_t from, Time now) {
  const Decoded<pkgdist_data_msg_hdr> header(frame.header);
  if (!header) {
    ++counters_.bad_datagrams;
    return;
  }
  const uint32_t kind = header->msg_id;
  const uint32_t address = header->node_ip != 0 ? header->node_ip : from;
  if (kind < PKGDIST_DATA_MSG_FILE_REQ || kind > PKGDIST_DATA_MSG_REQ_DONE ||
      address == settings_.address) {
    ++counters_.foreign_datagrams;
    return;
  }
  // The body first: an address is only entered for a message that makes sense.
  const auto known = [&] {
    const NodeTable::Result seen = nodes_.observe_data(address, now);
    if (seen.index == kNoNode) ++counters_.foreign_datagrams;
    on_sighting(seen);
    return seen.index;
  };
  const auto handle = [&](const auto& body, auto&& then) {
    if (!body) {
      ++counters_.bad_datagrams;
      return;
    }
    if (const NodeIndex node = known(); node != kNoNode) then(node, *body);
  };
  if (kind == PKGDIST_DATA_MSG_FILE_REQ)
    return handle(Decoded<pkgdist_data_send_req>(frame.body),
                  [&](NodeIndex node, const auto& body) { on_file_request(node, body, now); });
  if (kind == PKGDIST_DATA_MSG_REQ_DONE)
    return handle(Decoded<pkgdist_data_send_req_done>(frame.body),
                  [&](NodeIndex node, const auto& body) { data_.on_report(node, body, now); });
  handle(Decoded<struct pkgdist_data_send_req_single>(frame.body),
         [&](NodeIndex node, const auto& body) {
           if (push_ && push_->leaves_behind(node)) return;
           const uint32_t segments =
               data_.on_segment_request(node, body.file_id, body.segment, body.num, now);
           if (push_) push_->on_requested_segments(node, segments);
         });
}

void Lead::Impl::on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.StringChecker): decoded strings are never null
  const FileKey key{request.location, request.name};
  if (key.location < PKGDIST_LOCATION_FIRST || key.location > PKGDIST_LOCATION_LAST) {
    ++counters_.bad_datagrams;
    return;
  }
  ++counters_.files_requested;
  if (push_ && push_->leaves_behind(node)) return;
  if (name_problem(key.name) != nullptr) {
    const uint64_t status = PKGDIST_STATUS_FROM_ERRNO(EINVAL);
    if (key.name.size() <= kMaxNameLength) data_.refuse(key, status, node);
    return events_.file_requested(nodes_[node].info, key.location, key.name, status);
  }
  if (const TransferId id = data_.find(key); id != kNoTransfer)
    return data_.join(id, node, true, now);
  if (push_ && push_->start_requested(key, node, now)) return;
  if (data_.active_files() >= kMaxTransfers) return;
  const uint32_t priority =
      std::clamp(request.priority, PKGDIST_PRIORITY_FIRST, PKGDIST_PRIORITY_LAST);
  const TransferId id = data_.start(key, priority, kRequested, {node}, now);
  events_.file_requested(nodes_[node].info, key.location, key.name, data_.get(id)->status);
}

// --- What transfers tell ---

void Lead::Impl::transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                                bool skipped) {
  if (transfer.tag == kRequested)
    events_.request_ended(nodes_[node].info, transfer.key.location, transfer.key.name, status);
  else if (push_)
    push_->on_ended(transfer, node, status, skipped);
}

bool Lead::Impl::transfer_unlisted(const Transfer& transfer, NodeIndex node) {
  return transfer.tag != kRequested && push_ && push_->on_unlisted(transfer, node);
}

bool Lead::Impl::transfer_ends_unknown(const Transfer& transfer, uint64_t status) {
  return transfer.tag == kRequested || (push_ && push_->ends_unknown(transfer, status));
}

void Lead::Impl::transfer_closed(const Transfer& transfer) {
  if (!push_) return;
  if (transfer.tag == kRequested)
    push_->on_other_closed();
  else
    push_->on_closed(transfer);
}

// --- Time ---

void Lead::Impl::expire_nodes(Time now) {
  if (now < next_expiry_) return;
  next_expiry_ = now + kExpiryPeriod;
  const bool pushing = push_ && !push_->finished();
  nodes_.expire(now, pushing ? push_->node_timeout() : settings_.node_timeout, [&](NodeIndex node) {
    events_.node_silent(nodes_[node].info);
    control_.forget(node);
    streams_.forget(node);
    outbox_.on_gone(node, Delivery::kSilent);
    if (push_) push_->on_node_silent(node);
    data_.drop_node(node);
  });
}

void Lead::Impl::update_role(Time now) {
  leadership_.run(now);
  if (leadership_.role() == told_role_) return;
  told_role_ = leadership_.role();
  control_.set_leading_since(leadership_.leading_since());
  // From leading, or from listening again after a suspension: its work is still there then.
  if (leads()) has_led_ = true;
  if (told_role_ == Role::kStandingBy && std::exchange(has_led_, false)) step_aside(now);
  if (leads() && push_ && push_->gathering()) push_->begin(now);  // its patience begins now
  events_.role_changed(told_role_, leadership_.other());
}

// The other lead's nodes are its own business from here on: they ask it for what they lack.
void Lead::Impl::step_aside(Time now) {
  if (push_) push_->stop(now);
  outbox_.give_up_all(Delivery::kSuperseded);
  data_.abandon_all();
  control_.abandon();
  last_reply_ = 0;
  nodes_.expire(now, 0, [&](NodeIndex node) { streams_.forget(node); });
}

void Lead::Impl::ask_for_leads(Time now) {
  if (!leadership_.asks(now)) return;
  const size_t length = build_lead_query(sink_.buffer(), settings_);
  if (length != 0) sink_.send(Channel::kControl, kGroup, length);
}

void Lead::Impl::run(Time now) {
  now_ = now;
  update_role(now);
  ask_for_leads(now);
  if (!leads()) return;
  expire_nodes(now);
  if (push_) push_->run(now);
  using Watch = ControlStream::Watch;
  const bool pushing = push_ && !push_->finished();
  control_.set_watch(!pushing             ? Watch::kIdle
                     : push_->gathering() ? Watch::kGathering
                                          : Watch::kPushing,
                     now);
  outbox_.run(now);
  control_.run(now);
  streams_.run(now);
  messages_.run(now);
  data_.run(now);
}

Time Lead::Impl::next_deadline(Time now) const {
  if (!leads()) return std::max(leadership_.next_deadline(), now);
  Time deadline = std::min(control_.next_deadline(), data_.next_deadline(now));
  deadline = std::min({deadline, next_expiry_, messages_.next_deadline()});
  deadline = std::min({deadline, streams_.next_deadline(), outbox_.next_deadline()});
  if (push_) deadline = std::min(deadline, push_->next_deadline());
  return std::max(deadline, now);
}

// Nodes whose process is not known yet have not appeared.
Lead::NodeCounts Lead::Impl::node_counts() const {
  NodeCounts counts;
  for (NodeIndex i = 0; i < nodes_.size(); ++i) {
    if (nodes_[i].info.pid == 0) continue;
    ++counts.heard;
    counts.silent += nodes_[i].silent;
  }
  return counts;
}

const char* Lead::Impl::start_push(PushRequest request, Time now) {
  if (push_ && !push_->finished()) return "a push is running";
  if (const char* problem = request_problem(request)) return problem;
  next_xact_ = (next_xact_ + 1) | kLeadTransactions;
  push_ =
      std::make_unique<PushJob>(std::move(request), next_xact_, nodes_, control_, data_, events_);
  push_->begin(now);
  return nullptr;
}

// --- The face ---

Lead::Lead(const Settings& settings, DatagramSink& sink, ContentStore& store, Events& events)
    : impl_(std::make_unique<Impl>(settings, sink, store, events)) {}

Lead::~Lead() = default;

void Lead::on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from, Time now) {
  impl_->on_datagram(channel, bytes, from, now);
}

void Lead::run(Time now) {
  impl_->run(now);
}

Time Lead::next_deadline(Time now) const {
  return impl_->next_deadline(now);
}

const char* Lead::start_push(PushRequest request, Time now) {
  return impl_->start_push(std::move(request), now);
}

void Lead::stop_push(Time now) {
  if (impl_->push_) impl_->push_->stop(now);
}

PushReport Lead::push_progress() const {
  return impl_->push_ ? impl_->push_->progress() : PushReport{};
}

PushReport Lead::push_report() const {
  return impl_->push_ ? impl_->push_->report() : PushReport{};
}

bool Lead::push_running() const {
  return impl_->push_ && !impl_->push_->finished();
}

MessageId Lead::send_message(uint32_t msg_class, std::vector<uint8_t> bytes,
                             const Audience& audience, Time now, Time timeout) {
  if (msg_class < PKGDIST_CTRL_CLASS_FIRST || msg_class > PKGDIST_CTRL_CLASS_LAST) return 0;
  return impl_->post(MessageKind::kMessage, msg_class, std::move(bytes), audience, now, timeout);
}

MessageId Lead::cancel_transaction(uint32_t xact, const Audience& audience, Time now,
                                   Time timeout) {
  return impl_->cancel(xact, audience, now, timeout);
}

MessageId Lead::delete_files(uint32_t location, const std::vector<std::string>& names,
                             const Audience& audience, Time now, Time timeout) {
  return impl_->delete_files(location, names, audience, now, timeout);
}

MessageReport Lead::message_report(MessageId id) const {
  return impl_->message_report(id);
}

Lead::NodeCounts Lead::node_counts() const {
  return impl_->node_counts();
}

Role Lead::role() const {
  return impl_->leadership().role();
}

uint32_t Lead::other_lead() const {
  return impl_->leadership().other();
}

uint32_t Lead::push_transaction() const {
  return impl_->xact();
}

uint64_t Lead::rate_bits() const {
  return impl_->data().rate_bits();
}

const Counters& Lead::counters() const {
  return impl_->counters_;
}

}  // namespace pkgdist::lead
