// DATA_FILE.
//
// The only consumer of the queue and the only thread that processes data datagrams and runs the
// time-out pass. No lock is held while a datagram is processed. It leaves only with an empty queue.
//
// A stop may meet a new file: the time-out pass has found both databases empty and set the exit
// flag, and before the thread sees it somebody adds a file. Adding a file therefore withdraws the
// stop, or starts the thread again if it has left; otherwise nothing would run that file's
// time-outs.
#include "pkgdist_data_recv_file_thread.h"

#include <sys/prctl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "pkgdist_atomic.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_datagram.h"
#include "pkgdist_export.h"
#include "pkgdist_lock.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"
#include "pkgdist_thread.h"

extern "C" {
PKGDIST_EXPORT queue_t G_pkgdist_file_recv_q = {};
PKGDIST_EXPORT pthread_mutex_t G_pkgdist_file_recv_mutex = PKGDIST_BRIEF_MUTEX_INITIALIZER;
PKGDIST_EXPORT pthread_cond_t G_pkgdist_file_recv_cond = PTHREAD_COND_INITIALIZER;
PKGDIST_EXPORT pthread_condattr_t G_pkgdist_file_recv_condattr = {};
PKGDIST_EXPORT bool G_data_recv_file_queue_inited = false;
PKGDIST_EXPORT bool G_data_recv_file_thread_running = false;
PKGDIST_EXPORT bool G_data_recv_file_exit_thread = false;
PKGDIST_EXPORT bool G_pkgdist_file_recv_thread_waiting = false;
PKGDIST_EXPORT uint64_t G_data_recv_file_last_msg = 0;
}

using namespace pkgdist;

namespace {

constexpr char kThread[] = "pkgdist_data_recv_file_thread";

// A datagram on its way from DATA_RX; owns its copy.
struct DataQueueEntry {
  queue_link_t link;
  uint8_t* data;
  uint64_t length;
  uint64_t enqueue_time;
};
static_assert(sizeof(DataQueueEntry) == 32);

struct DataQueueEntryFreer {
  void operator()(DataQueueEntry* entry) const {
    std::free(entry->data);
    std::free(entry);
  }
};
using OwnedEntry = std::unique_ptr<DataQueueEntry, DataQueueEntryFreer>;

void update_watermark() {
  watermark_update(load(pkgdist_drt_ship_watermark_hdl), G_pkgdist_file_recv_q.count);
}

// Queue and condition, once per process. File mutex held.
PkgdistStatus set_up_queue(const char* function) {
  queue_init(&G_pkgdist_file_recv_q);
  if (int error = pthread_condattr_init(&G_pkgdist_file_recv_condattr); error != 0) {
    PKGDIST_ERR_IN(function, "pthread_condattr_init() failed: %d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  if (int error = pthread_condattr_setclock(&G_pkgdist_file_recv_condattr, CLOCK_MONOTONIC);
      error != 0) {
    PKGDIST_ERR_IN(function, "pthread_condattr_setclock() failed: %d(%s)", error,
                   std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  if (int error = pthread_cond_init(&G_pkgdist_file_recv_cond, &G_pkgdist_file_recv_condattr);
      error != 0) {
    PKGDIST_ERR_IN(function, "pthread_cond_init() failed: %d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  store(G_data_recv_file_queue_inited, true);
  return 0;
}

// Queue and thread exist after this. File mutex held.
PkgdistStatus ensure_thread(const char* function) {
  if (!load(G_data_recv_file_queue_inited))
    if (const PkgdistStatus status = set_up_queue(function); status != 0) return status;
  if (load(G_data_recv_file_thread_running)) return 0;
  if (int error = create_detached_thread(pkgdist_data_recv_file_thread); error != 0) {
    PKGDIST_ERR_IN(function, "pthread_create() pkgdist_data_recv_file_thread failed: %d(%s)", error,
                   std::strerror(error));
    // The queue stays marked as set up: a later start goes on with the destroyed condition.
    (void)pthread_cond_destroy(&G_pkgdist_file_recv_cond);
    return PKGDIST_ERR_SYSTEM;
  }
  store(G_data_recv_file_thread_running, true);
  return 0;
}

OwnedEntry copy_datagram(const char* function, const uint8_t* data, size_t length) {
  Malloced<uint8_t> copy(static_cast<uint8_t*>(std::malloc(length)));
  if (copy == nullptr) {
    PKGDIST_ERR_IN(function, "malloc() %zu bytes for RECV_DATA_PKT failed", length);
    return nullptr;
  }
  std::memcpy(copy.get(), data, length);
  OwnedEntry entry(static_cast<DataQueueEntry*>(std::calloc(1, sizeof(DataQueueEntry))));
  if (entry == nullptr) {
    PKGDIST_ERR_IN(function, "malloc() %zu bytes for DATA_Q_ENTRY failed", sizeof(DataQueueEntry));
    return nullptr;
  }
  entry->data = copy.release();
  entry->length = length;
  entry->enqueue_time = stamp_for(DrtHistogram::kRxQueueTime);
  return entry;
}

// The oldest datagram, or nothing.
OwnedEntry take_next() {
  queue_link_t* link = queue_dequeue(&G_pkgdist_file_recv_q);
  update_watermark();
  return OwnedEntry(reinterpret_cast<DataQueueEntry*>(link));
}

// Frees the datagram, before the thread may go to sleep.
void process(OwnedEntry entry) {
  record_since(DrtHistogram::kRxQueueTime, entry->enqueue_time);
  pkgdist_data_rx_process_msg(entry->data, static_cast<ssize_t>(entry->length));
  store(G_data_recv_file_last_msg, fts_get_stamp_fast());
}

void run_timeouts_if_due(uint64_t& last_scan) {
  const uint64_t now = fts_get_stamp_fast();
  if (elapsed(now, last_scan) < load(G_data_rto.timer_period)) return;
  (void)pkgdist_data_recv_timeout();
  last_scan = now;
}

// Sleeps until a datagram is queued or the timer period is over. File mutex held.
void wait_for_datagram() {
  timespec until{};
  (void)clock_gettime(CLOCK_MONOTONIC, &until);
  until = timespec_of(static_cast<uint64_t>(until.tv_sec) * kNanosecondsPerSecond +
                      static_cast<uint64_t>(until.tv_nsec) + load(G_data_rto.timer_period));
  store(G_pkgdist_file_recv_thread_waiting, true);
  const int result =
      pthread_cond_timedwait(&G_pkgdist_file_recv_cond, &G_pkgdist_file_recv_mutex, &until);
  store(G_pkgdist_file_recv_thread_waiting, false);
  if (result == 0 || result == ETIMEDOUT) return;
  PKGDIST_ERR_IN(kThread, "pthread_cond_timedwait() failed: %s", std::strerror(result));
  assertion_failed(Caller::here(kThread));
}

}  // namespace

PkgdistStatus pkgdist_file_recv_init() {
  const MutexLock lock(G_pkgdist_file_recv_mutex);
  return ensure_thread(static_cast<const char*>(__func__));
}

PkgdistStatus pkgdist::file_thread_keep() {
  const MutexLock lock(G_pkgdist_file_recv_mutex, Caller::here("pkgdist_data_recv_rx_start"));
  store(G_data_recv_file_exit_thread, false);
  return ensure_thread("pkgdist_file_recv_init");
}

void pkgdist_file_recv_queue_msg(const uint8_t* data, size_t length) {
  if (pkgdist_file_recv_init() != 0) return;
  const MutexLock lock(G_pkgdist_file_recv_mutex);
  OwnedEntry entry = copy_datagram(static_cast<const char*>(__func__), data, length);
  if (entry == nullptr) return;
  if (load(G_pkgdist_file_recv_thread_waiting)) {
    if (int error = pthread_cond_signal(&G_pkgdist_file_recv_cond); error != 0) {
      PKGDIST_ERR("pthread_cond_signal() failed: %d(%s)", error, std::strerror(error));
      return;
    }
  }
  queue_enqueue(&G_pkgdist_file_recv_q, &entry.release()->link);
  update_watermark();
  // The thread may have left after it was found running: the queue was empty then.
  (void)ensure_thread("pkgdist_file_recv_init");
}

void pkgdist_data_recv_file_stop() {
  const MutexLock lock(G_pkgdist_file_recv_mutex);
  if (load(G_data_recv_file_thread_running)) store(G_data_recv_file_exit_thread, true);
}

void* pkgdist_data_recv_file_thread(void* /*argument*/) {
  (void)prctl(PR_SET_NAME, "DATA_FILE");
  PKGDIST_INFO("DATA Recv File Thread starting\n");
  count(DrsCounter::kFileThreadStart);
  uint64_t last_scan = fts_get_stamp_fast();
  (void)mutex_lock(G_pkgdist_file_recv_mutex);
  for (;;) {
    OwnedEntry entry = take_next();
    (void)mutex_unlock(G_pkgdist_file_recv_mutex);
    if (entry != nullptr) process(std::move(entry));
    run_timeouts_if_due(last_scan);
    (void)mutex_lock(G_pkgdist_file_recv_mutex);
    if (G_pkgdist_file_recv_q.head != nullptr) continue;
    if (load(G_data_recv_file_exit_thread)) break;
    wait_for_datagram();
  }
  store(G_data_recv_file_thread_running, false);
  store(G_data_recv_file_exit_thread, false);
  (void)mutex_unlock(G_pkgdist_file_recv_mutex);
  PKGDIST_INFO("DATA Recv File Thread exiting\n");
  count(DrsCounter::kFileThreadStop);
  return nullptr;
}
