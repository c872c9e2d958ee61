// Acknowledgements and pings.
//
// The lead's ping carries the last multicast sequence it sent. A node that has not seen it enters a
// placeholder for everything it misses and asks for it; the scan for late messages repeats the
// question. A send that fails is only logged: the scan or the lead's next ping makes up for it.
#include "pkgdist_ctrl_recv_msg.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_process.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_datagram.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Header = pkgdist_ctrl_msg_hdr;

namespace {

constexpr size_t kHeaderOnlyPacketBytes = 61;

void count_sent(bool is_ack, bool is_unicast) {
  if (is_unicast)
    count(is_ack ? CrtCounter::kUcAckSent : CrtCounter::kUcNackSent);
  else
    count(is_ack ? CrtCounter::kMcAckSent : CrtCounter::kMcNackSent);
}

// Enters a placeholder for everything between the last sequence and the ping's own, which names a
// message that the lead has sent, and asks for each.
void ask_for_missed(uint32_t sequence) {
  PKGDIST_INFO("CTRL Ping Out Of Sequence Received - New Sequence %d Last %d\n", sequence,
               G_ctrl_mc_last_sequence);
  count(CrtCounter::kMcOutOfSeqRecv);
  while (G_ctrl_mc_last_sequence != sequence) {
    store(G_ctrl_mc_last_sequence, G_ctrl_mc_last_sequence + 1);
    if (!rx_msg_expect(G_ctrl_mc_last_sequence, false)) {
      PKGDIST_ERR_IN("pkgdist_ctrl_recv_process_ping",
                     "malloc() %zu bytes for CTRL_RECV_RX_OOS_MSG failed",
                     sizeof(CTRL_RECV_RX_MSG));
      return;
    }
  }
}

}  // namespace

void pkgdist::fill_own_header(Header& header, uint32_t msg_id, uint32_t sequence) {
  qidl::set<&Header::msg_id>(header, msg_id);
  qidl::set<&Header::node_ip>(header, load(G_my_node_ip));
  qidl::set<&Header::node_id>(header, load(G_my_msg_nodeid));
  qidl::set<&Header::pid>(header, getpid());
  qidl::set<&Header::sequence>(header, sequence);
  qidl::set<&Header::card_class>(header, load(G_my_card_class));
}

PkgdistStatus pkgdist_ctrl_recv_ack_send(bool is_ack, uint32_t sequence, bool has_segment,
                                         uint32_t segment, bool is_unicast,
                                         uint32_t mc_ack_sequence) {
  Owned<Header> header;
  fill_own_header(*header, is_ack ? PKGDIST_CTRL_MSG_ACK : PKGDIST_CTRL_MSG_NACK, sequence);
  if (!is_ack && has_segment) qidl::set<&Header::segment>(*header, segment);
  if (is_unicast)
    qidl::set<&Header::unicast>(*header, 1);
  else
    qidl::set<&Header::ack_sequence>(*header, mc_ack_sequence);

  Datagram datagram(kHeaderOnlyPacketBytes);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for RCTRL_ACK_PKT failed", kHeaderOnlyPacketBytes);
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("ctrl msg ack encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("ctrl msg ack encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  const Stopwatch time(CrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_ctrl_uc_tx_socket), load(G_ctrl_rx_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("ctrl mcast msg ack sendto of %zd bytes failed, rc=%zd, errno=%d(%s)",
                datagram.total(), sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  const LeadNodeText lead = lead_node_text();
  PKGDIST_INFO("CTRL %s %sACK Sent - Node %d.%d.%d.%d (%s) Sequence %d Segment %d\n",
               is_unicast ? "UC" : "MC", is_ack ? "" : "N", PKGDIST_OCTETS(load(G_lead_uc_addr)),
               static_cast<const char*>(lead.text), sequence, has_segment ? segment : 0);
  count_sent(is_ack, is_unicast);
  return 0;
}

void pkgdist_ctrl_recv_process_ping(const Header& header) {
  if (pkgdist_ctrl_recv_process_hdr(header, true)) {
    count(CrtCounter::kMcLeadFailoverDrop);
    return;
  }
  count(CrtCounter::kMcPingRecv);
  {
    const RxMsgDbGuard lock;
    if (header.sequence > G_ctrl_mc_last_sequence) ask_for_missed(header.sequence);
  }
  (void)pkgdist_ctrl_recv_ping_reply_send(G_ctrl_mc_last_ack_sequence,
                                          qidl::has<&Header::status>(header), header.status);
}

PkgdistStatus pkgdist_ctrl_recv_ping_reply_send(uint32_t ack_sequence, bool has_status,
                                                uint64_t status) {
  Owned<Header> header;
  fill_own_header(*header, PKGDIST_CTRL_MSG_PING_REPLY, ack_sequence);
  if (has_status) qidl::set<&Header::status>(*header, status);

  Datagram datagram(kHeaderOnlyPacketBytes);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for RPING_REPLY_CTRL_PKT failed", kHeaderOnlyPacketBytes);
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("ctrl hdr ping reply encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("ctrl hdr ping reply encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  const Stopwatch time(CrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_ctrl_uc_tx_socket), load(G_ctrl_rx_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("ctrl ucast ping reply sendto of %zd bytes failed, rc=%zd, errno=%d(%s)",
                datagram.total(), sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  count(CrtCounter::kMcPingReplySent);
  return 0;
}
