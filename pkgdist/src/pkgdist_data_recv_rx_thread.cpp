// DATA_RX.
//
// It does nothing but drain the socket: it waits, receives batch after batch until nothing is left,
// and queues each. It exists while files are being received. Its stop is a flag that is looked at
// after each batch, and that a new file may withdraw until the thread has confirmed it under the
// mutex.
//
// On its way out it also asks DATA_FILE to end, because a last queued datagram may have started
// that thread again with nothing left to receive. Between its own end and that request a new file
// may have started both threads afresh; then DATA_FILE is left alone.
#include "pkgdist_data_recv_rx_thread.h"

#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "pkgdist_atomic.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_batch.h"
#include "pkgdist_export.h"
#include "pkgdist_lock.h"
#include "pkgdist_log.h"
#include "pkgdist_socket.h"
#include "pkgdist_stats.h"
#include "pkgdist_thread.h"

extern "C" {
PKGDIST_EXPORT int G_data_rx_socket = -1;
PKGDIST_EXPORT uint8_t G_data_rx_buffer[kDataPacketMax] = {};
PKGDIST_EXPORT pthread_mutex_t G_data_rx_mutex = PTHREAD_MUTEX_INITIALIZER;
PKGDIST_EXPORT bool G_data_rx_thread_running = false;
PKGDIST_EXPORT bool G_data_rx_exit_thread = false;
}

using namespace pkgdist;

namespace {

constexpr char kThread[] = "pkgdist_data_rx_thread";
constexpr int kSocketPriority = 4;

// Waits for a datagram. As select(): negative on failure, 0 on time-out.
int wait_readable(int socket) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(socket, &readable);
  timeval wait = timeval_of(load(G_data_rto.receive_wait));
  return select(socket + 1, &readable, nullptr, nullptr, &wait);
}

// One turn of the loop: waits, unless more is ready, and queues one batch. True when the exit flag
// is to be examined: not after an error.
bool pass(ReceiveBatch& batch) {
  const int socket = load(G_data_rx_socket);
  if (batch.is_drained()) {
    const int ready = wait_readable(socket);
    if (ready < 0) {
      PKGDIST_ERR_IN(kThread, "data rx select failed, errno=%d(%s)", errno, std::strerror(errno));
      count(DrtCounter::kMcSelectFail);
      return false;
    }
    if (ready == 0) return true;
    if (!batch.receive_first(socket)) return false;
  }
  const bool good = batch.receive_ready(socket);
  batch.queue();
  return good;
}

// Ends the thread's being if the stop still holds under the mutex.
bool confirm_exit() {
  const MutexLock lock(G_data_rx_mutex, Caller::here(kThread));
  if (!load(G_data_rx_exit_thread)) return false;
  store(G_data_rx_thread_running, false);
  store(G_data_rx_exit_thread, false);
  close_socket(G_data_rx_socket);
  return true;
}

void stop_file_thread_if_alone() {
  const MutexLock lock(G_data_rx_mutex, Caller::here(kThread));
  if (!load(G_data_rx_thread_running)) pkgdist_data_recv_file_stop();
}

// Starts the thread if it does not run. Withdraws a pending stop.
PkgdistStatus ensure_thread(const char* function) {
  const MutexLock lock(G_data_rx_mutex, Caller::here(function));
  store(G_data_rx_exit_thread, false);
  if (load(G_data_rx_thread_running)) return 0;
  if (const PkgdistStatus status = pkgdist_data_recv_rx_init(); status != 0) return status;
  if (int error = create_detached_thread(pkgdist_data_rx_thread); error != 0) {
    PKGDIST_ERR_IN(function, "pthread_create() pkgdist_data_rx_thread failed: %d(%s)", error,
                   std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  store(G_data_rx_thread_running, true);
  return 0;
}

}  // namespace

PkgdistStatus pkgdist_data_recv_rx_start() {
  PkgdistStatus status = pkgdist_file_recv_init();
  if (status == 0) status = ensure_thread(static_cast<const char*>(__func__));
  if (status == 0) status = file_thread_keep();
  return status;
}

void pkgdist_data_recv_rx_stop() {
  const MutexLock lock(G_data_rx_mutex);
  if (load(G_data_rx_thread_running)) store(G_data_rx_exit_thread, true);
}

PkgdistStatus pkgdist_data_recv_rx_init() {
  close_socket(G_data_rx_socket);
  const int socket = selectable_udp_socket();
  store(G_data_rx_socket, socket);
  if (socket < 0) {
    PKGDIST_ERR("data rx socket create failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (set_socket_option(socket, SO_PRIORITY, kSocketPriority) != 0) {
    PKGDIST_ERR("data rx setsockopt prio failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;  // alone among the failures here, this one leaves the socket open
  }
  PkgdistStatus status = PKGDIST_ERR_SYSTEM;
  if (set_socket_option(socket, SO_RCVBUF, static_cast<int>(load(G_data_rto.receive_buffer))) != 0)
    PKGDIST_ERR("data rx setsockopt failed: %d(%s)", errno, std::strerror(errno));
  else if (bind_socket(socket, load(G_data_tx_mc_addr), load(G_data_tx_mc_port)) != 0)
    PKGDIST_ERR("data rx bind failed: %d(%s)", errno, std::strerror(errno));
  else if (join_group(socket, load(G_data_tx_mc_addr), load(G_my_node_ip)) != 0)
    PKGDIST_ERR("data rx setsockopt ip add failed: %d(%s)", errno, std::strerror(errno));
  else
    status = 0;
  if (status != 0) close_socket(G_data_rx_socket);
  return status;
}

void* pkgdist_data_rx_thread(void* /*argument*/) {
  (void)prctl(PR_SET_NAME, "DATA_RX");
  PKGDIST_INFO("DATA Recv Rx Thread starting\n");
  count(DrsCounter::kRxThreadStart);
  ReceiveBatch batch;
  for (;;) {
    if (pass(batch) && load(G_data_rx_exit_thread) && confirm_exit()) break;
  }
  stop_file_thread_if_alone();
  PKGDIST_INFO("DATA Recv Rx Thread exiting\n");
  count(DrsCounter::kRxThreadStop);
  return nullptr;
}
