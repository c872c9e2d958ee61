// The control sockets and the thread CTRL_RX.
//
// CTRL_RX waits on both receive sockets, hands each datagram to the dispatcher before it reads the
// next one, and runs the scan for late messages at most once per scan interval. A receive error is
// logged and counted and never stops it. The sockets may be made anew under the running thread, so
// it reads both descriptors once per pass and leaves out one that is closed at the moment.
#include "pkgdist_ctrl_recv_rx_thread.h"

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_process.h"
#include "pkgdist_log.h"
#include "pkgdist_socket.h"
#include "pkgdist_stats.h"
#include "pkgdist_thread.h"

namespace pkgdist {

namespace {

// Priority 7 needs a privilege (CAP_NET_ADMIN) that a service should not have; 6 is for everybody.
constexpr int kSocketPriority = 7;
constexpr int kUnprivilegedPriority = 6;
constexpr int kJoinRetries = 100;
constexpr unsigned kJoinRetrySeconds = 1;

void log_mc_rx_priority(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl mc rx setsockopt prio failed: %d(%s)", error,
                 std::strerror(error));
}
void log_uc_rx_priority(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl uc rx setsockopt prio failed: %d(%s)", error,
                 std::strerror(error));
}
void log_uc_tx_priority(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl uc tx setsockopt prio failed: %d(%s)", error,
                 std::strerror(error));
}

// Sets the socket's priority; without the privilege, says so and goes on with the highest that
// needs none.
PkgdistStatus set_priority(const char* function, int socket,
                           void (*log_failure)(const char* function, int error)) {
  if (set_socket_option(socket, SO_PRIORITY, kSocketPriority) == 0) return 0;
  const bool not_permitted = errno == EPERM;
  log_failure(function, errno);
  if (!not_permitted) return PKGDIST_ERR_SYSTEM;
  if (set_socket_option(socket, SO_PRIORITY, kUnprivilegedPriority) == 0) return 0;
  log_failure(function, errno);
  return PKGDIST_ERR_SYSTEM;
}

// Joins the group; at boot the interface may not carry its address yet, so failures are retried.
PkgdistStatus join_control_group(const char* function, int socket) {
  for (int failures = 0;;) {
    if (join_group(socket, load(G_ctrl_tx_mc_addr), load(G_my_node_ip)) == 0) return 0;
    const int error = errno;
    if (++failures > kJoinRetries) {
      PKGDIST_ERR_IN(function, "ctrl mc rx setsockopt ip add failed: %d(%s) retry cnt %d", error,
                     std::strerror(error), failures);
      return PKGDIST_ERR_SYSTEM;
    }
    sleep(kJoinRetrySeconds);
  }
}

struct Sockets {
  int multicast;
  int unicast;
};

// Waits for either socket. Negative when select() failed; else `readable` says which have data.
int wait_readable(const Sockets& sockets, fd_set& readable) {
  FD_ZERO(&readable);
  if (sockets.multicast >= 0) FD_SET(sockets.multicast, &readable);
  if (sockets.unicast >= 0) FD_SET(sockets.unicast, &readable);
  timeval wait = timeval_of(load(G_ctrl_rto.rx_select_timeout));
  return select(std::max(sockets.multicast, sockets.unicast) + 1, &readable, nullptr, nullptr,
                &wait);
}

bool is_readable(int socket, const fd_set& readable) {
  return socket >= 0 && FD_ISSET(socket, &readable);
}

// Reads one datagram into the thread's buffer; records the time that took. Never waits: a socket
// that was made anew since select() is empty, and may stay so for long.
ssize_t receive(int socket, CrtHistogram histogram) {
  const Stopwatch time(histogram);
  const ssize_t length = recvfrom(socket, G_ctrl_recv_rx_buffer, sizeof G_ctrl_recv_rx_buffer,
                                  MSG_DONTWAIT, nullptr, nullptr);
  if (length > 0) time.finish();
  return length;
}

void scan_if_due(uint64_t& last_scan) {
  const uint64_t now = fts_get_stamp_fast();
  if (now - last_scan < load(G_ctrl_rto.scan_interval)) return;
  pkgdist_ctrl_recv_chk_timeout();
  last_scan = now;
}

}  // namespace

void ctrl_rx_pass(uint64_t& last_scan) {
  const char* const function = "pkgdist_ctrl_recv_rx_thread";
  const Sockets sockets = {load(G_ctrl_mc_rx_socket), load(G_ctrl_uc_rx_socket)};
  fd_set readable;
  if (wait_readable(sockets, readable) < 0) {
    PKGDIST_ERR_IN(function, "ctrl uc rx select failed, errno=%d(%s)", errno, std::strerror(errno));
    count(CrtCounter::kSelectFail);
    return;
  }
  if (is_readable(sockets.multicast, readable)) {
    const ssize_t length = receive(sockets.multicast, CrtHistogram::kMcRxTime);
    if (length <= 0) {
      PKGDIST_ERR_IN(function, "ctrl mc rx recvfrom failed, rc=%zd, errno=%d(%s)", length, errno,
                     std::strerror(errno));
      count(CrtCounter::kMcRecvfromErr);
      return;
    }
    pkgdist_ctrl_recv_process_msg(G_ctrl_recv_rx_buffer, length, false);
  }
  if (is_readable(sockets.unicast, readable)) {
    const ssize_t length = receive(sockets.unicast, CrtHistogram::kUcRxTime);
    if (length <= 0) {
      PKGDIST_ERR_IN(function, "ctrl uc rx recvfrom failed, rc=%zd, errno=%d(%s)", length, errno,
                     std::strerror(errno));
      count(CrtCounter::kUcRecvfromErr);
      return;
    }
    pkgdist_ctrl_recv_process_msg(G_ctrl_recv_rx_buffer, length, true);
  }
  scan_if_due(last_scan);
}

}  // namespace pkgdist

using namespace pkgdist;

PkgdistStatus pkgdist_ctrl_recv_uc_tx_port_init() {
  close_socket(G_ctrl_uc_tx_socket);
  const int socket = udp_socket();  // nobody waits on it
  store(G_ctrl_uc_tx_socket, socket);
  if (socket < 0) {
    PKGDIST_ERR("ctrl uc tx socket create failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  return set_priority(static_cast<const char*>(__func__), socket, log_uc_tx_priority);
}

PkgdistStatus pkgdist_ctrl_recv_mc_rx_port_init() {
  close_socket(G_ctrl_mc_rx_socket);
  const int socket = selectable_udp_socket();
  store(G_ctrl_mc_rx_socket, socket);
  if (socket < 0) {
    PKGDIST_ERR("ctrl mc rx socket create failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (const PkgdistStatus status =
          set_priority(static_cast<const char*>(__func__), socket, log_mc_rx_priority);
      status != 0)
    return status;
  if (set_socket_option(socket, SO_RCVBUF, static_cast<int>(load(G_ctrl_rto.rx_socket_buffer))) !=
      0) {
    PKGDIST_ERR("ctrl mc rx setsockopt failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (set_socket_option(socket, SO_REUSEPORT, 1) != 0) {
    PKGDIST_ERR("ctrl mc rx setsockopt reuse failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (bind_socket(socket, load(G_ctrl_tx_mc_addr), load(G_ctrl_tx_mc_port)) != 0) {
    PKGDIST_ERR("ctrl mc rx bind failed: %d(%s)", errno, std::strerror(errno));
    close_socket(G_ctrl_mc_rx_socket);
    return PKGDIST_ERR_SYSTEM;
  }
  return join_control_group(static_cast<const char*>(__func__), socket);
}

PkgdistStatus pkgdist_ctrl_recv_uc_rx_port_init() {
  close_socket(G_ctrl_uc_rx_socket);
  const int socket = selectable_udp_socket();
  store(G_ctrl_uc_rx_socket, socket);
  if (socket < 0) {
    PKGDIST_ERR("ctrl uc rx socket create failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (const PkgdistStatus status =
          set_priority(static_cast<const char*>(__func__), socket, log_uc_rx_priority);
      status != 0)
    return status;
  if (set_socket_option(socket, SO_RCVBUF, static_cast<int>(load(G_ctrl_rto.rx_socket_buffer))) !=
      0) {
    PKGDIST_ERR("ctrl uc rx setsockopt failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (set_socket_option(socket, SO_REUSEPORT, 1) != 0) {
    PKGDIST_ERR("ctrl uc rx setsockopt reuse failed: %d(%s)", errno, std::strerror(errno));
    return PKGDIST_ERR_SYSTEM;
  }
  if (bind_socket(socket, INADDR_ANY, load(G_ctrl_tx_uc_port)) != 0) {
    PKGDIST_ERR("ctrl uc rx bind failed: %d(%s)", errno, std::strerror(errno));
    close_socket(G_ctrl_uc_rx_socket);
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
}

PkgdistStatus pkgdist_ctrl_recv_rx_start() {
  if (load(G_ctrl_recv_rx_thread_running)) return 0;
  if (int error = create_detached_thread(pkgdist_ctrl_recv_rx_thread); error != 0) {
    PKGDIST_ERR("pthread_create() pkgdist_ctrl_recv_rx_thread failed: %d(%s)", error,
                std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  store(G_ctrl_recv_rx_thread_running, true);
  return 0;
}

void* pkgdist_ctrl_recv_rx_thread(void* /*argument*/) {
  (void)prctl(PR_SET_NAME, "CTRL_RX");
  uint64_t last_scan = fts_get_stamp_fast();
  for (;;) ctrl_rx_pass(last_scan);
}
