// Dispatch of data datagrams: framing, sender and message kind.
//
// A bad datagram is counted and dropped; it never stops the thread. Only data whose header names
// the current lead, or nobody, is taken.
#include "pkgdist_data_recv_process.h"

#include <algorithm>

#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_datagram.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;

void pkgdist_data_rx_process_msg(const uint8_t* data, ssize_t length) {
  if (length < static_cast<ssize_t>(kHeaderLengthBytes)) {
    PKGDIST_ERR("data rx received %zd bytes, hdr msg too small", length);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  const uint64_t body_at = uint64_t{header_length(data)} + kHeaderLengthBytes;
  const auto size = static_cast<size_t>(length);
  if (size < body_at) {
    PKGDIST_ERR("data rx received %zd bytes, msg too small", length);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  Owned<pkgdist_data_msg_hdr> header;
  if (int error = decode(data + kHeaderLengthBytes, body_at - kHeaderLengthBytes, *header);
      error < 0) {
    PKGDIST_ERR("data rx hdr decode failed: %d", error);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  if (header->node_ip != 0 && header->node_ip != load(G_lead_uc_addr)) {
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  switch (header->msg_id) {
    case PKGDIST_DATA_MSG_FILE_INFO:
      pkgdist_data_process_file_info(data + body_at, size - body_at, header->node_ip);
      return;
    case PKGDIST_DATA_MSG_SEGMENT:
      (void)pkgdist_data_process_file_segment(data + body_at, size - body_at);
      return;
    case PKGDIST_DATA_MSG_MISS_DONE:
      pkgdist_data_process_miss_done(data + body_at, size - body_at);
      return;
    default:
      PKGDIST_ERR("data rx received has invalid msg id '%d'", header->msg_id);
      count(DrtCounter::kMcBadPktRecv);
  }
}

bool pkgdist::names_this_node(const uint32_t* node_list, uint32_t count) {
  return count == 0 ||
         std::find(node_list, node_list + count, load(G_my_node_ip)) != node_list + count;
}
