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

namespace {

constexpr char kReporter[] = "pkgdist_data_rx_process_msg";

// The header of a datagram, and where its body lies.
struct Framed {
  Owned<pkgdist_data_msg_hdr> header;
  size_t body_at = 0;
  int decode_error = 0;
};

enum class Framing { kGood, kTooSmallForHeader, kTooSmall, kUndecodable, kForeign };

Framing unframe(const uint8_t* data, ssize_t length, Framed& framed) {
  if (length < static_cast<ssize_t>(kHeaderLengthBytes)) return Framing::kTooSmallForHeader;
  const uint64_t body_at = uint64_t{header_length(data)} + kHeaderLengthBytes;
  if (static_cast<size_t>(length) < body_at) return Framing::kTooSmall;
  framed.body_at = body_at;
  framed.decode_error =
      decode(data + kHeaderLengthBytes, body_at - kHeaderLengthBytes, *framed.header);
  if (framed.decode_error < 0) return Framing::kUndecodable;
  const uint32_t sender = framed.header->node_ip;
  return sender == 0 || sender == load(G_lead_uc_addr) ? Framing::kGood : Framing::kForeign;
}

void refuse(Framing framing, ssize_t length, int decode_error) {
  if (framing == Framing::kTooSmallForHeader)
    PKGDIST_ERR_IN(kReporter, "data rx received %zd bytes, hdr msg too small", length);
  else if (framing == Framing::kTooSmall)
    PKGDIST_ERR_IN(kReporter, "data rx received %zd bytes, msg too small", length);
  else if (framing == Framing::kUndecodable)
    PKGDIST_ERR_IN(kReporter, "data rx hdr decode failed: %d", decode_error);
  count(DrtCounter::kMcBadPktRecv);
}

}  // namespace

void pkgdist::process_datagram(const uint8_t* data, ssize_t length, SegmentRun& run) {
  Framed framed;
  const Framing framing = unframe(data, length, framed);
  const uint32_t kind = framed.header->msg_id;
  const uint8_t* const body = data + framed.body_at;
  const size_t body_size = static_cast<size_t>(length) - framed.body_at;
  if (framing == Framing::kGood && kind == PKGDIST_DATA_MSG_SEGMENT) {
    (void)process_segment(body, body_size, run);
    return;
  }
  (void)run.finish();
  if (framing != Framing::kGood) return refuse(framing, length, framed.decode_error);
  if (kind == PKGDIST_DATA_MSG_FILE_INFO) {
    pkgdist_data_process_file_info(body, body_size, framed.header->node_ip);
  } else if (kind == PKGDIST_DATA_MSG_MISS_DONE) {
    pkgdist_data_process_miss_done(body, body_size);
  } else {
    PKGDIST_ERR_IN(kReporter, "data rx received has invalid msg id '%d'", kind);
    count(DrtCounter::kMcBadPktRecv);
  }
}

void pkgdist_data_rx_process_msg(const uint8_t* data, ssize_t length) {
  SegmentRun run;
  process_datagram(data, length, run);
  (void)run.finish();
}

bool pkgdist::names_this_node(const uint32_t* node_list, uint32_t count) {
  return count == 0 ||
         std::find(node_list, node_list + count, load(G_my_node_ip)) != node_list + count;
}
