#include "pkgdist_lead/lead.h"

#include "input/control_input.h"
#include "input/data_input.h"
#include "input/other_leads.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

namespace {

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
  if (request.files.empty() && request.directories.empty()) return "there is no file to push";
  for (const PushFile& file : request.files)
    if (const char* problem = name_problem(file.name)) return problem;
  for (const std::string& name : request.directories)
    if (const char* problem = name_problem(name)) return problem;
  return nullptr;
}

}  // namespace

// Runs the parts: who leads, what is due, what the owner asks for.
class Lead::Impl {
 public:
  Impl(const Settings& settings, DatagramSink& sink, ContentStore& store, Events& events)
      : parts_(settings, sink, store, events), next_xact_(static_cast<uint32_t>(settings.seed)) {}

  void on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from, Time now);
  void run(Time now);
  Time next_deadline(Time now) const;
  const char* start_push(PushRequest request, Time now);
  MessageId post(MessageKind kind, uint32_t msg_class, std::vector<uint8_t> bytes,
                 const Audience& audience, Time now, Time timeout);
  MessageId cancel(uint32_t xact, const Audience& audience, Time now, Time timeout);
  MessageId delete_files(uint32_t location, const std::vector<std::string>& names,
                         const Audience& audience, Time now, Time timeout);
  NodeCounts node_counts() const;
  std::vector<NodeView> nodes() const;
  bool leave_out(uint32_t address, uint64_t status, Time now) {
    return push() != nullptr && push()->leave_out_node(parts_.nodes.find(address), status, now);
  }
  uint32_t xact() const { return parts_.push ? next_xact_ : 0; }
  const LeadParts& parts() const { return parts_; }
  PushJob* push() const { return parts_.push.get(); }

 private:
  void update_role(Time now);
  void step_aside(Time now);
  void ask_for_leads(Time now);
  ControlStream::Watch watch() const;

  LeadParts parts_;
  NodeWatch nodes_{parts_};
  ControlInput control_input_{parts_, nodes_};
  DataInput data_input_{parts_, nodes_};
  OtherLeads other_leads_{parts_};
  uint32_t next_xact_;
  Role told_role_ = Role::kListening;
  bool has_led_ = false;  // since it stepped aside last
};

void Lead::Impl::on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from,
                             Time now) {
  parts_.now = now;
  Frame frame;
  if (!split_frame(bytes, frame)) {
    ++parts_.counters.bad_datagrams;
    return;
  }
  update_role(now);
  if (channel == Channel::kOverheard) {
    if (other_leads_.hear(frame.header, from, now)) update_role(now);
    return;
  }
  if (!parts_.leads()) {
    ++parts_.counters.not_leading;
    return;
  }
  if (channel == Channel::kControl)
    control_input_.on_datagram(frame, from, now);
  else
    data_input_.on_datagram(frame, from, now);
}

// --- Who leads ---

void Lead::Impl::update_role(Time now) {
  Leadership& leadership = parts_.leadership;
  leadership.run(now);
  if (leadership.role() == told_role_) return;
  told_role_ = leadership.role();
  parts_.control.set_leading_since(leadership.leading_since());
  // From leading, or from listening again after a suspension: its work is still there then.
  if (parts_.leads()) has_led_ = true;
  if (told_role_ == Role::kStandingBy && std::exchange(has_led_, false)) step_aside(now);
  if (parts_.leads() && push() && push()->gathering()) push()->begin(now);  // patience begins now
  parts_.events.role_changed(told_role_, leadership.other());
}

// The other lead's nodes are its own business from here on: they ask it for what they lack.
void Lead::Impl::step_aside(Time now) {
  if (push()) push()->stop(now);
  parts_.outbox.give_up_all(Delivery::kSuperseded);
  parts_.data.abandon_all();
  parts_.control.abandon();
  parts_.last_reply = 0;
  nodes_.forget_all(now);
}

void Lead::Impl::ask_for_leads(Time now) {
  if (!parts_.leadership.asks(now)) return;
  const size_t length = build_lead_query(parts_.sink.buffer(), parts_.settings);
  if (length != 0) parts_.sink.send(Channel::kControl, kGroup, length);
}

// --- Time ---

ControlStream::Watch Lead::Impl::watch() const {
  using Watch = ControlStream::Watch;
  if (!parts_.pushing()) return Watch::kIdle;
  return push()->gathering() ? Watch::kGathering : Watch::kPushing;
}

void Lead::Impl::run(Time now) {
  parts_.now = now;
  update_role(now);
  ask_for_leads(now);
  if (!parts_.leads()) return;
  nodes_.run(now);
  if (push()) push()->run(now);
  parts_.control.set_watch(watch(), now);
  parts_.outbox.run(now);
  parts_.control.run(now);
  parts_.streams.run(now);
  parts_.messages.run(now);
  parts_.data.run(now);
}

Time Lead::Impl::next_deadline(Time now) const {
  if (!parts_.leads()) return std::max(parts_.leadership.next_deadline(), now);
  Time deadline = std::min(parts_.control.next_deadline(), parts_.data.next_deadline(now));
  deadline = std::min({deadline, nodes_.next_deadline(), parts_.messages.next_deadline()});
  deadline = std::min({deadline, parts_.streams.next_deadline(), parts_.outbox.next_deadline()});
  if (push()) deadline = std::min(deadline, push()->next_deadline());
  return std::max(deadline, now);
}

// --- What the owner asks for ---

const char* Lead::Impl::start_push(PushRequest request, Time now) {
  if (parts_.pushing()) return "a push is running";
  if (const char* problem = request_problem(request)) return problem;
  next_xact_ = (next_xact_ + 1) | kLeadTransactions;
  parts_.nodes.name(request.nodes);
  parts_.push = std::make_unique<PushJob>(std::move(request), next_xact_, parts_.nodes,
                                          parts_.control, parts_.data, parts_.events);
  push()->begin(now);
  return nullptr;
}

MessageId Lead::Impl::post(MessageKind kind, uint32_t msg_class, std::vector<uint8_t> bytes,
                           const Audience& audience, Time now, Time timeout) {
  if (!parts_.leads()) return 0;
  return parts_.outbox.post(kind, msg_class, std::move(bytes), audience, timeout, now);
}

MessageId Lead::Impl::cancel(uint32_t xact, const Audience& audience, Time now, Time timeout) {
  if (xact == 0) return 0;
  const MessageId id = post(MessageKind::kCancel, PKGDIST_CTRL_CLASS_FILE_SEND, encode_cancel(xact),
                            audience, now, timeout);
  if (id != 0 && push() && xact == this->xact()) push()->cancel(audience, now);
  return id;
}

MessageId Lead::Impl::delete_files(uint32_t location, const std::vector<std::string>& names,
                                   const Audience& audience, Time now, Time timeout) {
  if (location < PKGDIST_LOCATION_FIRST || location > PKGDIST_LOCATION_LAST) return 0;
  if (names.empty() || names.size() > UINT16_MAX) return 0;
  for (const std::string& name : names)
    if (name_problem(name) != nullptr) return 0;
  if (push() && parts_.leads()) push()->note_deleted(location, names);
  return post(MessageKind::kDelete, PKGDIST_CTRL_CLASS_FILE_SEND, encode_delete(location, names),
              audience, now, timeout);
}

// Nodes whose process is not known yet have not appeared.
Lead::NodeCounts Lead::Impl::node_counts() const {
  NodeCounts counts;
  for (NodeIndex i = 0; i < parts_.nodes.size(); ++i) {
    if (parts_.nodes[i].info.pid == 0) continue;
    ++counts.heard;
    counts.silent += parts_.nodes[i].silent;
  }
  return counts;
}

std::vector<Lead::NodeView> Lead::Impl::nodes() const {
  std::vector<NodeView> views;
  for (NodeIndex i = 0; i < parts_.nodes.size(); ++i)
    if (const auto& node = parts_.nodes[i]; node.info.pid != 0)
      views.push_back({node.info, node.last_heard, node.silent});
  return views;
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
  if (impl_->push() != nullptr) impl_->push()->stop(now);
}

PushReport Lead::push_progress() const {
  return impl_->push() != nullptr ? impl_->push()->progress() : PushReport{};
}

PushReport Lead::push_report() const {
  return impl_->push() != nullptr ? impl_->push()->report() : PushReport{};
}

bool Lead::push_running() const {
  return impl_->parts().pushing();
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
  return impl_->parts().outbox.report(id);
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
  return impl_->parts().leadership.role();
}

uint32_t Lead::other_lead() const {
  return impl_->parts().leadership.other();
}

bool Lead::push_brings(uint32_t location, const std::string& name) const {
  return push_running() && impl_->push()->brings(location, name);
}

uint32_t Lead::push_transaction() const {
  return impl_->xact();
}

uint64_t Lead::rate_bits() const {
  return impl_->parts().data.rate_bits();
}

const Counters& Lead::counters() const {
  return impl_->parts().counters;
}

}  // namespace pkgdist::lead
