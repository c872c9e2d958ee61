// DATA_FILE.
//
// The only consumer of the queue and the only thread that processes data datagrams and runs the
// time-out pass. It takes a bounded number of datagrams at a time; its own mutex is not held while
// they are processed. It leaves only with an empty queue.
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
#include "pkgdist_confine.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_segment_run.h"
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
constexpr char kInit[] = "pkgdist_file_recv_init";
constexpr char kQueueMsg[] = "pkgdist_file_recv_queue_msg";

// Queue and condition, once per process. File mutex held.
PkgdistStatus set_up_queue(const char* function) {
  file_queue_init();
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

// Wakes the file thread if it sleeps, once for a batch. File mutex held.
bool wake_thread(bool& woken) {
  if (woken || !load(G_pkgdist_file_recv_thread_waiting)) return true;
  const int error = pthread_cond_signal(&G_pkgdist_file_recv_cond);
  woken = error == 0;
  if (!woken)
    PKGDIST_ERR_IN(kQueueMsg, "pthread_cond_signal() failed: %d(%s)", error, std::strerror(error));
  return woken;
}

// The time-out passes, one at most in each timer period.
class TimeoutClock {
 public:
  bool is_due(uint64_t now) const {
    return elapsed(now, last_scan_) >= load(G_data_rto.timer_period);
  }
  void run_if_due(uint64_t now) {
    if (!is_due(now)) return;
    (void)pkgdist_data_recv_timeout();
    last_scan_ = now;
  }

 private:
  uint64_t last_scan_ = fts_get_stamp_fast();
};

// A datagram has been processed, and so has everything before it. The time.
uint64_t note_message() {
  const uint64_t now = fts_get_stamp_fast();
  store(G_data_recv_file_last_msg, now);
  return now;
}

// Processes what was taken from the queue. Segments that continue each other only gather in the
// run, which takes no time. Whenever more than that was done the clock is read: a time-out pass
// that is due is not put off by the rest.
void process(TakenEntries& taken, TimeoutClock& timeouts) {
  ConfinementMemory memory;
  SegmentRun run;
  uint64_t now = fts_get_stamp_fast();
  const std::span<const OwnedQueueEntry> entries = taken.entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    const DataQueueEntry& entry = *entries[i];
    taken.begin(i);
    run.tally().record(DrtHistogram::kRxQueueTime, distance(now, entry.enqueue_time));
    process_datagram(entry.data, static_cast<ssize_t>(entry.length), run);
    if (run.size() > 1 || i + 1 == entries.size()) continue;
    now = note_message();
    if (!timeouts.is_due(now)) continue;
    (void)run.finish();
    timeouts.run_if_due(note_message());
  }
  (void)run.finish();
  taken.free();
  (void)note_message();
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
  return ensure_thread(kInit);
}

void pkgdist::file_recv_queue(std::span<OwnedQueueEntry> entries) {
  const MutexLock lock(G_pkgdist_file_recv_mutex, Caller::here(kQueueMsg));
  bool woken = false;
  for (OwnedQueueEntry& entry : entries) {
    if (ensure_thread(kInit) != 0 || !file_queue_has_room(*entry) || !wake_thread(woken)) continue;
    file_queue_append(std::move(entry));
  }
  file_queue_update_watermark();
}

void pkgdist_file_recv_queue_msg(const uint8_t* data, size_t length) {
  OwnedQueueEntry entry = queue_entry_copy(data, length);
  if (entry == nullptr) return;
  entry->enqueue_time = stamp_for(DrtHistogram::kRxQueueTime);
  file_recv_queue({&entry, 1});
}

void pkgdist_data_recv_file_stop() {
  const MutexLock lock(G_pkgdist_file_recv_mutex);
  if (load(G_data_recv_file_thread_running)) store(G_data_recv_file_exit_thread, true);
}

void* pkgdist_data_recv_file_thread(void* /*argument*/) {
  (void)prctl(PR_SET_NAME, "DATA_FILE");
  PKGDIST_INFO("DATA Recv File Thread starting\n");
  count(DrsCounter::kFileThreadStart);
  TimeoutClock timeouts;
  TakenEntries taken;
  (void)mutex_lock(G_pkgdist_file_recv_mutex);
  for (;;) {
    taken.take();
    (void)mutex_unlock(G_pkgdist_file_recv_mutex);
    if (!taken.entries().empty()) process(taken, timeouts);
    timeouts.run_if_due(fts_get_stamp_fast());
    (void)mutex_lock(G_pkgdist_file_recv_mutex);
    taken.done();
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
