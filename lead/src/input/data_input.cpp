#include "input/data_input.h"

#include <cerrno>

#include "input/sender_check.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

void DataInput::on_datagram(const Frame& frame, uint32_t from, Time now) {
  const Decoded<pkgdist_data_msg_hdr> header(frame.header);
  if (!header) {
    ++parts_.counters.bad_datagrams;
    return;
  }
  const uint32_t kind = header->msg_id;
  if (kind < PKGDIST_DATA_MSG_FILE_REQ || kind > PKGDIST_DATA_MSG_REQ_DONE) {
    ++parts_.counters.foreign_datagrams;
    return;
  }
  const std::optional<uint32_t> address = checked_sender(parts_, header->node_ip, from);
  if (!address) return;
  if (*address == parts_.settings.address) {
    ++parts_.counters.foreign_datagrams;
    return;
  }
  if (kind == PKGDIST_DATA_MSG_FILE_REQ)
    return handle<pkgdist_data_send_req>(
        frame, *address, now,
        [&](NodeIndex node, const auto& body) { on_file_request(node, body, now); });
  if (kind == PKGDIST_DATA_MSG_REQ_DONE)
    return handle<pkgdist_data_send_req_done>(
        frame, *address, now,
        [&](NodeIndex node, const auto& body) { parts_.data.on_report(node, body, now); });
  handle<struct pkgdist_data_send_req_single>(
      frame, *address, now,
      [&](NodeIndex node, const auto& body) { on_segment_request(node, body, now); });
}

// The body first: an address is only entered for a message that makes sense.
template <class Body, class Then>
void DataInput::handle(const Frame& frame, uint32_t address, Time now, Then&& then) {
  const Decoded<Body> body(frame.body);
  if (!body) {
    ++parts_.counters.bad_datagrams;
    return;
  }
  const NodeTable::Result seen = parts_.nodes.observe_data(address, now);
  if (seen.index == kNoNode) ++parts_.counters.foreign_datagrams;
  watch_.on_sighting(seen);
  if (seen.index != kNoNode) then(seen.index, *body);
}

void DataInput::on_segment_request(NodeIndex node,
                                   const struct pkgdist_data_send_req_single& request, Time now) {
  if (parts_.push && parts_.push->leaves_behind(node)) return;
  const uint32_t segments =
      parts_.data.on_segment_request(node, request.file_id, request.segment, request.num, now);
  if (parts_.push) parts_.push->on_requested_segments(node, segments);
}

void DataInput::on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.StringChecker): decoded strings are never null
  const FileKey key{request.location, request.name};
  if (key.location < PKGDIST_LOCATION_FIRST || key.location > PKGDIST_LOCATION_LAST) {
    ++parts_.counters.bad_datagrams;
    return;
  }
  ++parts_.counters.files_requested;
  if (parts_.push && parts_.push->leaves_behind(node)) return;
  if (!file_requests_.take(node, 1, now)) return;
  if (name_problem(key.name) != nullptr) {
    const uint64_t status = PKGDIST_STATUS_FROM_ERRNO(EINVAL);
    if (key.name.size() <= kMaxNameLength) parts_.data.refuse(key, status, node);
    return parts_.events.file_requested(parts_.nodes[node].info, key.location, key.name, status);
  }
  serve(key, node, std::clamp(request.priority, PKGDIST_PRIORITY_FIRST, PKGDIST_PRIORITY_LAST),
        now);
}

// Who finds the file in the way of something, or no place for it, asks again.
void DataInput::serve(const FileKey& key, NodeIndex node, uint32_t priority, Time now) {
  if (parts_.push && parts_.push->holds_back(key, node)) return;
  if (const TransferId id = parts_.data.find(key); id != kNoTransfer)
    return parts_.data.join_asking(id, node, is_guest(id, node), now);
  if (parts_.push && parts_.push->start_requested(key, node, now)) return;
  if (parts_.data.collides(key)) return;
  const TransferId id = parts_.data.start_requested(key, priority, node, now);
  if (id == kNoTransfer) return;
  parts_.events.file_requested(parts_.nodes[node].info, key.location, key.name,
                               parts_.data.get(id)->status);
}

// Whether nobody waits for the node: the transfer is not one of the push, or the node is not.
bool DataInput::is_guest(TransferId id, NodeIndex node) const {
  return parts_.data.get(id)->lane() == Lane::kRequests || !parts_.push ||
         !parts_.push->counts(node);
}

}  // namespace pkgdist::lead
