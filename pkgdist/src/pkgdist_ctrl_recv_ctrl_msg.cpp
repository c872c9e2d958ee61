// Control messages of the lead: sequencing, filtering, reassembly and delivery.
//
// Each stream (multicast, unicast) has one last sequence: everything up to it is delivered, in the
// database or given up. A message beyond the next one reveals a gap, whose sequences are entered as
// placeholders and asked for. A message at or below it is taken if it waits in the database,
// dropped as done if it is a retransmission, and otherwise taken for a new one. A complete message
// is handed on exactly once and acknowledged.
//
// The sizes of an entry come from its first datagram; every later one must fit them, so that no
// copy leaves the buffer, whatever a datagram says.
#include <cstdlib>
#include <cstring>

#include "pkgdist_bitmap.h"
#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_msg.h"
#include "pkgdist_ctrl_recv_process.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv_send_file.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Header = pkgdist_ctrl_msg_hdr;
using Body = pkgdist_ctrl_msg;

namespace {

constexpr char kReporter[] = "pkgdist_ctrl_recv_process_ctrl_msg";

// One datagram on its way through the steps.
struct Arrival {
  const Header& header;
  const Body& body;
  bool unicast;
  uint32_t last_before;  // the stream's last sequence before this datagram

  const char* stream() const { return unicast ? "UC" : "MC"; }
  const char* datagram_stream() const { return unicast ? "uc" : "mc"; }  // in texts about datagrams
  void count_duplicate() const {
    count(unicast ? CrtCounter::kUcDupDropRecv : CrtCounter::kMcDupDropRecv);
  }
  void count_bad_packet() const {
    count(unicast ? CrtCounter::kUcBadPktRecv : CrtCounter::kMcBadPktRecv);
  }
};

uint32_t& last_sequence_of(bool unicast) {
  return unicast ? G_ctrl_uc_last_sequence : G_ctrl_mc_last_sequence;
}

// --- Sequencing ---

void log_out_of_sequence(bool unicast, uint32_t sequence, uint32_t last) {
  if (unicast)
    PKGDIST_INFO("CTRL UC Out Of Sequence Msg Received - New Sequence %d Last %d\n", sequence,
                 last);
  else
    PKGDIST_INFO("CTRL MC Out Of Sequence Msg Received - New Sequence %d Last %d\n", sequence,
                 last);
}

void log_placeholder_nomem(bool unicast) {
  if (unicast)
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for CTRL_RECV_RX_UC_OOS_MSG failed",
                   sizeof(CTRL_RECV_RX_MSG));
  else
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for CTRL_RECV_RX_MC_OOS_MSG failed",
                   sizeof(CTRL_RECV_RX_MSG));
}

// Enters placeholders for everything between `last` and `sequence`. False when out of memory.
bool fill_gap(bool unicast, uint32_t sequence, uint32_t last) {
  log_out_of_sequence(unicast, sequence, last);
  count(unicast ? CrtCounter::kUcOutOfSeqRecv : CrtCounter::kMcOutOfSeqRecv);
  for (uint32_t missing = last + 1; missing != sequence; ++missing) {
    if (rx_msg_expect(missing, unicast)) continue;
    log_placeholder_nomem(unicast);
    return false;
  }
  return true;
}

// Moves the stream's last sequence. False when the gap before the message could not be noted: the
// datagram is dropped then, the sequence stays accounted for.
bool take_sequence(uint32_t sequence, bool unicast) {
  uint32_t& last_sequence = last_sequence_of(unicast);
  const uint32_t last = last_sequence;
  const bool first_unicast = unicast && last == 0;
  const bool in_order = sequence == last + 1;
  const bool ahead = sequence > last && sequence - last >= 2;
  bool noted = true;
  if (ahead && !first_unicast) noted = fill_gap(unicast, sequence, last);
  if (ahead || in_order || first_unicast) store(last_sequence, sequence);
  return noted;
}

// --- Filtering ---

bool is_listed(const Body& body, uint32_t address) {
  if (!qidl::has<&Body::node_list>(body)) return false;
  for (uint32_t i = 0; i < body.node_list_count; ++i)
    if (body.node_list[i] == address) return true;
  return false;
}

// Whether a multicast message of this card class is meant for other nodes.
bool is_for_others(uint32_t card_class, const Body& body) {
  const uint32_t mine = load(G_my_card_class);
  switch (card_class) {
    case 1:
    case 2:
    case 5:
    case 11:
    case 13:
      return mine != card_class;
    case 12:
      return mine != 1 && mine != 11;
    case 6:
      return mine != 1 && mine != 5;
    case PKGDIST_CARD_CLASS_NODE_LIST:
      return !is_listed(body, load(G_my_node_ip));
    default:
      return false;
  }
}

bool is_rejected(const Arrival& arrival) {
  if (arrival.unicast || !is_for_others(arrival.header.card_class, arrival.body)) return false;
  count(CrtCounter::kMcCardClassDrop);
  return true;
}

// --- Entries ---

// Takes the sizes of a message from a datagram that has usable ones.
void fill(CTRL_RECV_RX_MSG& entry, const Body& body) {
  entry.msg_class = body.msg_class;
  entry.total_size = body.total_size;
  entry.segment_size = body.segment_size;
  entry.segments = segments_of(body.total_size, body.segment_size);
  entry.filled = true;
}

bool is_retransmission(const Body& body) {
  return qidl::has<&Body::rxmt>(body) && body.rxmt != 0;
}

// A retransmission of something that was at or below the last sequence and is not waited for: it
// was delivered before, and on the unicast stream the lead has lost the acknowledgement.
bool is_done_already(const Arrival& arrival) {
  if (arrival.header.sequence > arrival.last_before || !is_retransmission(arrival.body))
    return false;
  if (arrival.header.segment == 0) {
    PKGDIST_INFO("CTRL %s Rxmt Msg - Already Processed - Sequence %d Last %d\n", arrival.stream(),
                 arrival.header.sequence, arrival.last_before);
    if (arrival.unicast)
      (void)pkgdist_ctrl_recv_ack_send(true, arrival.header.sequence, false, 0, true, 0);
  }
  arrival.count_duplicate();
  return true;
}

CTRL_RECV_RX_MSG* create_entry(const Arrival& arrival) {
  CTRL_RECV_RX_MSG* entry = rx_msg_add(arrival.header.sequence, arrival.unicast);
  if (entry == nullptr) {
    PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for CTRL_RECV_RX_MSG failed",
                   sizeof(CTRL_RECV_RX_MSG));
    return nullptr;
  }
  fill(*entry, arrival.body);
  PKGDIST_INFO(
      "CTRL %s New Msg Received - Sequence %d Segment %d Num %d Card Class %d, status %ld\n",
      arrival.stream(), arrival.header.sequence, arrival.header.segment, entry->segments,
      arrival.header.card_class, int64_t{0});
  count(arrival.unicast ? CrsCounter::kRxAddUcMsg : CrsCounter::kRxAddMcMsg);
  return entry;
}

// Segments of 0 bytes have no number: such a datagram is bad.
bool has_usable_sizes(const Arrival& arrival) {
  if (arrival.body.segment_size != 0) return true;
  PKGDIST_ERR_IN(kReporter, "ctrl %s msg %d has segments of 0 bytes", arrival.datagram_stream(),
                 arrival.header.sequence);
  arrival.count_bad_packet();
  return false;
}

// A message that nobody waited for: made an entry unless it is done already or for other nodes.
CTRL_RECV_RX_MSG* enter_new(const Arrival& arrival) {
  if (is_done_already(arrival)) return nullptr;
  if (is_rejected(arrival)) {
    rx_msg_advance_ack_point(arrival.header.sequence);
    return nullptr;
  }
  return has_usable_sizes(arrival) ? create_entry(arrival) : nullptr;
}

// The entry that this datagram belongs to; nullptr when it ends here.
CTRL_RECV_RX_MSG* find_or_create_entry(const Arrival& arrival) {
  const uint32_t sequence = arrival.header.sequence;
  CTRL_RECV_RX_MSG* entry = rx_msg_find(sequence, arrival.unicast);
  if (entry == nullptr) return enter_new(arrival);
  (void)rx_msg_renew(*entry);  // or bytes of two leads' messages would be mixed
  if (!entry->filled) {
    if (!has_usable_sizes(arrival)) return nullptr;
    fill(*entry, arrival.body);
  }
  entry->stamp = fts_get_stamp_fast();
  if (!is_rejected(arrival)) return entry;
  rx_msg_delete(entry);
  rx_msg_advance_ack_point(sequence);
  return nullptr;
}

// --- Reassembly and delivery ---

// Buffer and bitmap, with the first segment. A message of 0 bytes gets a buffer too.
bool allocate_buffers(CTRL_RECV_RX_MSG& entry) {
  if (entry.data == nullptr) {
    const size_t size = entry.total_size != 0 ? entry.total_size : 1;
    entry.data = static_cast<uint8_t*>(std::calloc(1, size));
    if (entry.data == nullptr) {
      PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for CTRL_RECV_RX_PKT failed", size);
      return false;
    }
  }
  if (entry.bitmap == nullptr) {
    const size_t size = entry.segments != 0 ? bitmap_bytes(entry.segments) : 1;
    entry.bitmap = static_cast<uint8_t*>(std::calloc(1, size));
    if (entry.bitmap == nullptr) {
      PKGDIST_ERR_IN(kReporter, "malloc() %zu bytes for CTRL_RECV_RX_BITMAP failed", size);
      return false;
    }
  }
  return true;
}

// Whether the datagram's data lies inside its segment and the message.
bool fits(const CTRL_RECV_RX_MSG& entry, const Arrival& arrival) {
  const uint64_t offset = uint64_t{arrival.header.segment} * entry.segment_size;
  return arrival.header.segment < entry.segments && arrival.body.data_size <= entry.segment_size &&
         offset + arrival.body.data_size <= entry.total_size;
}

// Stores the datagram's segment. False when it was one before, or does not belong there.
bool store_segment(CTRL_RECV_RX_MSG& entry, const Arrival& arrival) {
  const uint32_t segment = arrival.header.segment;
  if (pkgdist_ctrl_recv_is_segment_set(entry, segment)) {
    arrival.count_duplicate();
    return false;
  }
  const bool empty_message = entry.total_size == 0;
  if (!empty_message && !fits(entry, arrival)) {
    PKGDIST_ERR_IN(kReporter, "ctrl %s msg %d segment %d of %zu bytes is outside the message",
                   arrival.datagram_stream(), arrival.header.sequence, segment,
                   size_t{arrival.body.data_size});
    arrival.count_bad_packet();
    return false;
  }
  count(arrival.unicast ? CrtCounter::kUcMsgRecv : CrtCounter::kMcMsgRecv);
  if (empty_message) return true;
  if (arrival.body.data_size != 0)
    std::memcpy(entry.data + uint64_t{segment} * entry.segment_size, arrival.body.data,
                arrival.body.data_size);
  pkgdist_ctrl_recv_set_segment(entry, segment);
  return true;
}

void hand_on(CTRL_RECV_RX_MSG& entry) {
  if (entry.msg_class == PKGDIST_CTRL_CLASS_FILE_SEND) {
    pkgdist_data_send_file_msg_hdlr(entry.data, entry.total_size, 0);
    return;
  }
  uint8_t* bytes = entry.data;
  entry.data = nullptr;
  (void)pkgdist_ctrl_recv_msg_invoke_cb(entry.msg_class, bytes, entry.total_size, entry.sequence);
}

void process(const Arrival& arrival) {
  if (!take_sequence(arrival.header.sequence, arrival.unicast)) return;
  CTRL_RECV_RX_MSG* entry = find_or_create_entry(arrival);
  if (entry == nullptr || !allocate_buffers(*entry)) return;
  if (!store_segment(*entry, arrival) || !pkgdist_ctrl_recv_all_segments_set(*entry)) return;
  hand_on(*entry);
  (void)pkgdist_ctrl_recv_ack_send(true, entry->sequence, false, 0, entry->unicast,
                                   G_ctrl_mc_last_ack_sequence);
  rx_msg_delete(entry);
  if (!arrival.unicast) rx_msg_advance_ack_point(arrival.header.sequence);
}

}  // namespace

void pkgdist_ctrl_recv_process_ctrl_msg(const Header& header, const uint8_t* body, size_t length,
                                        bool is_unicast) {
  if (pkgdist_ctrl_recv_process_hdr(header, false)) {
    count(CrtCounter::kMcLeadFailoverDrop);
    return;
  }
  Owned<Body> message;
  const RxMsgDbGuard lock;
  if (int error = decode(body, length, *message); error < 0) {
    PKGDIST_ERR("ctrl %s msg decode failed: %d", is_unicast ? "uc" : "mc", error);
    count(is_unicast ? CrtCounter::kUcBadPktRecv : CrtCounter::kMcBadPktRecv);
    return;
  }
  process({header, *message, is_unicast, last_sequence_of(is_unicast)});
}
