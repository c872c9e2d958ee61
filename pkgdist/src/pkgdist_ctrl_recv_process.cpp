// Dispatch of control datagrams and lead detection.
//
// The lead is whoever sends pings and control messages: the first one heard, then the same address
// for as long as it was heard within the silence time-out. Another address is a second lead and is
// dropped until the first has been silent for that long; then it takes over. A new address or a new
// process on the same address starts the sequences anew and makes the data side ask again for what
// it lacks. The protocol has no authentication: the sender's word (node_ip) is taken.
#include "pkgdist_ctrl_recv_process.h"

#include <cstring>

#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_lead_chg.h"
#include "pkgdist_ctrl_recv_lead_msg.h"
#include "pkgdist_ctrl_recv_msg.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_datagram.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Header = pkgdist_ctrl_msg_hdr;

namespace {

// Datagrams of a second lead that were dropped; every tenth is logged.
uint32_t second_lead_count = 0;
constexpr uint32_t kSecondLeadLogInterval = 10;

void count_bad_packet(bool is_unicast) {
  count(is_unicast ? CrtCounter::kUcBadPktRecv : CrtCounter::kMcBadPktRecv);
}

bool lead_was_heard_lately(uint64_t now) {
  const uint64_t heard = load(G_ctrl_last_lead_msg);
  return (now > heard ? now - heard : 0) < load(G_ctrl_rto.lead_silence_timeout);
}

void note_second_lead(const Header& header) {
  if (++second_lead_count % kSecondLeadLogInterval != 1) return;
  PKGDIST_INFO("Second Lead Node ip '%d.%d.%d.%d' pid '%d' cnt %d on ctrl mcast\n",
               PKGDIST_OCTETS(header.node_ip), header.pid, second_lead_count);
}

// Rebuilds the lead's identity object and its text. The old object is left alone: nobody knows who
// still looks at it, and leads change rarely.
void store_lead_identity(const char* function, uint32_t packed) {
  store(G_lead_msg_nodeid, packed);
  nodeid_handle_t nodeid = nullptr;
  if (int error = nodeid_create(packed >> 16 & 0xFF, packed >> 8 & 0xFF, packed & 0xFF, &nodeid);
      error != 0) {
    PKGDIST_ERR_IN(function, "ctrl nodeid create failed: %d", error);
    return;
  }
  store(G_lead_nodeid, nodeid);
  char text[kNodeStringBytes] = "";
  if (int error = nodeid_to_str_external(nodeid, text, sizeof text); error != 0)
    PKGDIST_ERR_IN(function, "ctrl nodeid to str failed: %d", error);
  set_lead_node_text(text);
}

// The sender's identity, which it need not tell; 0 then.
uint32_t node_id_of(const Header& header) {
  return qidl::has<&Header::node_id>(header) ? header.node_id : 0;
}

// True when a client is to be told.
bool adopt_lead(const char* function, const Header& header, uint64_t now) {
  const bool report = lead_chg_store(header.node_ip, header.pid);
  store(G_ctrl_last_lead_msg, now);
  if (node_id_of(header) != 0)
    store_lead_identity(function, header.node_id);
  else
    set_lead_node_text("unknown");
  const LeadNodeText lead = lead_node_text();
  PKGDIST_INFO("New Lead Node ip '%d.%d.%d.%d' (%s) pid '%d' on ctrl mcast\n",
               PKGDIST_OCTETS(header.node_ip), static_cast<const char*>(lead.text),
               load(G_lead_pid));
  count(CrsCounter::kNewLead);
  return report;
}

// True when a client is to be told.
bool note_new_process(const Header& header) {
  const LeadNodeText lead = lead_node_text();
  PKGDIST_INFO("New Lead pid '%d' on ctrl mcast for ip '%d.%d.%d.%d' (%s)\n", header.pid,
               PKGDIST_OCTETS(load(G_lead_uc_addr)), static_cast<const char*>(lead.text));
  count(CrsCounter::kNewPid);
  return lead_chg_store(load(G_lead_uc_addr), header.pid);
}

// Starts the sequences so that a control message is itself the next in order, and a ping's earlier
// messages are not asked for; then tells who depends on the lead.
void start_with_new_lead(const Header& header, bool is_ping, bool failover, bool report) {
  const uint32_t point = is_ping ? header.sequence : header.sequence - 1;
  store(G_ctrl_uc_last_sequence, 0);
  store(G_ctrl_mc_last_sequence, point);
  store(G_ctrl_mc_last_ack_sequence, point);
  rx_msg_new_lead();
  pkgdist_data_recv_new_lead();
  if (!report) return;
  (void)pkgdist_ctrl_lead_chg_invoke_cb(load(G_lead_uc_addr), load(G_lead_pid), failover);
  lead_chg_reported();
}

}  // namespace

void pkgdist_ctrl_recv_process_msg(const uint8_t* data, ssize_t length, bool is_unicast) {
  const char* const stream = is_unicast ? "uc" : "mc";
  if (length < static_cast<ssize_t>(kHeaderLengthBytes)) {
    PKGDIST_ERR("ctrl %s received %zd bytes, hdr msg too small", stream, length);
    count_bad_packet(is_unicast);
    return;
  }
  const uint64_t body_at = uint64_t{header_length(data)} + kHeaderLengthBytes;
  const auto size = static_cast<size_t>(length);
  if (size < body_at) {
    PKGDIST_ERR("ctrl %s received %zd bytes, msg too small", stream, length);
    count_bad_packet(is_unicast);
    return;
  }
  Owned<Header> header;
  if (int error = decode(data + kHeaderLengthBytes, body_at - kHeaderLengthBytes, *header);
      error < 0) {
    PKGDIST_ERR("ctrl %s hdr decode failed: %d", stream, error);
    count_bad_packet(is_unicast);
    return;
  }
  switch (header->msg_id) {
    case PKGDIST_CTRL_MSG_PING:
      pkgdist_ctrl_recv_process_ping(*header);
      return;
    case PKGDIST_CTRL_MSG_CTRL:
      pkgdist_ctrl_recv_process_ctrl_msg(*header, data + body_at, size - body_at, is_unicast);
      return;
    case PKGDIST_CTRL_MSG_ACK:
    case PKGDIST_CTRL_MSG_NACK:
      pkgdist_ctrl_recv_process_msg_ack(*header, header->msg_id == PKGDIST_CTRL_MSG_ACK);
      return;
    default:
      PKGDIST_ERR("ctrl %s received has invalid msg id '%d'", stream, header->msg_id);
      count_bad_packet(is_unicast);
  }
}

bool pkgdist_ctrl_recv_process_hdr(const Header& header, bool is_ping) {
  bool new_lead = false;
  bool failover = false;
  bool report = false;
  const uint64_t now = fts_get_stamp_fast();
  if (header.node_ip != 0 && header.node_ip != load(G_lead_uc_addr)) {
    const bool lead_is_known = load(G_lead_uc_addr) != 0;
    if (lead_is_known && lead_was_heard_lately(now)) {
      note_second_lead(header);
      return true;
    }
    if (lead_is_known) {
      second_lead_count = 0;
      failover = true;
    }
    report = adopt_lead(static_cast<const char*>(__func__), header, now);
    new_lead = true;
  } else if (header.node_ip != 0) {
    store(G_ctrl_last_lead_msg, now);
  }
  if (node_id_of(header) != 0 && header.node_id != load(G_lead_msg_nodeid))
    store_lead_identity(static_cast<const char*>(__func__), header.node_id);
  if (header.pid != 0 && header.pid != load(G_lead_pid)) {
    report = note_new_process(header);
    new_lead = true;
  }
  if (new_lead) start_with_new_lead(header, is_ping, failover, report);
  return false;
}

void pkgdist_ctrl_recv_chk_timeout() {
  rx_msg_scan();
  lead_msg_scan();
}
