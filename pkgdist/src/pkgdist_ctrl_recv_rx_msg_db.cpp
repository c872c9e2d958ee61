// The control receive database.
//
// An entry that makes no progress is asked for again after one, two, three ... segment time-outs
// since its last activity, and given up when it was asked for `max_retries` times. Giving up does
// not move the acknowledgement point by itself: the next delivery does.
#include "pkgdist_ctrl_recv_rx_msg_db.h"

#include <cstdlib>

#include "pkgdist_bitmap.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_msg.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_request_limit.h"
#include "pkgdist_stats.h"

extern "C" {
PKGDIST_EXPORT pkgdist::ModuleDb<CTRL_RECV_RX_MSG> G_ctrl_recv_rx_msg_db;
}

using namespace pkgdist;

namespace {

// Segments of one message that one scan asks for. Messages of a working lead have far fewer; a
// forged total size in the gigabytes would otherwise keep CTRL_RX sending for minutes.
constexpr uint32_t kNacksPerScanLimit = 4096;

// NACKs of this node, over all messages. A gap of as many messages is still asked for at once.
constexpr uint32_t kNacksPerPeriodLimit = 4096;
constexpr uint64_t kNackPeriod = 100'000'000;  // nanoseconds
RequestLimit<kNacksPerPeriodLimit, kNackPeriod> nack_limit;

Index<CTRL_RECV_RX_MSG, &CTRL_RECV_RX_MSG::by_sequence> by_sequence;
uint64_t next_serial = 1;
uint32_t lead_generation = 0;

uint64_t hash_of(uint32_t sequence, bool unicast) {
  return hash_number(uint64_t{unicast} << 32 | sequence);
}

const char* stream_name(const CTRL_RECV_RX_MSG& entry) {
  return entry.unicast ? "UC" : "MC";
}

CrsCounter deleted_counter(const CTRL_RECV_RX_MSG& entry) {
  return entry.unicast ? CrsCounter::kRxDeleteUcMsg : CrsCounter::kRxDeleteMcMsg;
}

bool is_late(const CTRL_RECV_RX_MSG& entry, uint64_t now) {
  if (entry.next_nack != 0) return true;
  const uint64_t idle = now > entry.stamp ? now - entry.stamp : 0;
  return idle >= load(G_ctrl_rto.segment_timeout) * (uint64_t{entry.nack_count} + 1);
}

void send_nack(const CTRL_RECV_RX_MSG& entry, bool has_segment, uint32_t segment) {
  nack_limit.note();
  (void)pkgdist_ctrl_recv_ack_send(false, entry.sequence, has_segment, segment, entry.unicast,
                                   G_ctrl_mc_last_ack_sequence);
}

// Asks for a whole message. What cannot be asked for now is late at the next scan that finds room.
void ask_for_message(CTRL_RECV_RX_MSG& entry) {
  if (!nack_limit.has_room()) return;
  send_nack(entry, false, 0);
  ++entry.nack_count;
}

// One NACK per missing segment, within the limits. A cycle that is cut goes on at the next scan
// where it stopped, and counts once when it is through; but a whole part of it that brought nothing
// counts as a cycle, or a forged size would draw requests for ever.
void ask_for_missing_segments(CTRL_RECV_RX_MSG& entry) {
  uint32_t sent = 0;
  uint32_t i = entry.next_nack;
  for (; i < entry.segments && sent < kNacksPerScanLimit; ++i) {
    if (pkgdist_ctrl_recv_is_segment_set(entry, i)) continue;
    if (!nack_limit.has_room()) break;
    send_nack(entry, true, i);
    ++sent;
  }
  const bool through = i == entry.segments;
  const bool in_vain = entry.next_nack != 0 && sent == kNacksPerScanLimit &&
                       entry.segments_received == entry.received_at_nack;
  if (through || in_vain) ++entry.nack_count;
  entry.next_nack = through ? 0 : i;
  entry.received_at_nack = entry.segments_received;
}

void ask_again(CTRL_RECV_RX_MSG& entry, uint64_t now) {
  PKGDIST_WARN("CTRL %s Msg Segment Timeout - Sequence %d - sending nack\n", stream_name(entry),
               entry.sequence);
  count(entry.unicast ? CrtCounter::kUcMsgTimeout : CrtCounter::kMcMsgTimeout);
  if (entry.segments == 0)
    ask_for_message(entry);
  else
    ask_for_missing_segments(entry);
  entry.stamp = now;
}

void give_up(CTRL_RECV_RX_MSG* entry) {
  PKGDIST_WARN("CTRL %s Nack Max Reached - Sequence %d - removing\n", stream_name(*entry),
               entry->sequence);
  count(entry->unicast ? CrtCounter::kUcMsgMaxRetry : CrtCounter::kMcMsgMaxRetry);
  rx_msg_delete(entry);
}

}  // namespace

int pkgdist_ctrl_recv_rx_msg_db_lock(Caller caller) {
  return mutex_lock(G_ctrl_recv_rx_msg_db.mutex, caller);
}

int pkgdist_ctrl_recv_rx_msg_db_unlock(Caller caller) {
  return mutex_unlock(G_ctrl_recv_rx_msg_db.mutex, caller);
}

void pkgdist_ctrl_recv_rx_msg_db_free(CTRL_RECV_RX_MSG* entry) {
  std::free(entry->data);
  std::free(entry->bitmap);
  std::free(entry);
}

// An entry has its number of segments before its bitmap, and no bitmap without memory for it.
bool pkgdist_ctrl_recv_is_segment_set(const CTRL_RECV_RX_MSG& entry, uint32_t segment) {
  return entry.bitmap != nullptr && bit_is_set(entry.bitmap, entry.segments, segment);
}

void pkgdist_ctrl_recv_set_segment(CTRL_RECV_RX_MSG& entry, uint32_t segment) {
  bit_set(entry.bitmap, entry.segments, segment, entry.segments_received);
}

bool pkgdist_ctrl_recv_all_segments_set(const CTRL_RECV_RX_MSG& entry) {
  return entry.segments_received == entry.segments;
}

namespace pkgdist {

CTRL_RECV_RX_MSG* rx_msg_find(uint32_t sequence, bool unicast) {
  return by_sequence.find(hash_of(sequence, unicast), [=](const CTRL_RECV_RX_MSG& entry) {
    return entry.sequence == sequence && entry.unicast == unicast;
  });
}

void rx_msg_new_lead() {
  ++lead_generation;
}

CTRL_RECV_RX_MSG* rx_msg_add(uint32_t sequence, bool unicast) {
  if (G_ctrl_recv_rx_msg_db.count >= kRxMsgDbLimit) {
    CTRL_RECV_RX_MSG* oldest = G_ctrl_recv_rx_msg_db.head;
    if (oldest->lead_generation == lead_generation) return nullptr;
    rx_msg_delete(oldest);
  }
  auto* entry = static_cast<CTRL_RECV_RX_MSG*>(std::calloc(1, sizeof(CTRL_RECV_RX_MSG)));
  if (entry == nullptr) return nullptr;
  entry->sequence = sequence;
  entry->unicast = unicast;
  entry->stamp = fts_get_stamp_fast();
  entry->serial = next_serial++;
  entry->lead_generation = lead_generation;
  G_ctrl_recv_rx_msg_db.append(entry);
  by_sequence.add(entry, hash_of(sequence, unicast));
  return entry;
}

bool rx_msg_expect(uint32_t sequence, bool unicast) {
  CTRL_RECV_RX_MSG* entry = rx_msg_find(sequence, unicast);
  if (entry != nullptr) {
    if (rx_msg_renew(*entry)) ask_for_message(*entry);
    return true;
  }
  entry = rx_msg_add(sequence, unicast);
  if (entry == nullptr) return false;
  count(unicast ? CrsCounter::kRxOosAddUc : CrsCounter::kRxOosAddMc);
  ask_for_message(*entry);
  return true;
}

bool rx_msg_renew(CTRL_RECV_RX_MSG& entry) {
  if (entry.lead_generation == lead_generation) return false;
  std::free(entry.data);
  std::free(entry.bitmap);
  entry.data = entry.bitmap = nullptr;
  entry.filled = false;
  entry.total_size = 0;
  entry.msg_class = entry.segment_size = 0;
  entry.segments = entry.segments_received = 0;
  entry.nack_count = entry.next_nack = entry.received_at_nack = 0;
  entry.stamp = fts_get_stamp_fast();
  entry.lead_generation = lead_generation;
  return true;
}

void rx_msg_delete(CTRL_RECV_RX_MSG* entry) {
  count(deleted_counter(*entry));
  by_sequence.remove(entry);
  G_ctrl_recv_rx_msg_db.remove(entry);
  pkgdist_ctrl_recv_rx_msg_db_free(entry);
}

void rx_msg_advance_ack_point(uint32_t finished) {
  // Sequences are compared by their distance from the point, which also holds across the wrap.
  const uint32_t point = G_ctrl_mc_last_ack_sequence;
  uint32_t advance = G_ctrl_mc_last_sequence - point;
  for (const CTRL_RECV_RX_MSG* at = G_ctrl_recv_rx_msg_db.head; at != nullptr && advance != 0;
       at = at->next) {
    if (at->unicast || at->sequence == finished) continue;
    const uint32_t distance = at->sequence - point;
    if (distance != 0 && distance <= advance) advance = distance - 1;
  }
  store(G_ctrl_mc_last_ack_sequence, point + advance);
}

void rx_msg_scan() {
  const RxMsgDbGuard lock(Caller::here("pkgdist_ctrl_recv_chk_timeout"));
  const uint64_t now = fts_get_stamp_fast();
  for (CTRL_RECV_RX_MSG* at = G_ctrl_recv_rx_msg_db.head; at != nullptr;) {
    if (!is_late(*at, now)) {
      at = at->next;
    } else if (at->nack_count >= load(G_ctrl_rto.max_retries)) {
      give_up(at);
      at = G_ctrl_recv_rx_msg_db.head;
    } else {
      if (nack_limit.has_room()) ask_again(*at, now);
      at = at->next;
    }
  }
}

}  // namespace pkgdist
