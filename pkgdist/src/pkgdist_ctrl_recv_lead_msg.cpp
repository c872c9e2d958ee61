// Reliable messages to the lead.
//
// A message is cut into segments under one sequence of this node and kept until the lead has
// acknowledged it. A NACK sends segments again at once, the scan sends all of them again after one,
// two, three ... acknowledgement time-outs since the last transmission, counted by the first
// segment. Each segment is sent again at most `max_retries` times; the first time-out after that
// gives the message up. The final status goes to the sender's callback with the database unlocked.
//
// Threads: callers add and send, CTRL_RX handles the lead's answers and the scan.
#include "pkgdist_ctrl_recv_lead_msg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "pkgdist_bitmap.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_msg.h"
#include "pkgdist_datagram.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

extern "C" {
PKGDIST_EXPORT pkgdist::ModuleDb<LeadMessage> G_ctrl_recv_msg_db;
}

using namespace pkgdist;
using Header = pkgdist_ctrl_msg_hdr;
using Body = pkgdist_ctrl_msg;

namespace {

// A segment must leave room for more than its own description.
constexpr uint32_t kSmallestRefusedSegment = 99;

struct LeadMessageFreer {
  void operator()(LeadMessage* entry) const { pkgdist_ctrl_recv_msg_db_free(entry); }
};
using OwnedLeadMessage = std::unique_ptr<LeadMessage, LeadMessageFreer>;

LeadMessage* find_by_id(uint32_t id) {
  return G_ctrl_recv_msg_db.find([=](const LeadMessage& entry) { return entry.id == id; });
}

LeadMessage* find_by_sequence(uint32_t sequence) {
  return G_ctrl_recv_msg_db.find(
      [=](const LeadMessage& entry) { return entry.sequence == sequence && !entry.is_withdrawn; });
}

bool fill_segment(Body& body, const uint8_t* data, size_t size, uint32_t msg_class, uint32_t i) {
  const size_t offset = size_t{PKGDIST_CTRL_SEGMENT_SIZE} * i;
  const size_t length = std::min(size_t{PKGDIST_CTRL_SEGMENT_SIZE}, size - offset);
  auto* copy = static_cast<uint8_t*>(std::malloc(length));
  if (copy == nullptr) {
    PKGDIST_ERR_IN("pkgdist_ctrl_recv_msg_add", "malloc() %zu bytes for CTRL_RECV_MSG_DATA failed",
                   length);
    return false;
  }
  std::memcpy(copy, data + offset, length);
  qidl::set<&Body::msg_class>(body, msg_class);
  qidl::set<&Body::total_size>(body, size);
  qidl::set<&Body::segment_size>(body, PKGDIST_CTRL_SEGMENT_SIZE);
  body.data = copy;
  body.data_size = length;
  qidl::mark<&Body::data>(body);
  return true;
}

// Takes a message that is out of the database and tells its sender how it ended.
void report(LeadMessage* taken, PkgdistStatus status) {
  const OwnedLeadMessage entry(taken);
  if (entry->has_callback)
    (void)pkgdist_ctrl_recv_status_invoke_cb(entry->id, status, entry->sequence);
}

// An identifier for the message, and a context for its status when somebody wants to hear it.
PkgdistStatus allocate_id(levm_handle_t levm, pkgdist_ctrl_status_cb cb_func, void* ctx,
                          uint32_t& id) {
  id = 0;
  if (cb_func != nullptr)
    return pkgdist_ctrl_recv_alloc_ctx(levm, nullptr, cb_func, nullptr, ctx, id);
  const MutexLock lock(G_ctrl_recv_ctx_db.mutex,
                       Caller::here("instcomm_pkgdist_ctrl_send_lead_msg"));
  id = G_ctrl_recv_ctx_db.allocate_id();
  return 0;
}

bool came_from_lead(const Header& header) {
  const uint32_t lead = load(G_lead_uc_addr);
  if (header.node_ip == lead) return true;
  PKGDIST_ERR_IN("pkgdist_ctrl_recv_process_msg_ack",
                 "Ctrl msg ack from unexpected node  %d.%d.%d.%d expecting %d.%d.%d.%d",
                 PKGDIST_OCTETS(header.node_ip), PKGDIST_OCTETS(lead));
  return false;
}

void send_segment_again(LeadMessage& entry, uint32_t segment) {
  if (segment >= entry.segment_count) {
    PKGDIST_ERR_IN("pkgdist_ctrl_recv_process_msg_ack", "ctrl msg nack invalid segment %d",
                   segment);
    return;
  }
  RetransmitRecord& record = entry.retransmits[segment];
  if (record.count >= load(G_ctrl_rto.max_retries)) {
    PKGDIST_WARN("CTRL UC MSG Max Retransmit Reached - Sequence %d Segment %d\n", entry.sequence,
                 segment);
    return;
  }
  ++record.count;
  record.last = entry.last_send = fts_get_stamp_fast();
  count(CrtCounter::kUcRxmtMsgSent);
  (void)pkgdist_ctrl_recv_msg_send(entry.segments[segment], entry.sequence, segment);
}

bool is_late(const LeadMessage& entry, uint64_t now) {
  if (entry.is_withdrawn) return false;
  const uint64_t idle = now > entry.last_send ? now - entry.last_send : 0;
  return idle >= load(G_ctrl_rto.lead_ack_timeout) * (uint64_t{entry.retransmits[0].count} + 1);
}

// Sends a late message again. The status with which it ends, or 0 while there is hope.
PkgdistStatus retransmit_late(const LeadMessage& entry) {
  PKGDIST_WARN("CTRL Lead Ack Timeout - Sequence %d - retransmit\n", entry.sequence);
  count(CrtCounter::kUcAckTimeout);
  return pkgdist_ctrl_recv_msg_id_send(entry.id, true);
}

void give_up(LeadMsgDbGuard& lock, LeadMessage* entry, PkgdistStatus status) {
  PKGDIST_WARN("CTRL Lead Ack Max Timeout Reached - Sequence %d Status %lx - invoking callback\n",
               entry->sequence, status);
  count(CrtCounter::kUcAckTimeoutMax);
  count(CrsCounter::kUcDeleteMsg);
  G_ctrl_recv_msg_db.remove(entry);
  lock.unlock();
  report(entry, status);
  lock.lock();
}

}  // namespace

int pkgdist_ctrl_recv_msg_db_lock(Caller caller) {
  return mutex_lock(G_ctrl_recv_msg_db.mutex, caller);
}

int pkgdist_ctrl_recv_msg_db_unlock(Caller caller) {
  return mutex_unlock(G_ctrl_recv_msg_db.mutex, caller);
}

void pkgdist_ctrl_recv_msg_db_free(LeadMessage* entry) {
  for (uint32_t i = 0; entry->segments != nullptr && i < entry->segment_count; ++i) {
    std::free(const_cast<uint8_t*>(entry->segments[i].data));
    (void)release(entry->segments[i]);
  }
  std::free(entry->segments);
  std::free(entry->retransmits);
  std::free(entry);
}

extern "C" PKGDIST_EXPORT PkgdistStatus
instcomm_pkgdist_ctrl_send_lead_msg(const void* data, size_t size, uint32_t msg_class,
                                    levm_handle_t levm, pkgdist_ctrl_status_cb cb_func, void* ctx) {
  if (data == nullptr) {
    PKGDIST_ERR("ctrl pkt passed is NULL");
    return PKGDIST_ERR_INVALID;
  }
  if (size == 0 || size > std::numeric_limits<uint32_t>::max()) {
    PKGDIST_ERR("ctrl pkt size '%zu' is invalid", size);
    return PKGDIST_ERR_INVALID;
  }
  if (msg_class == 0 || msg_class > PKGDIST_CTRL_CLASS_LAST) {
    PKGDIST_ERR("msg class '%d' is invalid", msg_class);
    return PKGDIST_ERR_INVALID;
  }
  if (cb_func != nullptr && levm == nullptr) {
    PKGDIST_ERR("levm cannot be NULL to specify cb_func");
    return PKGDIST_ERR_INVALID;
  }
  const LeadNodeText lead = lead_node_text();
  PKGDIST_INFO("CTRL Lead Send - Node %d.%d.%d.%d (%s) Msg Class '%d' Size '%zd' cb_func '%p'\n",
               PKGDIST_OCTETS(load(G_lead_uc_addr)), static_cast<const char*>(lead.text), msg_class,
               size, reinterpret_cast<void*>(cb_func));

  uint32_t id = 0;
  PkgdistStatus status = allocate_id(levm, cb_func, ctx, id);
  if (status != 0) return status;
  LeadMsgDbGuard lock;
  status = pkgdist_ctrl_recv_msg_add(id, data, size, msg_class, cb_func != nullptr);
  const bool added = status == 0;
  if (added) status = pkgdist_ctrl_recv_msg_id_send(id, false);
  // Told to the caller here, and nobody else: neither the scan nor an answer may find it meanwhile.
  if (added && status != 0) find_by_id(id)->is_withdrawn = true;
  lock.unlock();
  if (status == 0) return 0;
  if (added) pkgdist_ctrl_recv_msg_remove(id);
  if (cb_func != nullptr) pkgdist_ctrl_recv_free_ctx(id);
  return status;
}

PkgdistStatus pkgdist_ctrl_recv_msg_add(uint32_t id, const void* data, size_t size,
                                        uint32_t msg_class, bool has_callback) {
  constexpr uint32_t segment_size = PKGDIST_CTRL_SEGMENT_SIZE;
  if (segment_size <= kSmallestRefusedSegment) {
    PKGDIST_ERR("ctrl segement size %d is too small to send ctrl pkt", segment_size);
    return PKGDIST_ERR_INVALID;
  }
  const uint32_t segments = segments_of(size, segment_size);
  OwnedLeadMessage entry(static_cast<LeadMessage*>(std::calloc(1, sizeof(LeadMessage))));
  if (entry == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for CTRL_RECV_DB failed", sizeof(LeadMessage));
    return PKGDIST_ERR_NOMEM;
  }
  entry->segments = static_cast<Body*>(std::calloc(segments, sizeof(Body)));
  if (entry->segments == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for CTRL_RECV_MSG_ARRAY failed", segments * sizeof(Body));
    return PKGDIST_ERR_NOMEM;
  }
  entry->retransmits =
      static_cast<RetransmitRecord*>(std::calloc(segments, sizeof(RetransmitRecord)));
  if (entry->retransmits == nullptr) {
    PKGDIST_ERR("malloc() %zu bytes for CTRL_RECV_MSG_RXMT failed",
                segments * sizeof(RetransmitRecord));
    return PKGDIST_ERR_NOMEM;
  }
  entry->id = id;
  entry->msg_class = msg_class;
  entry->has_callback = has_callback;
  for (uint32_t i = 0; i < segments; ++i) {
    if (!fill_segment(entry->segments[i], static_cast<const uint8_t*>(data), size, msg_class, i))
      return PKGDIST_ERR_NOMEM;
    ++entry->segment_count;
  }
  entry->sequence = G_ctrl_uc_sequence;
  store(G_ctrl_uc_sequence, G_ctrl_uc_sequence + 1);
  PKGDIST_INFO("CTRL Lead Msg Add - Sequence %d Segment Size %d Nnm %d\n", entry->sequence,
               segment_size, segments);
  count(CrsCounter::kUcAddMsg);
  entry->first_send = stamp_for(CrtHistogram::kUcAckTime);
  G_ctrl_recv_msg_db.append(entry.release());
  return 0;
}

PkgdistStatus pkgdist_ctrl_recv_msg_id_send(uint32_t id, bool is_retransmit) {
  LeadMessage* entry = find_by_id(id);
  if (entry == nullptr) {
    PKGDIST_ERR("ctrl recv msg id %d not found", id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  PkgdistStatus status = is_retransmit ? PKGDIST_ERR_TIMEOUT : 0;
  for (uint32_t i = 0; i < entry->segment_count; ++i) {
    RetransmitRecord& record = entry->retransmits[i];
    if (is_retransmit) {
      if (record.count >= load(G_ctrl_rto.max_retries)) {
        PKGDIST_WARN("CTRL Lead Msg Max Retransmit Reached - Sequence %d Segment %d\n",
                     entry->sequence, i);
        continue;
      }
      qidl::set<&Body::rxmt>(entry->segments[i], 1);
      ++record.count;
      record.last = fts_get_stamp_fast();
      count(CrtCounter::kUcRxmtMsgSent);
    }
    status = pkgdist_ctrl_recv_msg_send(entry->segments[i], entry->sequence, i);
    if (status != 0) return status;
    entry->last_send = fts_get_stamp_fast();
  }
  return status;
}

PkgdistStatus pkgdist_ctrl_recv_msg_send(const Body& body, uint32_t sequence, uint32_t segment) {
  Owned<Header> header;
  fill_own_header(*header, PKGDIST_CTRL_MSG_CTRL, sequence);
  qidl::set<&Header::segment>(*header, segment);

  Datagram datagram(PKGDIST_CTRL_PKT_MAX);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for RCTRL_MSG_PKT failed", size_t{PKGDIST_CTRL_PKT_MAX});
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  datagram.put_body(body);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("ctrl msg encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("ctrl msg encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  const Stopwatch time(CrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_ctrl_uc_tx_socket), load(G_ctrl_rx_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("ctrl msg ucast sendto of %zd bytes failed, rc=%zd, errno=%d(%s)", datagram.total(),
                sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  count(CrtCounter::kUcMsgSent);
  return 0;
}

void pkgdist_ctrl_recv_msg_remove(uint32_t id) {
  const LeadMsgDbGuard lock;
  LeadMessage* entry = find_by_id(id);
  if (entry == nullptr) return;
  count(CrsCounter::kUcDeleteMsg);
  G_ctrl_recv_msg_db.remove(entry);
  pkgdist_ctrl_recv_msg_db_free(entry);
}

void pkgdist_ctrl_recv_process_msg_ack(const Header& header, bool is_ack) {
  if (is_ack) {
    PKGDIST_INFO("CTRL UC ACK - Sequence %d\n", header.sequence);
    count(CrtCounter::kUcAckRecv);
  } else {
    PKGDIST_INFO("CTRL UC NACK - Sequence %d Segment %d\n", header.sequence,
                 qidl::has<&Header::segment>(header) ? header.segment : 0);
    count(CrtCounter::kUcNackRecv);
  }
  LeadMsgDbGuard lock;
  LeadMessage* entry = find_by_sequence(header.sequence);
  if (entry == nullptr) {
    PKGDIST_INFO("CTRL UC %sACK Sequence %d - msg not found - already done?\n", is_ack ? "" : "N",
                 header.sequence);
    return;
  }
  if (!is_ack) {
    if (qidl::has<&Header::segment>(header))
      send_segment_again(*entry, header.segment);
    else
      (void)pkgdist_ctrl_recv_msg_id_send(entry->id, true);
    return;
  }
  if (!came_from_lead(header)) return;
  record_since(CrtHistogram::kUcAckTime, entry->first_send);
  count(CrsCounter::kUcDeleteMsg);
  G_ctrl_recv_msg_db.remove(entry);
  lock.unlock();
  report(entry, 0);
}

void pkgdist::lead_msg_scan() {
  LeadMsgDbGuard lock(Caller::here("pkgdist_ctrl_recv_chk_timeout"));
  const uint64_t now = fts_get_stamp_fast();
  for (LeadMessage* at = G_ctrl_recv_msg_db.head; at != nullptr;) {
    const PkgdistStatus status = is_late(*at, now) ? retransmit_late(*at) : 0;
    if (status == 0) {
      at = at->next;
      continue;
    }
    give_up(lock, at, status);
    at = G_ctrl_recv_msg_db.head;
  }
}
