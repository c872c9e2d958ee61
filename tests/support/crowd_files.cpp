#include "crowd_files.h"

#include <algorithm>
#include <cerrno>

#include "model_node.h"
#include "node_rules.h"
#include "pkgdist/status.h"
#include "pkgdist/wire_data.h"

namespace pkgdist::test {

namespace {

bool has(const uint64_t* set, uint32_t segment) {
  return (set[segment / 64] >> (segment % 64) & 1) != 0;
}
void put(uint64_t* set, uint32_t segment) {
  set[segment / 64] |= uint64_t{1} << (segment % 64);
}
void drop(uint64_t* set, uint32_t segment) {
  set[segment / 64] &= ~(uint64_t{1} << (segment % 64));
}

void store_u32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

pkgdist_data_msg_hdr header_of(uint32_t msg_id, uint32_t address) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, msg_id);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, address);
  return header;
}

// The three numbers of a request are its last twelve bytes.
Bytes request_frame(uint32_t address) {
  using B = struct pkgdist_data_send_req_single;
  B body{};
  qidl::set<&B::file_id>(body, 0u);
  qidl::set<&B::segment>(body, 0u);
  qidl::set<&B::num>(body, 0u);
  return framed(header_of(PKGDIST_DATA_MSG_REQ_SINGLE, address), body);
}

}  // namespace

CrowdFiles::CrowdFiles(uint32_t nodes, uint32_t first_address, const NodeTimeouts& timeouts,
                       Send send, Check check)
    : first_address_(first_address),
      timeouts_(timeouts),
      send_(std::move(send)),
      check_(std::move(check)),
      nodes_(nodes) {
  for (uint32_t i = 0; i < nodes; ++i) nodes_[i].request = request_frame(first_address + i);
}

CrowdFiles::File& CrowdFiles::file_of(const char* name, uint32_t location) {
  File*& found = by_name_[disk_key(location, name)];
  if (found == nullptr) {
    found = files_.emplace_back(std::make_unique<File>()).get();
    found->name = name;
    found->location = location;
  }
  return *found;
}

void CrowdFiles::on_list(uint32_t node, std::span<const uint8_t> bytes, uint64_t now) {
  const Message<pkgdist_file_send_ctrl> list(bytes);
  if (!list.ok() || list->operation != PKGDIST_FILE_SEND_LIST) return;
  for (uint32_t i = 0; i < list->names_count; ++i) {
    File& file = file_of(list->names[i], list->location);
    file.type = list->type;
    file.priority = list->priority;
    if (file.entries.empty()) file.entries.resize(nodes_.size());
    if (!std::exchange(file.live, true)) live_.push_back(&file);
    Entry& entry = file.entries[node];
    if (!entry.listed) {
      ++file.busy;
      ++nodes_[node].listed;
    }
    entry.listed = entry.pending = true;
    entry.start = now;
  }
}

void CrowdFiles::on_data(std::span<const uint8_t> bytes, std::span<const uint8_t> got,
                         uint64_t now) {
  const Parts parts = parts_of(bytes);
  const Message<pkgdist_data_msg_hdr> header(parts.header);
  if (!header.ok()) return;
  if (header->msg_id == PKGDIST_DATA_MSG_FILE_INFO) on_info(parts.body, got, now);
  if (header->msg_id == PKGDIST_DATA_MSG_SEGMENT) on_segment(parts.body, got, now);
  if (header->msg_id == PKGDIST_DATA_MSG_MISS_DONE) on_miss_done(parts.body, got, now);
}

// The data socket is open while something is being received or remembered.
bool CrowdFiles::listens(const NodeState& node, uint64_t now) const {
  return node.listed != 0 || (node.last_end != 0 && since(now, node.last_end) <= kStatAge);
}

template <class Each>
void CrowdFiles::each_listener(std::span<const uint8_t> got, uint64_t now, Each&& each) {
  for (uint32_t i = 0; i < nodes_.size(); ++i) {
    if (got[i] == 0 || !listens(nodes_[i], now)) continue;
    each(i);
    nodes_[i].last_data = now;
  }
}

bool CrowdFiles::names(const uint32_t* nodes, uint32_t count, uint32_t node) const {
  return count == 0 || std::find(nodes, nodes + count, first_address_ + node) != nodes + count;
}

// --- Informations and segments ---

void CrowdFiles::on_info(std::span<const uint8_t> body, std::span<const uint8_t> got,
                         uint64_t now) {
  const Message<pkgdist_data_send_file_info> info(body);
  if (!info.ok()) return;
  File& file = file_of(info->name, info->location);
  file.size = info->size;
  file.segment_size = info->segment_size;
  file.segments = std::max<uint32_t>(
      1, static_cast<uint32_t>((uint64_t{file.size} + file.segment_size - 1) / file.segment_size));
  by_id_[info->file_id] = &file;
  each_listener(got, now, [&](uint32_t node) {
    if (file.entries.empty() || !file.entries[node].listed) return;
    if (!names(info->node_list, info->node_list_count, node)) return;
    Entry& entry = file.entries[node];
    entry.pending = false;
    if (info->status != 0) {
      entry.id = info->file_id;
      return end(file, node, info->status, now);
    }
    if (entry.id != info->file_id) begin(file, entry, info->file_id, now);
    if (entry.received == file.segments) end(file, node, 0, now);
  });
  release_if_idle(file);
}

void CrowdFiles::begin(File& file, Entry& entry, uint32_t id, uint64_t now) {
  entry.id = id;
  entry.received = entry.lacking = 0;
  entry.open = false;
  entry.small = {};
  if (!is_small(file)) entry.large = std::make_unique<uint64_t[]>(2 * words(file));
  entry.start = now;
  entry.time_outs = 0;
}

void CrowdFiles::on_segment(std::span<const uint8_t> body, std::span<const uint8_t> got,
                            uint64_t now) {
  const Message<pkgdist_data_send_segment> message(body);
  if (!message.ok()) return;
  const auto found = by_id_.find(message->file_id);
  if (found == by_id_.end()) return each_listener(got, now, [](uint32_t) {});
  File& file = *found->second;
  const uint32_t id = message->file_id;
  const uint32_t segment = message->segment;
  const bool repair = message->repair != 0;
  const uint64_t offset = uint64_t{segment} * file.segment_size;
  if (segment >= file.segments ||
      message->data_size != std::min<uint64_t>(file.segment_size, file.size - offset) ||
      !check_(file.name, offset, {message->data, message->data_size})) {
    ++counters_.damaged;
    return;
  }
  each_listener(got, now, [&](uint32_t node) {
    if (file.entries.empty() || file.entries[node].id != id) return;
    take(file, node, segment, repair, now);
  });
  release_if_idle(file);
}

void CrowdFiles::take(File& file, uint32_t node, uint32_t segment, bool repair, uint64_t now) {
  Entry& entry = file.entries[node];
  entry.time_outs = 0;
  uint64_t* const stored = have(file, entry);
  if (has(stored, segment)) {
    ++counters_.duplicates;
    return;
  }
  uint32_t expected = entry.last + 1 < file.segments ? entry.last + 1 : 0;
  if (!entry.open) {
    entry.open = true;
    entry.first = entry.last = expected = segment;
  }
  put(stored, segment);
  ++entry.received;
  ++counters_.stored;
  track(file, node, segment, expected, repair, now);
  if (entry.received == file.segments && !entry.pending) end(file, node, 0, now);
}

void CrowdFiles::track(File& file, uint32_t node, uint32_t segment, uint32_t expected, bool repair,
                       uint64_t now) {
  Entry& entry = file.entries[node];
  if (segment == expected) entry.last = segment;
  if (entry.lacking != 0 && has(missing(file, entry), segment)) {
    drop(missing(file, entry), segment);
    --entry.lacking;
    entry.repair = now;
    return;
  }
  if (segment == expected || repair) return;
  const bool wrapped = entry.last < entry.first;
  if (segment > entry.last || (!wrapped && segment < entry.first)) entry.last = segment;
  request_gap(file, node, expected, entry.last, now);
}

// --- Requests ---

void CrowdFiles::request_gap(File& file, uint32_t node, uint32_t from, uint32_t to, uint64_t now) {
  Entry& entry = file.entries[node];
  uint32_t start = 0, length = 0;
  const auto close_run = [&] {
    if (length == 0) return;
    send_request(node, entry.id, start, length);
    entry.repair = now;
    length = 0;
  };
  for (uint32_t k = from; k != to; k = k + 1 < file.segments ? k + 1 : 0) {
    if (has(have(file, entry), k) || has(missing(file, entry), k)) {
      close_run();
      continue;
    }
    put(missing(file, entry), k);
    ++entry.lacking;
    if (length++ == 0) start = k;
  }
  close_run();
}

// Asks for all that is missing; `mark`: also for what was never known to be.
void CrowdFiles::request_all(File& file, uint32_t node, bool mark, uint64_t now) {
  Entry& entry = file.entries[node];
  const uint64_t* const stored = have(file, entry);
  uint64_t* const lost = missing(file, entry);
  uint32_t start = 0, length = 0;
  const auto close_run = [&] {
    if (length != 0) send_request(node, entry.id, start, length);
    length = 0;
  };
  uint32_t k = entry.first;
  for (uint32_t i = 1; i < file.segments; ++i) {
    k = k + 1 < file.segments ? k + 1 : 0;
    if (mark && !has(stored, k) && !has(lost, k)) {
      put(lost, k);
      ++entry.lacking;
    }
    if (!has(lost, k) || has(stored, k)) {
      close_run();
      continue;
    }
    if (length++ == 0) start = k;
  }
  close_run();
  entry.repair = now;
}

void CrowdFiles::time_out(File& file, uint32_t node, uint64_t now) {
  Entry& entry = file.entries[node];
  const uint32_t segments = entry.id != 0 ? file.segments : 0;
  const uint64_t factor = entry.time_outs + uint64_t{1};
  const bool info = entry.pending && since(now, entry.start) >= timeouts_.info * factor;
  const bool lost = entry.lacking != 0 && since(now, entry.repair) >= timeouts_.missing * factor;
  const bool tail = entry.received != 0 && entry.received < segments &&
                    segments - entry.received < kTail &&
                    since(now, entry.start) >= timeouts_.missing * factor;
  const bool silent = entry.received < segments &&
                      since(now, nodes_[node].last_data) >= timeouts_.not_done * factor;
  if (!info && !lost && !tail && !silent) return;
  ++counters_.time_outs;
  if (entry.time_outs >= timeouts_.max_retries)
    return end(file, node, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT), now);
  ++entry.time_outs;
  if (info || (!lost && !tail)) {
    entry.start = now;
    entry.pending = true;
    send_file_request(file, node);
  } else if (lost) {
    request_all(file, node, false, now);
  } else {
    request_all(file, node, true, now);
    entry.start = now;
  }
}

void CrowdFiles::scan(uint32_t node, uint64_t now) {
  std::erase_if(live_, [](File* file) {
    if (file->busy == 0) file->live = false;
    return file->busy == 0;
  });
  for (File* file : live_) {
    if (file->entries.empty() || !file->entries[node].listed) continue;
    time_out(*file, node, now);
    release_if_idle(*file);
  }
}

// --- The end of a file ---

void CrowdFiles::end(File& file, uint32_t node, uint64_t status, uint64_t now) {
  if (file.ended.empty()) file.ended.resize(nodes_.size());
  const uint32_t id = file.entries[node].id;
  file.entries[node] = {};
  file.ended[node] = {now, status, id};
  --file.busy;
  NodeState& one = nodes_[node];
  --one.listed;
  one.last_end = now;
  ++(status == 0 ? one.complete : one.failed);
  ++(status == 0 ? counters_.complete : counters_.failed);
  send_report(file, node, id, status);
}

// Not before a walk over the entries is over.
void CrowdFiles::release_if_idle(File& file) {
  if (file.busy == 0) file.entries = std::vector<Entry>();
}

void CrowdFiles::on_miss_done(std::span<const uint8_t> body, std::span<const uint8_t> got,
                              uint64_t now) {
  const Message<pkgdist_data_send_miss_done> ask(body);
  if (!ask.ok()) return;
  File& file = file_of(ask->name, ask->location);
  each_listener(got, now, [&](uint32_t node) {
    if (!names(ask->node_list, ask->node_list_count, node)) return;
    const Ended* ended = file.ended.empty() ? nullptr : &file.ended[node];
    if (ended != nullptr && ended->time != 0 && since(now, ended->time) <= kStatAge)
      return send_report(file, node, ended->id, ended->status);
    const bool known = !file.entries.empty() && file.entries[node].listed;
    send_report(file, node, ask->file_id,
                known ? PKGDIST_STATUS_IN_PROGRESS : PKGDIST_STATUS_UNKNOWN_FILE);
  });
}

// --- Messages to the lead ---

void CrowdFiles::send_request(uint32_t node, uint32_t id, uint32_t segment, uint32_t num) {
  Bytes bytes = nodes_[node].request;
  uint8_t* const numbers = bytes.data() + bytes.size() - 12;
  store_u32(numbers, id);
  store_u32(numbers + 4, segment);
  store_u32(numbers + 8, num);
  ++counters_.requests;
  send_(node, std::move(bytes));
}

void CrowdFiles::send_file_request(const File& file, uint32_t node) {
  using B = pkgdist_data_send_req;
  B body{};
  qidl::set<&B::type>(body, file.type);
  qidl::set<&B::location>(body, file.location);
  qidl::set<&B::priority>(body, file.priority);
  qidl::set<&B::name>(body, const_cast<char*>(file.name.c_str()));
  send_(node, framed(header_of(PKGDIST_DATA_MSG_FILE_REQ, first_address_ + node), body));
}

void CrowdFiles::send_report(const File& file, uint32_t node, uint32_t id, uint64_t status) {
  using B = pkgdist_data_send_req_done;
  B body{};
  qidl::set<&B::file_id>(body, id);
  qidl::set<&B::status>(body, status);
  qidl::set<&B::name>(body, const_cast<char*>(file.name.c_str()));
  qidl::set<&B::location>(body, file.location);
  ++counters_.reports;
  send_(node, framed(header_of(PKGDIST_DATA_MSG_REQ_DONE, first_address_ + node), body));
}

}  // namespace pkgdist::test
