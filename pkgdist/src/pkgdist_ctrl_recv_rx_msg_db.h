// The control receive database: messages of the lead that are incomplete or known to be missing.
//
// An entry is a placeholder (a sequence that a later one revealed as missing, no segments known) or
// partial (some segments in). Complete messages leave at once. Only CTRL_RX uses the database; the
// lock is held for the whole of sequencing, reassembly and delivery.
#pragma once

#include <cstdint>

#include "pkgdist_db.h"
#include "pkgdist_guard.h"
#include "pkgdist_index.h"

struct CTRL_RECV_RX_MSG {
  CTRL_RECV_RX_MSG* next;
  uint32_t sequence;
  uint32_t msg_class;
  bool unicast;   // stream; lookups match on the same stream only
  uint8_t* data;  // reassembly buffer, allocated with the first segment
  uint64_t total_size;
  uint32_t segment_size;
  uint8_t* bitmap;
  uint32_t segments;
  uint32_t segments_received;
  uint32_t nack_count;
  uint64_t stamp;  // last activity: creation, a segment, a NACK cycle
  CTRL_RECV_RX_MSG* previous;
  uint64_t serial;
  uint32_t lead_generation;  // under which lead it was entered, see rx_msg_new_lead()
  bool filled;         // sizes are known: not a placeholder, also when the message has 0 bytes
  uint32_t next_nack;  // segment at which a cycle that was cut goes on; 0: no cycle is under way
  uint32_t received_at_nack;  // segments received when the last part of that cycle was sent
  pkgdist::IndexLink<CTRL_RECV_RX_MSG> by_sequence;
};

extern "C" {
extern pkgdist::ModuleDb<CTRL_RECV_RX_MSG> G_ctrl_recv_rx_msg_db;
}

int pkgdist_ctrl_recv_rx_msg_db_lock(pkgdist::Caller caller = pkgdist::Caller::here());
int pkgdist_ctrl_recv_rx_msg_db_unlock(pkgdist::Caller caller = pkgdist::Caller::here());

// Frees an entry that is in no database, with its buffer and bitmap.
void pkgdist_ctrl_recv_rx_msg_db_free(CTRL_RECV_RX_MSG* entry);

bool pkgdist_ctrl_recv_is_segment_set(const CTRL_RECV_RX_MSG& entry, uint32_t segment);
void pkgdist_ctrl_recv_set_segment(CTRL_RECV_RX_MSG& entry, uint32_t segment);
bool pkgdist_ctrl_recv_all_segments_set(const CTRL_RECV_RX_MSG& entry);

namespace pkgdist {

using RxMsgDbGuard = Guard<pkgdist_ctrl_recv_rx_msg_db_lock, pkgdist_ctrl_recv_rx_msg_db_unlock>;

// Entries the database may hold. A working lead never leaves gaps this wide; a forged sequence far
// ahead would otherwise fill the memory with placeholders. Reaching it counts as out of memory, but
// what was entered under an earlier lead makes room for what is entered under the present one.
inline constexpr uint32_t kRxMsgDbLimit = 65'536;

// Another lead, or another process of it, begins: its sequences are others. On CTRL_RX alone.
void rx_msg_new_lead();

// All below are called with the database locked.

CTRL_RECV_RX_MSG* rx_msg_find(uint32_t sequence, bool unicast);

// Creates, stamps and appends an empty entry; nullptr when out of memory or at the limit.
CTRL_RECV_RX_MSG* rx_msg_add(uint32_t sequence, bool unicast);

// Makes sure that a missing message is waited for: adds a placeholder, counts it and asks the lead
// for the whole message. False when out of memory.
bool rx_msg_expect(uint32_t sequence, bool unicast);

// Empties an entry of an earlier lead for a message of the present one. False when it is one of the
// present lead already.
bool rx_msg_renew(CTRL_RECV_RX_MSG& entry);

// Takes an entry out, counts that, and frees it.
void rx_msg_delete(CTRL_RECV_RX_MSG* entry);

// Advances the multicast acknowledgement point to before the first sequence that is still in the
// database, `finished` excepted, or to the last sequence.
void rx_msg_advance_ack_point(uint32_t finished);

// One pass over all entries: asks again for late ones and gives up those that were asked for often
// enough.
void rx_msg_scan();

}  // namespace pkgdist
