// Control side: start-up, node identity, and the state that its modules share.
//
// The parameters are stored once at start-up. The lead's state is written by CTRL_RX alone and read
// from everywhere without a lock, through load() and store(). Addresses are IPv4 in host byte
// order, ports are in host byte order, stamps are nanoseconds of fts_get_stamp_fast().
#pragma once

#include <cstdint>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist_atomic.h"
#include "pkgdist_db.h"
#include "platform/nodeid.h"

inline constexpr size_t kCtrlPacketMax = 1472;
inline constexpr size_t kNodeStringBytes = 32;

extern "C" {
extern uint32_t G_ctrl_tx_mc_addr;  // multicast group
extern uint16_t G_ctrl_tx_mc_port;
extern uint16_t G_ctrl_rx_uc_port;  // the lead's unicast port: where this node sends to
extern uint16_t G_ctrl_tx_uc_port;  // this node's unicast port: where the lead sends to
extern uint32_t G_my_card_class;
extern uint32_t G_my_node_ip;
extern nodeid_handle_t G_my_nodeid;  // the caller's
extern uint32_t G_my_msg_nodeid;     // packed: first << 16 | second << 8 | third

extern uint32_t G_lead_uc_addr;  // 0 while no lead is known
extern uint32_t G_lead_pid;
extern uint32_t G_lead_msg_nodeid;  // packed
extern nodeid_handle_t G_lead_nodeid;
extern char G_lead_node_str[kNodeStringBytes];
extern uint64_t G_ctrl_last_lead_msg;  // stamp of the last datagram heard from the lead
extern bool G_ctrl_lead_cb_registered;

extern uint32_t G_ctrl_uc_sequence;           // next sequence of a message to the lead
extern uint32_t G_ctrl_mc_last_sequence;      // highest multicast sequence accounted for
extern uint32_t G_ctrl_uc_last_sequence;      // highest unicast one; 0: none yet from this lead
extern uint32_t G_ctrl_mc_last_ack_sequence;  // every multicast sequence up to it is finished

extern int G_ctrl_mc_rx_socket;  // -1 when closed
extern int G_ctrl_uc_rx_socket;
extern int G_ctrl_uc_tx_socket;
extern bool G_ctrl_recv_rx_thread_running;
extern uint8_t G_ctrl_recv_rx_buffer[kCtrlPacketMax];  // owned by CTRL_RX
}

namespace pkgdist {

// The lead's location for log texts: a copy, because CTRL_RX may write a new one at any time.
struct LeadNodeText {
  alignas(uint64_t) char text[kNodeStringBytes];
};
LeadNodeText lead_node_text();
void set_lead_node_text(const char* text);

}  // namespace pkgdist
