// Header processing of the control channel: dispatch, lead detection, sequencing and reassembly.
// All on CTRL_RX.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "pkgdist/wire_ctrl.h"

// Dispatches one datagram from the multicast or the unicast socket.
void pkgdist_ctrl_recv_process_msg(const uint8_t* data, ssize_t length, bool is_unicast);

// Decides from a ping's or control message's header who leads. True: drop the datagram, it comes
// from a second lead.
bool pkgdist_ctrl_recv_process_hdr(const pkgdist_ctrl_msg_hdr& header, bool is_ping);

// Takes one segment of a control message; `body` holds `length` encoded bytes.
void pkgdist_ctrl_recv_process_ctrl_msg(const pkgdist_ctrl_msg_hdr& header, const uint8_t* body,
                                        size_t length, bool is_unicast);

// The periodic scan for late messages, of the lead and to the lead.
void pkgdist_ctrl_recv_chk_timeout();
