// DATA_RX: owns the data multicast socket and queues each datagram for DATA_FILE.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "pkgdist/status.h"

inline constexpr size_t kDataPacketMax = 1472;

extern "C" {
extern int G_data_rx_socket;                      // -1 when closed
extern uint8_t G_data_rx_buffer[kDataPacketMax];  // owned by DATA_RX, used when memory is short
extern pthread_mutex_t G_data_rx_mutex;           // guards the two flags
extern bool G_data_rx_thread_running;
extern bool G_data_rx_exit_thread;
}

// Makes sure that both data threads run, and withdraws a pending stop of either. May be called with
// the file receive lock held.
PkgdistStatus pkgdist_data_recv_rx_start();

// Asks DATA_RX to end; it does after at most one receive wait. Does not wait for it.
void pkgdist_data_recv_rx_stop();

// Opens the data socket and joins the group.
PkgdistStatus pkgdist_data_recv_rx_init();

// Body of DATA_RX.
void* pkgdist_data_rx_thread(void* argument);
