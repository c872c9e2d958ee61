// Repair and time-outs.
//
// The receiver is responsible for what it lacks. A gap is asked for at once when it shows; the
// time-out pass asks again. Each entry counts its consecutive time-outs n, and the next one of a
// kind comes after n + 1 times its base interval. Any accepted announcement or received segment
// resets n; at `max_retries` the file fails. Four kinds are tested in this order, the first that
// holds acts:
//
//   file info   requested, and not announced: the request is sent again
//   missing     segments were asked for and did not come: asked for again
//   tail        nearly complete, and nothing came: everything lacking is asked for
//   not done    the whole stream is silent: the file is requested again
//
// A file that lacks much and has asked for nothing waits for the stream to come round.
//
// File requests that lists draw are limited: nobody can have every node send one for each name of a
// list at once. A file whose turn finds no room keeps its count and times for a later pass. The
// caller's own requests are sent at once (pkgdist_data_recv_req.h).
#include "pkgdist_data_recv_repair.h"

#include <cerrno>
#include <cstring>

#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_done.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_req.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_datagram.h"
#include "pkgdist_log.h"
#include "pkgdist_request_limit.h"
#include "pkgdist_stats.h"
#include "pkgdist_status.h"
#include "pkgdist_thread.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;

namespace {

constexpr char kPass[] = "pkgdist_data_recv_timeout";
constexpr char kQuestion[] = "pkgdist_data_process_miss_done";
constexpr size_t kPacketBytes = 34;

// A file that lacks this many segments or more is not asked for piece by piece.
constexpr uint32_t kTailSegments = 200;

// Of a new lead, and again at time-outs. A working lead heeds fewer. Receive lock held.
constexpr uint32_t kFileRequestsPerPeriodLimit = 4096;
RequestLimit<kFileRequestsPerPeriodLimit, kNanosecondsPerSecond> file_request_limit;

// What the time-out pass makes of an entry.
enum class Verdict { kWaits, kFails };

bool is_due(const Entry& entry, uint64_t now, uint64_t since, uint64_t interval) {
  return elapsed(now, since) >= interval * (uint64_t{entry.timeout_count} + 1);
}

bool is_exhausted(const Entry& entry) {
  return entry.timeout_count >= load(G_data_rto.max_retries);
}

void request_again(Entry& entry, uint64_t now) {
  file_request_limit.note();
  (void)pkgdist_data_send_file_req(entry.path, entry.type, entry.location, entry.priority);
  entry.start_time = now;
}

Verdict file_info_timeout(Entry& entry, uint64_t now) {
  if (is_exhausted(entry)) {
    PKGDIST_WARN("DATA File Info Receive Max Timeout - Name %s\n", entry.path);
    return Verdict::kFails;
  }
  if (!file_request_limit.has_room()) return Verdict::kWaits;
  PKGDIST_WARN("DATA File Info Receive Timeout - Name %s - send again\n", entry.path);
  count(DrtCounter::kFileInfoTimeout);
  ++entry.timeout_count;
  request_again(entry, now);
  return Verdict::kWaits;
}

// Asks again for what is marked missing; a mark that a segment has caught up with is cleared.
void ask_for_missing(Entry& entry, uint64_t now) {
  RepairRuns runs(entry, now);
  for (uint32_t k = next_segment(entry, entry.first_segment); k != entry.first_segment;
       k = next_segment(entry, k)) {
    const bool missing = pkgdist_is_miss_set(entry, k);
    const bool received = pkgdist_is_segment_set(entry, k);
    if (missing && !received) {
      runs.add(k);
      continue;
    }
    if (missing) pkgdist_clr_miss(entry, k);
    runs.close();
  }
  runs.close();
}

Verdict missing_timeout(Entry& entry, uint64_t now) {
  if (is_exhausted(entry)) {
    PKGDIST_WARN("DATA File Missing Segment Max Timeout - Id %d Name %s\n", entry.file_id,
                 entry.path);
    return Verdict::kFails;
  }
  PKGDIST_WARN("DATA File Missing Segment Timeout - Id %d Name %s - send again\n", entry.file_id,
               entry.path);
  count(DrtCounter::kFileMissSegmentTimeout);
  ++entry.timeout_count;
  ask_for_missing(entry, now);
  return Verdict::kWaits;
}

void ask_for_tail(Entry& entry, uint64_t now) {
  ask_for_all_missing(entry, now);
  entry.start_time = now;
}

Verdict tail_timeout(Entry& entry, uint64_t now) {
  if (is_exhausted(entry)) {
    PKGDIST_WARN("DATA File Segment Max Timeout - Id %d Name %s\n", entry.file_id, entry.path);
    return Verdict::kFails;
  }
  PKGDIST_WARN("DATA File Segment Timeout - Id %d Name %s - send req single\n", entry.file_id,
               entry.path);
  count(DrtCounter::kFileSegmentTimeout);
  ++entry.timeout_count;
  ask_for_tail(entry, now);
  return Verdict::kWaits;
}

Verdict not_done_timeout(Entry& entry, uint64_t now) {
  if (is_exhausted(entry)) {
    PKGDIST_WARN("DATA File Not Done Max Timeout - Name %s\n", entry.path);
    return Verdict::kFails;
  }
  if (!file_request_limit.has_room()) return Verdict::kWaits;
  PKGDIST_WARN("DATA File Not Done Timeout - Name %s - send request again\n", entry.path);
  count(DrtCounter::kFileNotDoneTimeout);
  ++entry.timeout_count;
  request_again(entry, now);
  entry.info_pending = 1;
  return Verdict::kWaits;
}

bool has_tail(const Entry& entry) {
  return entry.received_count != 0 && entry.received_count < entry.segment_count &&
         entry.segment_count - entry.received_count < kTailSegments;
}

Verdict check(Entry& entry, uint64_t now) {
  if (entry.info_pending != 0 &&
      is_due(entry, now, entry.start_time, load(G_data_rto.file_info_timeout)))
    return file_info_timeout(entry, now);
  if (entry.missing_count != 0 &&
      is_due(entry, now, entry.repair_time, load(G_data_rto.segment_timeout)))
    return missing_timeout(entry, now);
  if (has_tail(entry) && is_due(entry, now, entry.start_time, load(G_data_rto.segment_timeout)))
    return tail_timeout(entry, now);
  if (entry.received_count < entry.segment_count &&
      is_due(entry, now, load(G_data_recv_file_last_msg), load(G_data_rto.not_done_timeout)))
    return not_done_timeout(entry, now);
  return Verdict::kWaits;
}

void check_files(uint64_t now) {
  FileRecvDbGuard lock(Caller::here(kPass));
  for (Entry* at = G_file_recv_db.head; at != nullptr;) {
    if (check(*at, now) == Verdict::kWaits) {
      at = at->next;
      continue;
    }
    at->status = pkgdist_status_from_errno(ETIMEDOUT);
    count(DrtCounter::kFileTimeout);
    file_recv_take(at);
    lock.unlock();
    (void)pkgdist_file_recv_file_done(at->status, at);
    lock.lock();
    at = G_file_recv_db.head;
  }
}

void stop_threads_when_idle() {
  const FileRecvDbGuard lock(Caller::here(kPass));
  if (!G_file_recv_db.empty() || !G_file_stat_db.empty()) return;
  PKGDIST_INFO("DATA File Receive DB Empty - Stop RX threads\n");
  pkgdist_data_recv_rx_stop();
  pkgdist_data_recv_file_stop();
}

// How a file ended here, if it did lately; answers the lead from the stat database.
bool answer_from_stat(const pkgdist_data_send_miss_done& question) {
  const FileStatDbGuard lock(Caller::here(kQuestion));
  const pkgdist_file_stat_entry* entry = file_stat_find(question.file_id);
  if (entry == nullptr) entry = file_stat_find(question.name, question.location);
  if (entry == nullptr) return false;
  (void)pkgdist_data_send_file_done(entry->file_id, entry->status, entry->path, entry->location);
  return true;
}

bool is_being_received(const pkgdist_data_send_miss_done& question) {
  const FileRecvDbGuard lock(Caller::here(kQuestion));
  return file_recv_find(question.file_id) != nullptr ||
         file_recv_find(question.name, question.location) != nullptr;
}

}  // namespace

void pkgdist::ask_for_all_missing(Entry& entry, uint64_t now) {
  RepairRuns runs(entry, now);
  for (uint32_t k = next_segment(entry, entry.first_segment); k != entry.first_segment;
       k = next_segment(entry, k)) {
    if (pkgdist_is_segment_set(entry, k)) {
      runs.close();
      continue;
    }
    pkgdist_set_miss(entry, k);
    runs.add(k);
  }
  runs.close();
  entry.repair_time = now;
}

void RepairRuns::close() {
  if (length_ == 0) return;
  (void)pkgdist_data_send_req_single(entry_.file_id, start_, length_);
  entry_.repair_time = now_;
  entry_.request_time = stamp_for(DrtHistogram::kMissSegmentTime);
  length_ = 0;
}

PkgdistStatus pkgdist_data_send_req_single(uint32_t file_id, uint32_t segment, uint32_t num) {
  using Header = pkgdist_data_msg_hdr;
  using Body = struct pkgdist_data_send_req_single;
  Owned<Header> header;
  qidl::set<&Header::msg_id>(*header, PKGDIST_DATA_MSG_REQ_SINGLE);
  qidl::set<&Header::node_ip>(*header, load(G_my_node_ip));
  Owned<Body> body;
  qidl::set<&Body::file_id>(*body, file_id);
  qidl::set<&Body::segment>(*body, segment);
  qidl::set<&Body::num>(*body, num);
  Datagram datagram(kPacketBytes);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for DATA_SEND_REQ_SINGLE failed", kPacketBytes);
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  datagram.put_body(*body);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("data req single encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("data req single encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  PKGDIST_INFO("DATA Send File Req Single - File Id %d Segment %d Num %d\n", file_id, segment, num);
  const Stopwatch time(DrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_data_req_socket), load(G_data_req_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("data req single uc sendto of %zd bytes failed, rc=%zd, errno=%d(%s)",
                datagram.total(), sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  count(DrtCounter::kUcSendSingleSent);
  return 0;
}

int pkgdist_data_recv_timeout() {
  const uint64_t now = fts_get_stamp_fast();
  check_files(now);
  (void)pkgdist_file_stat_db_lock();
  file_stat_expire(now);
  stop_threads_when_idle();
  return pkgdist_file_stat_db_unlock();
}

void pkgdist_data_process_miss_done(const uint8_t* body, size_t length) {
  Owned<pkgdist_data_send_miss_done> question;
  if (int error = decode(body, length, *question); error < 0) {
    PKGDIST_ERR("data send miss done msg decode failed: %d", error);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  if (!names_this_node(question->node_list, question->node_list_count)) return;
  PKGDIST_INFO("DATA Recv Miss Done - File %s Id %d\n", question->name, question->file_id);
  count(DrtCounter::kMcMissDone);
  if (answer_from_stat(*question)) return;
  const PkgdistStatus status =
      is_being_received(*question) ? PKGDIST_STATUS_IN_PROGRESS : PKGDIST_STATUS_UNKNOWN_FILE;
  (void)pkgdist_data_send_file_done(question->file_id, status, question->name, question->location);
}

void pkgdist_data_recv_new_lead() {
  const FileRecvDbGuard lock;
  for (Entry* at = G_file_recv_db.head; at != nullptr; at = at->next) {
    file_recv_set_id(*at, 0);
    at->timeout_count = 0;
    at->info_pending = 1;
    at->start_time = fts_get_stamp_fast();  // what finds no room has its time-out from here
    if (file_request_limit.has_room()) request_again(*at, at->start_time);
  }
}
