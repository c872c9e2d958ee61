// The control sockets and the thread CTRL_RX that reads them.
#pragma once

#include "pkgdist/status.h"

// Opens the unicast socket that everything to the lead leaves from. Closes an open one first.
PkgdistStatus pkgdist_ctrl_recv_uc_tx_port_init();

// Opens the socket of the lead's multicast group and joins it; tries for up to 100 seconds.
PkgdistStatus pkgdist_ctrl_recv_mc_rx_port_init();

// Opens the socket on which the lead reaches this node alone.
PkgdistStatus pkgdist_ctrl_recv_uc_rx_port_init();

// Starts CTRL_RX if it does not run. It never ends.
PkgdistStatus pkgdist_ctrl_recv_rx_start();

// Body of CTRL_RX.
void* pkgdist_ctrl_recv_rx_thread(void* argument);

namespace pkgdist {

// One pass of CTRL_RX: waits for a datagram, handles what arrived, and runs the scan for late
// messages when it is due. `last_scan` is the stamp of the last scan.
void ctrl_rx_pass(uint64_t& last_scan);

}  // namespace pkgdist
