#include "pkgdist_lead/lead.h"

#include <cerrno>
#include <optional>

#include "control/control_stream.h"
#include "control/leadership.h"
#include "control/node_messages.h"
#include "control/outbox.h"
#include "control/process_number.h"
#include "node_table.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"
#include "push/push_job.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

namespace {

// File requests that a node may make at once, as with a new lead for all that it lacks, and in a
// second. What exceeds that is not heeded: the node asks again.
constexpr double kRequestStock = 2048;
constexpr double kRequestsPerSecond = 1024;
constexpr uint64_t kRequested = DataSender::kRequested;
// How often the node table is looked through for silent nodes.
constexpr Time kExpiryPeriod = 250 * kMillisecond;
// Nodes that are taken out of the table at one time, which takes a look at every transfer for each.
constexpr size_t kMaxReleased = 256;
// An acknowledgement point above a message says that the node has it as long as the node cannot
// have given it up; see outbox.h.
constexpr Time kPointTrust = 5 * kSecond;
// Nodes that have not answered for this long do not follow this lead.
constexpr Time kFollowTimeout = 3 * kSecond;
// Of the datagrams of another lead, and of those with a wrong address, every so many are told.
constexpr uint64_t kTellEvery = 1000;
// Answers to older pings are made up, or say nothing about the present.
constexpr Time kOldestPing = 10 * kSecond;
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
  for (const std::string& name : request.directories)
    if (const char* problem = name_problem(name)) return problem;
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
        number_(settings_),
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
  std::vector<NodeView> nodes() const;
  bool leave_out(uint32_t address, uint64_t status, Time now) {
    return push_ && push_->leave_out_node(nodes_.find(address), status, now);
  }
  uint32_t xact() const { return push_ ? next_xact_ : 0; }

  std::unique_ptr<PushJob> push_;
  Counters counters_;
  DataSender& data() { return data_; }

 private:
  std::optional<uint32_t> sender(uint32_t named, uint32_t from);
  void on_control(const Frame& frame, uint32_t from, Time now);
  void on_data(const Frame& frame, uint32_t from, Time now);
  void on_message(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, std::span<const uint8_t> body,
                  Time now);
  void on_acknowledged(const ControlStream::Finished& finished);
  void on_answer(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now);
  bool follows(uint32_t address, uint32_t pid) const;
  Time asked_at(const pkgdist_ctrl_msg_hdr& header, Time now) const;
  void on_ping_reply(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, Time now);
  void on_other_lead(std::span<const uint8_t> header, uint32_t from, Time now);
  void update_role(Time now);
  void ask_for_leads(Time now);
  void step_aside(Time now);
  bool leads() const { return leadership_.leads(); }
  bool is_guest(TransferId id, NodeIndex node) const;
  void on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now);
  void on_sighting(NodeTable::Result seen);
  void measure_round_trip(uint64_t echo, Time now);
  void expire_nodes(Time now);
  void release_silent_nodes();

  void transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                      bool skipped) override;
  void transfer_overheard(const Transfer& transfer, NodeIndex node) override;
  bool transfer_unlisted(const Transfer& transfer, NodeIndex node) override;
  bool transfer_ends_unknown(const Transfer& transfer, uint64_t status) override;
  void transfer_closed(const Transfer& transfer) override;

  Settings settings_;  // the process number may change
  DatagramSink& sink_;
  Events& events_;
  NodeTable nodes_;
  ProcessNumber number_;
  Leadership leadership_;
  ControlStream control_;
  NodeStreams streams_;
  Outbox outbox_;
  NodeMessages messages_;
  DataSender data_;
  Allowance file_requests_{kRequestStock, kRequestsPerSecond};
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
  if (channel == Channel::kOverheard) return on_other_lead(frame.header, from, now);
  if (!leads()) {
    ++counters_.not_leading;
    return;
  }
  if (channel == Channel::kControl)
    on_control(frame, from, now);
  else
    on_data(frame, from, now);
}

// The address of whoever sent a datagram; none when it names another one than it came from: answers
// would go to somebody who did not ask. What comes from the own address was sent on this host, from
// any of its addresses; the system takes no such datagram from the network.
std::optional<uint32_t> Lead::Impl::sender(uint32_t named, uint32_t from) {
  if (named == 0 || named == from) return from;
  if (settings_.multi_homed || from == settings_.address) return named;
  const uint64_t dropped = ++counters_.misaddressed;
  if (dropped % kTellEvery == 1) events_.sender_mismatch(named, from, dropped);
  return std::nullopt;
}

// Own datagrams come back, too. A namesake on the same address is this host's previous process.
void Lead::Impl::on_other_lead(std::span<const uint8_t> bytes, uint32_t from, Time now) {
  using H = pkgdist_ctrl_msg_hdr;
  const Decoded<H> header(bytes);
  if (!header) {
    ++counters_.bad_datagrams;
    return;
  }
  if (header->node_ip == 0 || header->node_ip == settings_.address) return;
  if (!sender(header->node_ip, from)) return;
  if (header->msg_id == PKGDIST_CTRL_MSG_ACK && header->sequence == kLeadQuerySequence) {
    leadership_.on_query(header->node_ip, now);
    if (leads()) control_.ping_soon(now);
    return;
  }
  const bool ping = header->msg_id == PKGDIST_CTRL_MSG_PING;
  if (!ping && header->msg_id != PKGDIST_CTRL_MSG_CTRL) return;
  const uint64_t heard = ++counters_.other_lead_heard;
  if (leads() && heard % kTellEvery == 1)
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
  if (!reply && !answer && !message) {
    ++counters_.foreign_datagrams;
    return;
  }
  const std::optional<uint32_t> address = sender(header->node_ip, from);
  if (!address) return;
  // A node that has not heard this lead yet still answers the one before it: its points say nothing
  // about what this lead has sent.
  const Time asked = reply ? asked_at(*header, now) : 0;
  const bool expected = reply ? asked != 0 : !answer || follows(*address, header->pid);
  if (!expected || *address == settings_.address) {
    ++counters_.foreign_datagrams;
    return;
  }
  const NodeTable::Result seen = nodes_.observe_control(*header, *address, asked, now);
  if (seen.sighting == Sighting::kRival) control_.ping_soon(now);
  // A process need not be the present one to send a message.
  const NodeIndex node = message ? nodes_.find(*address) : seen.index;
  if (node == kNoNode) {
    ++counters_.foreign_datagrams;
    return;
  }
  if (seen.sighting == Sighting::kShared)
    return events_.address_shared(nodes_[seen.index].info, header->pid);
  const bool renewed = reply && number_.on_point(header->sequence, control_.last_sequence(),
                                                 control_.unused(), asked, now);
  if (renewed) control_.ping_soon(now);
  on_sighting(seen);
  if (reply) return on_ping_reply(node, *header, now);
  if (message) return on_message(node, *header, frame.body, now);
  on_answer(node, *header, now);
}

// Whether this process of the node is known here: answers that come before are for an earlier lead.
bool Lead::Impl::follows(uint32_t address, uint32_t pid) const {
  const NodeIndex node = nodes_.find(address);
  return node != kNoNode && pid == nodes_[node].info.pid;
}

// When the ping was sent that a reply answers; 0 when that was not lately, or not by this lead.
Time Lead::Impl::asked_at(const pkgdist_ctrl_msg_hdr& header, Time now) const {
  if (!qidl::has<&pkgdist_ctrl_msg_hdr::status>(header) ||
      leading_since_of(header.status) != leadership_.leading_since())
    return 0;
  const Time age = age_of(header.status, now);
  if (age > kOldestPing || age > now) return 0;
  // The ping tells microseconds: what answers the same one is to have the same time.
  const Time asked = (now - age) / kMicrosecond * kMicrosecond;
  return asked < number_.changed_at() ? 0 : asked;
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
    control_.on_nack(node, header.sequence, has_segment, header.segment, now);
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
  control_.set_round_trip(round_trip_);
  streams_.set_round_trip(round_trip_);
}

void Lead::Impl::on_sighting(NodeTable::Result seen) {
  if (seen.index == kNoNode || seen.sighting == Sighting::kKnown) return;
  const NodeInfo& info = nodes_[seen.index].info;
  if (seen.sighting == Sighting::kAppeared) events_.node_appeared(info);
  if (seen.sighting == Sighting::kReturned && info.pid != 0) events_.node_returned(info);
  if (seen.sighting == Sighting::kRestarted) {
    events_.node_restarted(info);
    control_.forget(seen.index);
    streams_.forget(seen.index);
    outbox_.on_gone(seen.index, Delivery::kRestarted);
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
  if (kind < PKGDIST_DATA_MSG_FILE_REQ || kind > PKGDIST_DATA_MSG_REQ_DONE) {
    ++counters_.foreign_datagrams;
    return;
  }
  const std::optional<uint32_t> address = sender(header->node_ip, from);
  if (!address) return;
  if (*address == settings_.address) {
    ++counters_.foreign_datagrams;
    return;
  }
  // The body first: an address is only entered for a message that makes sense.
  const auto known = [&] {
    const NodeTable::Result seen = nodes_.observe_data(*address, now);
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
  if (!file_requests_.take(node, 1, now)) return;
  if (name_problem(key.name) != nullptr) {
    const uint64_t status = PKGDIST_STATUS_FROM_ERRNO(EINVAL);
    if (key.name.size() <= kMaxNameLength) data_.refuse(key, status, node);
    return events_.file_requested(nodes_[node].info, key.location, key.name, status);
  }
  // The node asks again.
  if (push_ && push_->holds_back(key, node)) return;
  if (const TransferId id = data_.find(key); id != kNoTransfer)
    return data_.join_asking(id, node, is_guest(id, node), now);
  if (push_ && push_->start_requested(key, node, now)) return;
  if (data_.collides(key)) return;
  const uint32_t priority =
      std::clamp(request.priority, PKGDIST_PRIORITY_FIRST, PKGDIST_PRIORITY_LAST);
  const TransferId id = data_.start_requested(key, priority, node, now);
  if (id == kNoTransfer) return;
  events_.file_requested(nodes_[node].info, key.location, key.name, data_.get(id)->status);
}

// Whether nobody waits for the node: the transfer is not one of the push, or the node is not.
bool Lead::Impl::is_guest(TransferId id, NodeIndex node) const {
  return data_.get(id)->lane() == Lane::kRequests || !push_ || !push_->counts(node);
}

// --- What transfers tell ---

void Lead::Impl::transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                                bool skipped) {
  if (transfer.tag == kRequested) {
    events_.request_ended(nodes_[node].info, transfer.key.location, transfer.key.name, status);
    if (push_ && status == 0) push_->on_received_elsewhere(transfer, node);
  } else if (push_)
    push_->on_ended(transfer, node, status, skipped);
}

void Lead::Impl::transfer_overheard(const Transfer& transfer, NodeIndex node) {
  if (transfer.tag == kRequested && push_) push_->on_received_elsewhere(transfer, node);
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
    if (nodes_[node].info.pid != 0) events_.node_silent(nodes_[node].info);
    control_.forget(node);
    streams_.forget(node);
    outbox_.on_gone(node, Delivery::kSilent);
    if (push_) push_->on_node_silent(node);
    data_.drop_node(node);
  });
  if (nodes_.crowded()) release_silent_nodes();
}

// But for those that the push counts: what becomes of them is told in the end.
void Lead::Impl::release_silent_nodes() {
  size_t released = 0;
  for (NodeIndex node = 0; node < nodes_.size() && released < kMaxReleased; ++node) {
    const Node& one = nodes_[node];
    if (!one.silent || one.info.address == 0 || nodes_.named(one.info.address)) continue;
    if (push_ && push_->counts(node)) continue;
    control_.forget(node);
    streams_.remove(node);
    messages_.forget(node);
    data_.forget_node(node);
    nodes_.release(node);
    ++released;
  }
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

std::vector<Lead::NodeView> Lead::Impl::nodes() const {
  std::vector<NodeView> views;
  for (NodeIndex i = 0; i < nodes_.size(); ++i)
    if (nodes_[i].info.pid != 0)
      views.push_back({nodes_[i].info, nodes_[i].last_heard, nodes_[i].silent});
  return views;
}

const char* Lead::Impl::start_push(PushRequest request, Time now) {
  if (push_ && !push_->finished()) return "a push is running";
  if (const char* problem = request_problem(request)) return problem;
  next_xact_ = (next_xact_ + 1) | kLeadTransactions;
  nodes_.name(request.nodes);
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

std::vector<Lead::NodeView> Lead::nodes() const {
  return impl_->nodes();
}

bool Lead::leave_out(uint32_t address, uint64_t status, Time now) {
  return impl_->leave_out(address, status, now);
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
