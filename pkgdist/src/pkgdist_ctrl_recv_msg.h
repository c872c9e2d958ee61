// What a node tells the lead about the control stream: acknowledgements, negative ones and replies
// to pings. All on CTRL_RX.
#pragma once

#include <cstdint>

#include "pkgdist/status.h"
#include "pkgdist/wire_ctrl.h"

// Sends an ACK or NACK for `sequence`. A NACK with `has_segment` asks for one segment, without for
// the whole message. `mc_ack_sequence` travels on the multicast stream only.
PkgdistStatus pkgdist_ctrl_recv_ack_send(bool is_ack, uint32_t sequence, bool has_segment,
                                         uint32_t segment, bool is_unicast,
                                         uint32_t mc_ack_sequence);

// Handles the lead's ping: learns what was missed at the end of the stream and replies.
void pkgdist_ctrl_recv_process_ping(const pkgdist_ctrl_msg_hdr& header);

// Tells the lead how far this node has got; echoes the ping's status when it had one.
PkgdistStatus pkgdist_ctrl_recv_ping_reply_send(uint32_t ack_sequence, bool has_status,
                                                uint64_t status);

namespace pkgdist {

// The fields that every control header of this node carries.
void fill_own_header(pkgdist_ctrl_msg_hdr& header, uint32_t msg_id, uint32_t sequence);

}  // namespace pkgdist
