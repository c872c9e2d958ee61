#include "model_node.h"

#include <cerrno>

#include "node_rules.h"
#include "pkgdist/status.h"
#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"

namespace pkgdist::test {

namespace {

constexpr uint64_t kControlScan = 250 * kMs;
constexpr uint64_t kSegmentTimeout = 250 * kMs;
constexpr uint64_t kLeadAckTimeout = 500 * kMs;
constexpr uint64_t kLeadSilence = 7500 * kMs;

const std::string kPartialSuffix = ".tmp";

template <class List>
bool names_me(const uint32_t* nodes, List count, uint32_t me) {
  for (uint32_t i = 0; i < count; ++i)
    if (nodes[i] == me) return true;
  return false;
}

}  // namespace

ModelNode::ModelNode(Identity identity, Disk& disk, Send send)
    : self_(identity), disk_(disk), send_(std::move(send)) {}

// --- Control channel ---

void ModelNode::on_control(std::span<const uint8_t> bytes, uint64_t now, bool unicast) {
  const Parts parts = parts_of(bytes);
  const Message<pkgdist_ctrl_msg_hdr> header(parts.header);
  if (!header.ok()) {
    ++counters_.bad;
    return;
  }
  if (header->msg_id == PKGDIST_CTRL_MSG_PING) return on_ping(*header, now);
  if (header->msg_id == PKGDIST_CTRL_MSG_CTRL) return on_message(*header, parts.body, now, unicast);
  if (header->msg_id == PKGDIST_CTRL_MSG_ACK || header->msg_id == PKGDIST_CTRL_MSG_NACK)
    return on_answer(*header, now);
  ++counters_.bad;
}

bool ModelNode::take_lead(const pkgdist_ctrl_msg_hdr& header, bool ping, uint64_t now) {
  bool fresh = false;
  if (header.node_ip != lead_) {
    if (lead_ != 0 && since(now, lead_heard_) < kLeadSilence) {
      ++foreign_lead_;
      return false;
    }
    if (lead_ != 0) ++failovers_;
    lead_ = header.node_ip;
    lead_pid_ = header.pid;
    fresh = true;
  }
  lead_heard_ = now;
  if (header.pid != lead_pid_) {
    lead_pid_ = header.pid;
    fresh = true;
  }
  if (!fresh) return true;
  last_unicast_ = 0;
  last_sequence_ = point_ = ping ? header.sequence : header.sequence - 1;
  for (Entry& entry : entries_) {
    by_id_.erase(entry.id);
    entry.id = 0;
    entry.time_outs = 0;
    entry.start = now;
    entry.pending = true;
    send_file_request(entry);
  }
  return true;
}

std::list<ModelNode::Received>::iterator ModelNode::find_received(uint32_t sequence, bool unicast) {
  return std::find_if(received_.begin(), received_.end(), [&](const Received& one) {
    return one.sequence == sequence && one.unicast == unicast;
  });
}

void ModelNode::add_placeholder(uint32_t sequence, uint64_t now, bool unicast) {
  if (find_received(sequence, unicast) != received_.end()) return;
  Received& entry = received_.emplace_back();
  entry.sequence = sequence;
  entry.unicast = unicast;
  entry.stamp = now;
  entry.nacks = 1;
  answer(PKGDIST_CTRL_MSG_NACK, sequence, std::nullopt, unicast);
}

void ModelNode::on_ping(const pkgdist_ctrl_msg_hdr& header, uint64_t now) {
  using H = pkgdist_ctrl_msg_hdr;
  if (!take_lead(header, true, now)) return;
  while (last_sequence_ < header.sequence) add_placeholder(++last_sequence_, now, false);
  H reply{};
  qidl::set<&H::msg_id>(reply, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&H::node_ip>(reply, self_.address);
  qidl::set<&H::pid>(reply, self_.pid);
  qidl::set<&H::sequence>(reply, point_);
  qidl::set<&H::card_class>(reply, self_.card_class);
  qidl::set<&H::node_id>(reply, self_.node_id);
  if (qidl::has<&H::status>(header)) qidl::set<&H::status>(reply, header.status);
  last_ping_status_ = header.status;
  send_(To::kControl, framed(reply));
}

void ModelNode::answer(uint32_t kind, uint32_t sequence, std::optional<uint32_t> segment,
                       bool unicast) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::msg_id>(header, kind);
  qidl::set<&H::node_ip>(header, self_.address);
  qidl::set<&H::pid>(header, self_.pid);
  qidl::set<&H::sequence>(header, sequence);
  qidl::set<&H::card_class>(header, self_.card_class);
  qidl::set<&H::node_id>(header, self_.node_id);
  if (segment) qidl::set<&H::segment>(header, *segment);
  if (unicast)
    qidl::set<&H::unicast>(header, 1);
  else
    qidl::set<&H::ack_sequence>(header, point_);
  send_(To::kControl, framed(header));
}

bool ModelNode::rejects(uint32_t card_class, const pkgdist_ctrl_msg& body) const {
  switch (card_class) {
    case 1:
    case 2:
    case 5:
    case 11:
    case 13:
      return self_.card_class != card_class;
    case 12:
      return self_.card_class != 1 && self_.card_class != 11;
    case 6:
      return self_.card_class != 1 && self_.card_class != 5;
    case 4:
      return !names_me(body.node_list, body.node_list_count, self_.address);
    default:
      return false;
  }
}

void ModelNode::on_message(const pkgdist_ctrl_msg_hdr& header, std::span<const uint8_t> bytes,
                           uint64_t now, bool unicast) {
  if (!take_lead(header, false, now)) return;
  const Message<pkgdist_ctrl_msg> body(bytes);
  if (!body.ok() || body->segment_size == 0) {
    ++counters_.bad;
    return;
  }
  const uint32_t sequence = header.sequence;
  uint32_t& last = unicast ? last_unicast_ : last_sequence_;
  const uint32_t before = last;
  if (unicast && last == 0) last = sequence;
  if (sequence > last) {
    for (uint32_t s = last + 1; s < sequence; ++s) add_placeholder(s, now, unicast);
    last = sequence;
  }
  auto at = find_received(sequence, unicast);
  const bool rejected = !unicast && rejects(header.card_class, *body);
  if (at == received_.end()) {
    if (sequence <= before && body->rxmt == 1) {
      if (unicast && header.segment == 0)
        answer(PKGDIST_CTRL_MSG_ACK, sequence, std::nullopt, true);
      return;
    }
    if (rejected) return advance_point(sequence);
    Received& fresh = received_.emplace_back();
    fresh.sequence = sequence;
    fresh.unicast = unicast;
    at = std::prev(received_.end());
  } else if (rejected) {
    received_.erase(at);
    return advance_point(sequence);
  }
  if (at->have.empty()) {
    at->msg_class = body->msg_class;
    at->total = body->total_size;
    at->segment_size = body->segment_size;
    at->have.resize((body->total_size + uint64_t{body->segment_size} - 1) / body->segment_size);
    at->data.resize(body->total_size);
  }
  at->stamp = now;
  if (header.segment >= at->have.size() || at->have[header.segment]) return;
  const uint64_t offset = uint64_t{header.segment} * at->segment_size;
  if (offset + body->data_size > at->total) return;
  at->have[header.segment] = true;
  std::copy_n(body->data, body->data_size, at->data.begin() + static_cast<ptrdiff_t>(offset));
  for (bool have : at->have)
    if (!have) return;
  deliver(*at, now);
  answer(PKGDIST_CTRL_MSG_ACK, sequence, std::nullopt, unicast);
  received_.erase(at);
  if (!unicast) advance_point(sequence);
}

void ModelNode::deliver(Received& message, uint64_t now) {
  ++counters_.control_messages;
  if (message.msg_class != PKGDIST_CTRL_CLASS_FILE_SEND)
    messages_.push_back(message.data);
  else if (file_lists_)
    file_lists_(message.data);
  else
    on_list(message.data, now);
}

void ModelNode::advance_point(uint32_t done) {
  while (point_ != last_sequence_) {
    const uint32_t next = point_ + 1;
    if (next != done && find_received(next, false) != received_.end()) return;
    point_ = next;
  }
}

void ModelNode::scan_control(uint64_t now) {
  for (auto at = received_.begin(); at != received_.end();) {
    if (since(now, at->stamp) < kSegmentTimeout * (at->nacks + 1)) {
      ++at;
      continue;
    }
    if (at->nacks >= kMaxRetries) {
      at = received_.erase(at);
      continue;
    }
    if (at->have.empty()) answer(PKGDIST_CTRL_MSG_NACK, at->sequence, std::nullopt, at->unicast);
    for (uint32_t i = 0; i < at->have.size(); ++i)
      if (!at->have[i]) answer(PKGDIST_CTRL_MSG_NACK, at->sequence, i, at->unicast);
    ++at->nacks;
    at->stamp = now;
    ++at;
  }
}

// --- Messages to the lead ---

uint32_t ModelNode::send_message(Bytes bytes, uint64_t now) {
  Outgoing& message = outgoing_.emplace_back();
  message.sequence = next_outgoing_++;
  message.sent_again.resize((bytes.size() + PKGDIST_CTRL_SEGMENT_SIZE - 1) /
                            PKGDIST_CTRL_SEGMENT_SIZE);
  message.bytes = std::move(bytes);
  message.last_send = now;
  outcomes_[message.sequence] = Outcome::kPending;
  for (uint32_t i = 0; i < message.sent_again.size(); ++i) send_segment(message, i, false);
  return message.sequence;
}

void ModelNode::send_segment(const Outgoing& message, uint32_t segment, bool again) {
  using H = pkgdist_ctrl_msg_hdr;
  using B = pkgdist_ctrl_msg;
  H header{};
  qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_CTRL);
  qidl::set<&H::node_ip>(header, self_.address);
  qidl::set<&H::pid>(header, self_.pid);
  qidl::set<&H::sequence>(header, message.sequence);
  qidl::set<&H::card_class>(header, self_.card_class);
  qidl::set<&H::node_id>(header, self_.node_id);
  qidl::set<&H::segment>(header, segment);
  const uint64_t offset = uint64_t{segment} * PKGDIST_CTRL_SEGMENT_SIZE;
  B body{};
  qidl::set<&B::msg_class>(body, 2u);
  qidl::set<&B::total_size>(body, message.bytes.size());
  qidl::set<&B::segment_size>(body, PKGDIST_CTRL_SEGMENT_SIZE);
  if (again) qidl::set<&B::rxmt>(body, 1u);
  body.data = message.bytes.data() + offset;
  body.data_size = std::min<uint64_t>(PKGDIST_CTRL_SEGMENT_SIZE, message.bytes.size() - offset);
  qidl::mark<&B::data>(body);
  send_(To::kControl, framed(header, body));
}

// False when every segment has been sent again as often as allowed.
bool ModelNode::send_again(Outgoing& message, uint64_t now) {
  bool any = false;
  for (uint32_t i = 0; i < message.sent_again.size(); ++i) {
    if (message.sent_again[i] >= kMaxRetries) continue;
    ++message.sent_again[i];
    send_segment(message, i, true);
    any = true;
  }
  if (any) message.last_send = now;
  return any;
}

void ModelNode::on_answer(const pkgdist_ctrl_msg_hdr& header, uint64_t now) {
  const auto at = std::find_if(outgoing_.begin(), outgoing_.end(), [&](const Outgoing& one) {
    return one.sequence == header.sequence;
  });
  if (at == outgoing_.end()) return;
  if (header.msg_id == PKGDIST_CTRL_MSG_ACK) {
    if (header.node_ip != lead_) return;
    outcomes_[at->sequence] = Outcome::kAcknowledged;
    outgoing_.erase(at);
    return;
  }
  if (!qidl::has<&pkgdist_ctrl_msg_hdr::segment>(header)) {
    send_again(*at, now);
    return;
  }
  const uint32_t segment = header.segment;
  if (segment >= at->sent_again.size() || at->sent_again[segment] >= kMaxRetries) return;
  ++at->sent_again[segment];
  at->last_send = now;
  send_segment(*at, segment, false);
}

void ModelNode::scan_outgoing(uint64_t now) {
  for (auto at = outgoing_.begin(); at != outgoing_.end();) {
    Outgoing& message = *at;
    const bool late =
        since(now, message.last_send) >= kLeadAckTimeout * (message.sent_again[0] + uint64_t{1});
    if (!late || send_again(message, now)) {
      ++at;
      continue;
    }
    outcomes_[message.sequence] = Outcome::kTimeout;
    at = outgoing_.erase(at);
  }
}

// --- Data channel ---

void ModelNode::on_data(std::span<const uint8_t> bytes, uint64_t now) {
  const Parts parts = parts_of(bytes);
  const Message<pkgdist_data_msg_hdr> header(parts.header);
  if (!header.ok() || (header->node_ip != 0 && header->node_ip != lead_)) {
    ++counters_.bad;
    return;
  }
  if (entries_.empty() && stats_.empty()) return;  // the data socket is closed
  if (header->msg_id == PKGDIST_DATA_MSG_FILE_INFO) on_info(parts.body, now);
  if (header->msg_id == PKGDIST_DATA_MSG_SEGMENT) on_segment(parts.body, now);
  if (header->msg_id == PKGDIST_DATA_MSG_MISS_DONE) on_miss_done(parts.body);
  last_data_ = now;
}

ModelNode::EntryAt ModelNode::find_entry(const std::string& name, uint32_t location) {
  const auto found = by_name_.find(disk_key(location, name));
  return found != by_name_.end() ? found->second : entries_.end();
}

ModelNode::EntryAt ModelNode::find_entry(uint32_t id) {
  const auto found = by_id_.find(id);
  return id != 0 && found != by_id_.end() ? found->second : entries_.end();
}

void ModelNode::add_entry(const std::string& name, uint32_t location, uint32_t type,
                          uint32_t priority, uint64_t now) {
  Entry& entry = entries_.emplace_back();
  entry.name = name;
  entry.location = location;
  entry.type = type;
  entry.priority = priority;
  entry.start = now;
  by_name_[disk_key(location, name)] = std::prev(entries_.end());
}

void ModelNode::on_list(std::span<const uint8_t> bytes, uint64_t now) {
  const Message<pkgdist_file_send_ctrl> list(bytes);
  if (!list.ok()) return;
  if (list->operation == PKGDIST_FILE_SEND_CANCEL) return on_cancel(list->xact_id, now);
  if (list->operation == PKGDIST_FILE_SEND_DELETE) return on_delete(*list, now);
  if (list->operation != PKGDIST_FILE_SEND_LIST) return;
  ++counters_.lists;
  for (uint32_t i = 0; i < list->names_count; ++i) {
    if (std::string_view(list->names[i]).size() > longest_name_) continue;
    const EntryAt at = find_entry(list->names[i], list->location);
    if (at == entries_.end()) {
      add_entry(list->names[i], list->location, list->type, list->priority, now);
      entries_.back().xact = list->xact_id;
      continue;
    }
    at->xact = list->xact_id;
    at->pending = true;
    at->start = now;
  }
}

void ModelNode::on_cancel(uint32_t xact, uint64_t now) {
  for (auto at = entries_.begin(); at != entries_.end();) {
    const auto next = std::next(at);
    if (at->xact == xact) end(at, PKGDIST_STATUS_CANCELLED, now);
    at = next;
  }
}

void ModelNode::on_delete(const pkgdist_file_send_ctrl& list, uint64_t now) {
  for (uint32_t i = 0; i < list.names_count; ++i) {
    const EntryAt at = find_entry(list.names[i], list.location);
    if (at != entries_.end()) end(at, PKGDIST_STATUS_DELETED, now);
    disk_.erase(disk_key(list.location, list.names[i]));
  }
}

void ModelNode::get_file(const std::string& name, uint32_t location, uint32_t type,
                         uint32_t priority, uint64_t now) {
  if (find_entry(name, location) != entries_.end()) return;
  add_entry(name, location, type, priority, now);
  send_file_request(entries_.back());
}

bool ModelNode::skips(const Entry& entry) const {
  const auto found = disk_.find(disk_key(entry.location, entry.name));
  // A link on a disk has the time at which it was made.
  return found != disk_.end() && !found->second.symlink && entry.type != PKGDIST_FILE_TYPE_ALWAYS &&
         found->second.content.size() == entry.size && found->second.mtime == entry.mtime;
}

void ModelNode::on_info(std::span<const uint8_t> body, uint64_t now) {
  const Message<pkgdist_data_send_file_info> info(body);
  if (!info.ok()) {
    ++counters_.bad;
    return;
  }
  if (info->node_list_count != 0 &&
      !names_me(info->node_list, info->node_list_count, self_.address))
    return;
  ++counters_.infos;
  const EntryAt at = find_entry(info->name, info->location);
  if (at == entries_.end()) {
    ++counters_.not_found;
    return;
  }
  Entry& entry = *at;
  if (entry.id != 0 && entry.id == info->file_id && info->status == 0 && entry.size == info->size &&
      entry.mtime == info->mtime) {
    entry.pending = false;
    if (entry.received == entry.segments) end(at, 0, now);
    return;
  }
  by_id_.erase(entry.id);
  entry.id = info->file_id;
  by_id_[entry.id] = at;
  entry.size = info->size;
  entry.segment_size = info->segment_size;
  entry.mode = info->mode;
  entry.mtime = info->mtime;
  entry.pending = false;
  entry.link |= info->symlink != 0;
  if (info->status != 0) return end(at, info->status, now);
  entry.segments = std::max<uint32_t>(
      1,
      static_cast<uint32_t>((uint64_t{entry.size} + entry.segment_size - 1) / entry.segment_size));
  entry.have.assign(entry.segments, false);
  entry.missing.assign(entry.segments, false);
  entry.received = entry.lacking = 0;
  entry.open = false;
  entry.content.assign(entry.size, 0);
  entry.start = now;
  entry.time_outs = 0;
  if (!skips(entry)) return go_on(entry, now);
  ++counters_.skipped;
  end(at, 0, now);
}

// With what an earlier transfer has left; something is always missing.
void ModelNode::go_on(Entry& entry, uint64_t now) {
  const auto partial = disk_.find(disk_key(entry.location, entry.name + kPartialSuffix));
  if (!good_ || entry.link || partial == disk_.end()) return;
  entry.content = partial->second.content;
  disk_.erase(partial);
  for (uint32_t k = entry.segments; k-- > 0;) {
    if (!good_(k)) continue;
    entry.have[k] = true;
    ++entry.received;
    entry.first = entry.last = k;
  }
  entry.open = entry.received != 0;
  if (entry.open) request_all(entry, true, now);
}

// Replaces what has the partial name, and makes the directories.
int ModelNode::open_partial(const Entry& entry) {
  const std::string partial = disk_key(entry.location, entry.name + kPartialSuffix);
  const auto below = disk_.lower_bound(partial + '/');
  if (below != disk_.end() && below->first.starts_with(partial + '/')) return EISDIR;
  const std::string own = disk_key(entry.location, entry.name);
  for (const Entry& other : entries_)
    if (other.open && own.starts_with(disk_key(other.location, other.name + kPartialSuffix) + '/'))
      return ENOTDIR;
  disk_.erase(partial);
  return 0;
}

// What has the partial name gets the final one, be it what was received or not.
void ModelNode::store_whole(const Entry& entry) {
  StoredFile file{entry.content, entry.mode, entry.mtime, entry.link};
  const auto partial = disk_.find(disk_key(entry.location, entry.name + kPartialSuffix));
  if (!entry.link && partial != disk_.end()) {
    file.content = std::move(partial->second.content);
    disk_.erase(partial);
  }
  disk_[disk_key(entry.location, entry.name)] = std::move(file);
}

void ModelNode::store(Entry& entry, uint32_t segment, const uint8_t* data, uint64_t length) {
  std::copy_n(
      data, length,
      entry.content.begin() + static_cast<ptrdiff_t>(uint64_t{segment} * entry.segment_size));
  entry.have[segment] = true;
  ++entry.received;
  ++counters_.segments;
}

void ModelNode::on_segment(std::span<const uint8_t> body, uint64_t now) {
  const Message<pkgdist_data_send_segment> message(body);
  if (!message.ok()) {
    ++counters_.bad;
    return;
  }
  const EntryAt at = find_entry(message->file_id);
  if (at == entries_.end()) {
    ++counters_.not_found;
    return;
  }
  Entry& entry = *at;
  const uint32_t segment = message->segment;
  entry.time_outs = 0;
  if (segment < entry.segments && entry.have[segment]) {
    ++counters_.duplicates;
    return;
  }
  const uint64_t offset = uint64_t{segment} * entry.segment_size;
  if (segment >= entry.segments ||
      message->data_size != std::min<uint64_t>(entry.segment_size, entry.size - offset)) {
    ++counters_.bad;
    return;
  }
  uint32_t expected = (entry.last + 1) % entry.segments;
  if (!entry.open && !entry.link) {
    if (const int error = open_partial(entry); error != 0)
      return end(at, PKGDIST_STATUS_FROM_ERRNO(error), now);
    entry.open = true;
    entry.first = entry.last = expected = segment;
  }
  store(entry, segment, message->data, message->data_size);
  track(entry, segment, expected, message->repair != 0, now);
  if (entry.received == entry.segments && !entry.pending) end(at, 0, now);
}

void ModelNode::track(Entry& entry, uint32_t segment, uint32_t expected, bool repair,
                      uint64_t now) {
  if (segment == expected) entry.last = segment;
  if (entry.missing[segment]) {
    entry.missing[segment] = false;
    --entry.lacking;
    entry.repair = now;
    return;
  }
  if (segment == expected || repair) return;
  const bool wrapped = entry.last < entry.first;
  if (segment > entry.last || (!wrapped && segment < entry.first)) entry.last = segment;
  request_gap(entry, expected, entry.last, now);
}

void ModelNode::request_gap(Entry& entry, uint32_t from, uint32_t to, uint64_t now) {
  uint32_t start = 0, length = 0;
  const auto close_run = [&] {
    if (length != 0) send_request(entry.id, start, length);
    if (length != 0) entry.repair = now;
    length = 0;
  };
  for (uint32_t k = from; k != to; k = (k + 1) % entry.segments) {
    if (entry.have[k] || entry.missing[k]) {
      close_run();
      continue;
    }
    entry.missing[k] = true;
    ++entry.lacking;
    if (length++ == 0) start = k;
  }
  close_run();
}

// Asks for all that is missing; `mark`: also for what was never known to be.
void ModelNode::request_all(Entry& entry, bool mark, uint64_t now) {
  uint32_t start = 0, length = 0;
  const auto close_run = [&] {
    if (length != 0) send_request(entry.id, start, length);
    length = 0;
  };
  uint32_t k = (entry.first + 1) % entry.segments;
  for (uint32_t i = 1; i < entry.segments; ++i, k = (k + 1) % entry.segments) {
    if (mark && !entry.have[k] && !entry.missing[k]) {
      entry.missing[k] = true;
      ++entry.lacking;
    }
    if (!entry.missing[k] || entry.have[k]) {
      close_run();
      continue;
    }
    if (length++ == 0) start = k;
  }
  close_run();
  entry.repair = now;
}

// True when the entry was given up.
bool ModelNode::time_out(EntryAt at, uint64_t now) {
  Entry& entry = *at;
  const uint64_t factor = entry.time_outs + 1;
  const bool info = entry.pending && since(now, entry.start) >= self_.timeouts.info * factor;
  const bool missing =
      entry.lacking != 0 && since(now, entry.repair) >= self_.timeouts.missing * factor;
  const bool tail = entry.received != 0 && entry.received < entry.segments &&
                    entry.segments - entry.received < kTail &&
                    since(now, entry.start) >= self_.timeouts.missing * factor;
  const bool silent =
      entry.received < entry.segments && since(now, last_data_) >= self_.timeouts.not_done * factor;
  if (!info && !missing && !tail && !silent) return false;
  ++counters_.time_outs;
  if (entry.time_outs >= self_.timeouts.max_retries) {
    end(at, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT), now);
    return true;
  }
  ++entry.time_outs;
  if (info || (!missing && !tail)) {
    entry.start = now;
    entry.pending = true;
    send_file_request(entry);
  } else if (missing) {
    request_all(entry, false, now);
  } else {
    request_all(entry, true, now);
    entry.start = now;
  }
  return false;
}

void ModelNode::scan_data(uint64_t now) {
  for (auto at = entries_.begin(); at != entries_.end();) {
    const auto next = std::next(at);
    time_out(at, now);
    at = next;
  }
  while (!stats_.empty() && since(now, stats_.front().time) > kStatAge) stats_.pop_front();
}

void ModelNode::end(EntryAt at, uint64_t status, uint64_t now) {
  const Entry entry = std::move(*at);
  by_id_.erase(entry.id);
  by_name_.erase(disk_key(entry.location, entry.name));
  entries_.erase(at);
  if (status == 0 && entry.segments != 0 && entry.received == entry.segments) store_whole(entry);
  ended_[disk_key(entry.location, entry.name)] = status;
  stats_.push_back({entry.id, entry.name, entry.location, status, now});
  send_report(entry.id, status, entry.name, entry.location);
}

void ModelNode::on_miss_done(std::span<const uint8_t> body) {
  const Message<pkgdist_data_send_miss_done> ask(body);
  if (!ask.ok()) {
    ++counters_.bad;
    return;
  }
  if (ask->node_list_count != 0 && !names_me(ask->node_list, ask->node_list_count, self_.address))
    return;
  const Ended* found = nullptr;
  for (const Ended& one : stats_)
    if (one.id == ask->file_id) found = &one;
  for (auto one = stats_.begin(); found == nullptr && one != stats_.end(); ++one)
    if (one->name == ask->name && one->location == ask->location) found = &*one;
  if (found != nullptr) return send_report(found->id, found->status, found->name, found->location);
  const bool known = find_entry(ask->file_id) != entries_.end() ||
                     find_entry(ask->name, ask->location) != entries_.end();
  send_report(ask->file_id, known ? PKGDIST_STATUS_IN_PROGRESS : PKGDIST_STATUS_UNKNOWN_FILE,
              ask->name, ask->location);
}

// --- Messages to the lead ---

namespace {

pkgdist_data_msg_hdr data_header(uint32_t msg_id, uint32_t address) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, msg_id);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, address);
  return header;
}

}  // namespace

void ModelNode::send_file_request(const Entry& entry) {
  using B = pkgdist_data_send_req;
  B body{};
  qidl::set<&B::type>(body, entry.type);
  qidl::set<&B::location>(body, entry.location);
  qidl::set<&B::priority>(body, entry.priority);
  qidl::set<&B::name>(body, const_cast<char*>(entry.name.c_str()));
  ++counters_.file_requests;
  send_(To::kData, framed(data_header(PKGDIST_DATA_MSG_FILE_REQ, self_.address), body));
}

void ModelNode::send_request(uint32_t id, uint32_t segment, uint32_t num) {
  using B = struct pkgdist_data_send_req_single;
  B body{};
  qidl::set<&B::file_id>(body, id);
  qidl::set<&B::segment>(body, segment);
  qidl::set<&B::num>(body, num);
  ++counters_.requests;
  send_(To::kData, framed(data_header(PKGDIST_DATA_MSG_REQ_SINGLE, self_.address), body));
}

void ModelNode::send_report(uint32_t id, uint64_t status, const std::string& name,
                            uint32_t location) {
  using B = pkgdist_data_send_req_done;
  B body{};
  qidl::set<&B::file_id>(body, id);
  qidl::set<&B::status>(body, status);
  qidl::set<&B::name>(body, const_cast<char*>(name.c_str()));
  qidl::set<&B::location>(body, location);
  send_(To::kData, framed(data_header(PKGDIST_DATA_MSG_REQ_DONE, self_.address), body));
}

// --- Time ---

void ModelNode::run(uint64_t now) {
  if (since(now, control_scanned_) >= kControlScan) {
    control_scanned_ = now;
    scan_control(now);
    scan_outgoing(now);
  }
  if (since(now, data_scanned_) >= self_.timeouts.scan) {
    data_scanned_ = now;
    scan_data(now);
  }
}

uint64_t ModelNode::next_deadline() const {
  return std::min(control_scanned_ + kControlScan, data_scanned_ + self_.timeouts.scan);
}

}  // namespace pkgdist::test
