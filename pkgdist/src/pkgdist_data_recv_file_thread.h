// DATA_FILE: takes datagrams off the queue, processes them, and runs the time-out pass.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "pkgdist/status.h"
#include "pkgdist_data_recv_file_queue.h"
#include "platform/queue.h"

extern "C" {
extern queue_t G_pkgdist_file_recv_q;              // of DataQueueEntry
extern pthread_mutex_t G_pkgdist_file_recv_mutex;  // guards the queue and the flags
extern pthread_cond_t G_pkgdist_file_recv_cond;
extern pthread_condattr_t G_pkgdist_file_recv_condattr;
extern bool G_data_recv_file_queue_inited;
extern bool G_data_recv_file_thread_running;
extern bool G_data_recv_file_exit_thread;
extern bool G_pkgdist_file_recv_thread_waiting;
extern uint64_t G_data_recv_file_last_msg;  // stamp: the last datagram was processed
}

// Makes sure that the queue exists and DATA_FILE runs. Does not withdraw a stop: every datagram
// calls this, and a rightful stop must hold.
PkgdistStatus pkgdist_file_recv_init();

// Queues a copy of one datagram. A datagram that cannot be queued is lost and repaired later.
void pkgdist_file_recv_queue_msg(const uint8_t* data, size_t length);

// Asks DATA_FILE to end once the queue is empty. Does not wait for it.
void pkgdist_data_recv_file_stop();

// Body of DATA_FILE.
void* pkgdist_data_recv_file_thread(void* argument);

namespace pkgdist {

// Makes sure that DATA_FILE runs and goes on: withdraws a pending stop. For a file that was added.
PkgdistStatus file_thread_keep();

// Queues datagrams under one lock, with one wake-up. Those that cannot be queued stay with the
// caller.
void file_recv_queue(std::span<OwnedQueueEntry> entries);

}  // namespace pkgdist
