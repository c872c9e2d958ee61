#include "pkgdist_lead/lead.h"

#include <cerrno>

#include "control_stream.h"
#include "data_sender.h"
#include "node_messages.h"
#include "node_table.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"
#include "push_job.h"

namespace pkgdist::lead {

namespace {

// Tag of transfers that a node asked for outside of a push.
constexpr uint64_t kRequested = UINT64_MAX;
// Transfers at a time beyond which requests are not heeded; a node asks again.
constexpr size_t kMaxTransfers = 8192;
// How often the node table is looked through for silent nodes.
constexpr Time kExpiryPeriod = 250 * kMillisecond;
// Longer round trips are no measurement: the reply carries what somebody made up.
constexpr Time kMaxRoundTrip = 2 * kSecond;

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
        events_(events),
        control_(settings_, sink, counters_,
                 [this](uint32_t sequence, NodeIndex node) { on_acknowledged(sequence, node); }),
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
  uint32_t post(uint32_t msg_class, std::vector<uint8_t> bytes, const Audience& audience, Time now);
  uint32_t delete_files(uint32_t location, const std::vector<std::string>& names,
                        const Audience& audience, Time now);
  uint32_t xact() const { return push_ ? next_xact_ : 0; }

  std::unique_ptr<PushJob> push_;
  Counters counters_;
  DataSender& data() { return data_; }

 private:
  void on_control(const Frame& frame, uint32_t from, Time now);
  void on_data(const Frame& frame, uint32_t from, Time now);
  void on_message(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, std::span<const uint8_t> body,
                  Time now);
  void on_acknowledged(uint32_t sequence, NodeIndex node);
  void on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now);
  void on_sighting(NodeTable::Result seen, Time now);
  void measure_round_trip(uint64_t echo, Time now);
  void expire_nodes(Time now);

  void transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                      bool skipped) override;
  bool transfer_unlisted(const Transfer& transfer, NodeIndex node) override;
  void transfer_closed(const Transfer& transfer) override;

  const Settings settings_;
  Events& events_;
  NodeTable nodes_;
  ControlStream control_;
  NodeMessages messages_;
  DataSender data_;
  std::set<uint32_t> own_messages_;  // sequences of messages that the owner sent
  uint32_t next_xact_;
  Time round_trip_ = 0;
  Time next_expiry_ = 0;
};

// --- What arrives ---

void Lead::Impl::on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from,
                             Time now) {
  Frame frame;
  if (!split_frame(bytes, frame)) {
    ++counters_.bad_datagrams;
    return;
  }
  if (channel == Channel::kControl)
    on_control(frame, from, now);
  else
    on_data(frame, from, now);
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
  const bool has_point = reply || qidl::has<&H::ack_sequence>(*header);
  const uint32_t point = reply ? header->sequence : header->ack_sequence;
  const NodeTable::Result seen = nodes_.observe_control(*header, from, has_point, point, now);
  if (seen.index == kNoNode) {
    ++counters_.foreign_datagrams;
    return;
  }
  if (reply) {
    control_.adopt(point);
    if (qidl::has<&H::status>(*header)) measure_round_trip(header->status, now);
  }
  on_sighting(seen, now);
  if (message) return on_message(seen.index, *header, frame.body, now);
  if (answer && header->unicast == 1) return;  // nothing was sent to a single node
  if (kind == PKGDIST_CTRL_MSG_ACK) control_.on_ack(seen.index, header->sequence);
  if (kind == PKGDIST_CTRL_MSG_NACK)
    control_.on_nack(header->sequence, qidl::has<&H::segment>(*header), header->segment, now);
  if (reply)
    control_.on_ping_reply(seen.index, point, now);
  else if (has_point)
    control_.on_point(seen.index, point);
}

void Lead::Impl::on_message(NodeIndex node, const pkgdist_ctrl_msg_hdr& header,
                            std::span<const uint8_t> bytes, Time now) {
  const Decoded<pkgdist_ctrl_msg> body(bytes);
  if (body)
    messages_.on_segment(node, header, *body, now);
  else
    ++counters_.bad_datagrams;
}

void Lead::Impl::on_acknowledged(uint32_t sequence, NodeIndex node) {
  if (own_messages_.contains(sequence))
    events_.message_acknowledged(nodes_[node].info, sequence);
  else if (push_)
    push_->on_acknowledged(sequence, node);
}

uint32_t Lead::Impl::post(uint32_t msg_class, std::vector<uint8_t> bytes, const Audience& audience,
                          Time now) {
  if (bytes.empty() || bytes.size() > UINT32_MAX || audience.nodes.size() > kMaxNodesPerMessage)
    return 0;
  if (audience.nodes.empty() == (audience.card_class == kCardClassListed)) return 0;
  std::vector<NodeIndex> waiting;
  for (NodeIndex i = 0; i < nodes_.size(); ++i) {
    const NodeInfo& info = nodes_[i].info;
    if (!nodes_[i].silent && info.pid != 0 && audience.includes(info.address, info.card_class))
      waiting.push_back(i);
  }
  const uint32_t sequence = control_.post(msg_class, std::move(bytes), audience, waiting, now);
  own_messages_.insert(sequence);
  constexpr size_t kMaxRemembered = 4096;
  if (own_messages_.size() > kMaxRemembered) own_messages_.erase(own_messages_.begin());
  return sequence;
}

uint32_t Lead::Impl::delete_files(uint32_t location, const std::vector<std::string>& names,
                                  const Audience& audience, Time now) {
  if (location < PKGDIST_LOCATION_FIRST || location > PKGDIST_LOCATION_LAST) return 0;
  if (names.empty() || names.size() > UINT16_MAX) return 0;
  for (const std::string& name : names)
    if (name_problem(name) != nullptr) return 0;
  return post(PKGDIST_CTRL_CLASS_FILE_SEND, encode_delete(location, names), audience, now);
}

void Lead::Impl::measure_round_trip(uint64_t echo, Time now) {
  const Time sample = elapsed(now, echo);
  if (sample == 0 || sample > kMaxRoundTrip) return;
  round_trip_ = round_trip_ == 0 ? sample : (7 * round_trip_ + sample) / 8;
  data_.set_round_trip(round_trip_);
}

void Lead::Impl::on_sighting(NodeTable::Result seen, Time now) {
  if (seen.sighting == Sighting::kKnown || seen.sighting == Sighting::kIgnored) return;
  const NodeInfo& info = nodes_[seen.index].info;
  if (seen.sighting == Sighting::kAppeared) events_.node_appeared(info);
  if (seen.sighting == Sighting::kReturned) events_.node_returned(info);
  if (seen.sighting == Sighting::kRestarted) {
    events_.node_restarted(info);
    control_.forget(seen.index);
    messages_.forget(seen.index);
    data_.drop_node(seen.index, now);
  }
  if (push_) push_->on_node_fresh(seen.index);
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
    on_sighting(seen, now);
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
           const uint32_t segments =
               data_.on_segment_request(node, body.file_id, body.segment, body.num, now);
           if (push_) push_->on_requested_segments(node, segments);
         });
}

void Lead::Impl::on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now) {
  const FileKey key{request.location, request.name};
  if (key.location < PKGDIST_LOCATION_FIRST || key.location > PKGDIST_LOCATION_LAST) {
    ++counters_.bad_datagrams;
    return;
  }
  ++counters_.files_requested;
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
    if (push_) push_->on_node_silent(node);
    data_.drop_node(node, now);
  });
}

void Lead::Impl::run(Time now) {
  expire_nodes(now);
  if (push_) push_->run(now);
  using Watch = ControlStream::Watch;
  const bool pushing = push_ && !push_->finished();
  control_.set_watch(!pushing             ? Watch::kIdle
                     : push_->gathering() ? Watch::kGathering
                                          : Watch::kPushing,
                     now);
  control_.run(now);
  messages_.run(now);
  data_.run(now);
}

Time Lead::Impl::next_deadline(Time now) const {
  Time deadline = std::min(control_.next_deadline(), data_.next_deadline(now));
  deadline = std::min({deadline, next_expiry_, messages_.next_deadline()});
  if (push_) deadline = std::min(deadline, push_->next_deadline());
  return std::max(deadline, now);
}

const char* Lead::Impl::start_push(PushRequest request, Time now) {
  if (push_ && !push_->finished()) return "a push is running";
  if (const char* problem = request_problem(request)) return problem;
  if (++next_xact_ == 0) ++next_xact_;
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

PushReport Lead::push_report() const {
  return impl_->push_ ? impl_->push_->report() : PushReport{};
}

bool Lead::push_running() const {
  return impl_->push_ && !impl_->push_->finished();
}

uint32_t Lead::send_message(uint32_t msg_class, std::vector<uint8_t> bytes,
                            const Audience& audience, Time now) {
  if (msg_class < PKGDIST_CTRL_CLASS_FIRST || msg_class > PKGDIST_CTRL_CLASS_LAST) return 0;
  return impl_->post(msg_class, std::move(bytes), audience, now);
}

uint32_t Lead::cancel_transaction(uint32_t xact, const Audience& audience, Time now) {
  if (xact == 0) return 0;
  return impl_->post(PKGDIST_CTRL_CLASS_FILE_SEND, encode_cancel(xact), audience, now);
}

uint32_t Lead::delete_files(uint32_t location, const std::vector<std::string>& names,
                            const Audience& audience, Time now) {
  return impl_->delete_files(location, names, audience, now);
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
