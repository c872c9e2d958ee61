// Reliable messages to the lead: the lead-message database, transmission, ACK and NACK handling,
// and the retransmission scan.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkgdist/status.h"
#include "pkgdist/wire_ctrl.h"
#include "pkgdist_db.h"
#include "pkgdist_guard.h"

// How often and when a segment was sent again.
struct RetransmitRecord {
  uint32_t count;
  uint64_t last;
};

// A message that the lead has not acknowledged yet.
struct LeadMessage {
  LeadMessage* next;
  uint32_t id;  // the status context's, or a fresh one without callback
  uint32_t msg_class;
  bool has_callback;
  uint32_t sequence;
  pkgdist_ctrl_msg* segments;  // ready to encode; their data is owned by the entry
  RetransmitRecord* retransmits;
  uint32_t segment_count;
  uint64_t last_send;
  uint64_t first_send;
  bool is_withdrawn;  // its first transmission failed: the sender is about to take it out
  LeadMessage* previous;
};

extern "C" {
extern pkgdist::ModuleDb<LeadMessage> G_ctrl_recv_msg_db;
}

int pkgdist_ctrl_recv_msg_db_lock(pkgdist::Caller caller = pkgdist::Caller::here());
int pkgdist_ctrl_recv_msg_db_unlock(pkgdist::Caller caller = pkgdist::Caller::here());

// Frees an entry that is in no database, with its segments.
void pkgdist_ctrl_recv_msg_db_free(LeadMessage* entry);

// Cuts a message into segments, gives it the next sequence and enters it. Database locked.
PkgdistStatus pkgdist_ctrl_recv_msg_add(uint32_t id, const void* data, size_t size,
                                        uint32_t msg_class, bool has_callback);

// Sends all segments of a message; a retransmission leaves out segments that were sent again often
// enough, and is PKGDIST_ERR_TIMEOUT when none is left. Database locked.
PkgdistStatus pkgdist_ctrl_recv_msg_id_send(uint32_t id, bool is_retransmit);

// Encodes and sends one segment.
PkgdistStatus pkgdist_ctrl_recv_msg_send(const pkgdist_ctrl_msg& body, uint32_t sequence,
                                         uint32_t segment);

// Takes a message out and frees it, if it is still there. Takes the lock itself.
void pkgdist_ctrl_recv_msg_remove(uint32_t id);

// Handles the lead's ACK or NACK. CTRL_RX.
void pkgdist_ctrl_recv_process_msg_ack(const pkgdist_ctrl_msg_hdr& header, bool is_ack);

namespace pkgdist {

using LeadMsgDbGuard = Guard<pkgdist_ctrl_recv_msg_db_lock, pkgdist_ctrl_recv_msg_db_unlock>;

// One pass over all messages: sends late ones again, or gives them up and reports that. CTRL_RX.
void lead_msg_scan();

}  // namespace pkgdist
