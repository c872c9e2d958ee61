// Statistics: the tables, the enumerations that name their entries, and the updates.
//
// Each table is one list, from which both the enumeration and the descriptors that the statistics
// library receives are made, so that they cannot drift apart. An update is skipped while the
// table's handle is null (before start-up, or when its registration failed). Updates of counters
// and histograms from all threads are serialised by the installer's atomic_mutex, held for one
// addition; watermarks belong to the owner of what they measure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkgdist_atomic.h"
#include "platform/fts.h"
#include "platform/ship.h"

// --- Control transport ---

#define PKGDIST_CRT_COUNTERS(X)             \
  X(kMcPingRecv, "MC PING RECV")            \
  X(kMcMsgRecv, "MC MSG RECV")              \
  X(kMcPingReplySent, "MC PING RPLYSNT")    \
  X(kMcAckSent, "MC ACK SENT")              \
  X(kMcNackSent, "MC NACK SENT")            \
  X(kMcRecvfromErr, "MC RECVFROM ERR")      \
  X(kMcBadPktRecv, "MC BAD PKT RECV")       \
  X(kMcOutOfSeqRecv, "MC OUTOFSEQ RCV")     \
  X(kMcDupDropRecv, "MC DUP DROP RCV")      \
  X(kMcCardClassDrop, "MC CARDCLS DROP")    \
  X(kMcLeadFailoverDrop, "MC LEAD FO DROP") \
  X(kMcMsgTimeout, "MC MSG TIMEOUT")        \
  X(kMcMsgMaxRetry, "MC MSG MAX RTRY")      \
  X(kUcMsgRecv, "UC MSG RECV")              \
  X(kUcAckRecv, "UC ACK RECV")              \
  X(kUcNackRecv, "UC NACK RECV")            \
  X(kUcMsgSent, "UC MSG SENT")              \
  X(kUcAckSent, "UC ACK SENT")              \
  X(kUcNackSent, "UC NACK SENT")            \
  X(kUcRxmtMsgSent, "UC RXMT MSGSENT")      \
  X(kUcRecvfromErr, "UC RECVFROM ERR")      \
  X(kUcBadPktRecv, "UC BAD PKT RECV")       \
  X(kUcOutOfSeqRecv, "UC OUTOFSEQ RCV")     \
  X(kUcDupDropRecv, "UC DUP DROP RCV")      \
  X(kUcMsgTimeout, "UC MSG TIMEOUT")        \
  X(kUcMsgMaxRetry, "UC MSG MAX RTRY")      \
  X(kUcAckTimeout, "UC ACK TIMEOUT")        \
  X(kUcAckTimeoutMax, "UC ACK TO MAX")      \
  X(kSelectFail, "SELECT FAIL")

#define PKGDIST_CRT_HISTOGRAMS(X) \
  X(kUcSendTime, "UC SEND TIME")  \
  X(kUcAckTime, "UC ACK TIME")    \
  X(kMcRxTime, "MC RX TIME")      \
  X(kUcRxTime, "UC RX TIME")

// --- Control server ---

#define PKGDIST_CRS_COUNTERS(X)        \
  X(kUcAddMsg, "UC ADD MSG")           \
  X(kUcDeleteMsg, "UC DELETE MSG")     \
  X(kRxAddMcMsg, "RX ADD MC MSG")      \
  X(kRxOosAddMc, "RX OOS ADD MC")      \
  X(kRxDeleteMcMsg, "RX DELETE MC MS") \
  X(kRxAddUcMsg, "RX ADD UC MSG")      \
  X(kRxOosAddUc, "RX OOS ADD UC")      \
  X(kRxDeleteUcMsg, "RX DELETE UC MS") \
  X(kMsgRecvCb, "MSG RECV CB")         \
  X(kUcStatusCb, "UC STATUS CB")       \
  X(kLeadChangeCb, "LCHG CB")          \
  X(kNewLead, "NEW LEAD")              \
  X(kNewPid, "NEW PID")

#define PKGDIST_CRS_HISTOGRAMS(X)       \
  X(kMsgQitcTime, "MSG QITC TIME")      \
  X(kStatusQitcTime, "STATUS QITCTIME") \
  X(kLeadChangeQitcTime, "LCHG QITC TIME")

// --- Data transport ---

#define PKGDIST_DRT_COUNTERS(X)                 \
  X(kMcRxRecv, "MC RX RECV")                    \
  X(kMcFileInfo, "MC FILE INFO")                \
  X(kMcSingleSegment, "MC SINGLE SEG")          \
  X(kMcSegment, "MC SEGMENT")                   \
  X(kMcMissDone, "MC MISS DONE")                \
  X(kMcSendFile, "MC SEND FILE")                \
  X(kMcSendCancel, "MC SEND CANCEL")            \
  X(kMcSendDelete, "MC SEND DELETE")            \
  X(kUcSendReqSent, "UC SNDREQ SENT")           \
  X(kUcSendSingleSent, "UC SNDSINGLSENT")       \
  X(kUcSendDoneSent, "UC SNDDONE SENT")         \
  X(kMcRecvfromErr, "MC RECVFROM ERR")          \
  X(kMcSelectFail, "MC SELECT FAIL")            \
  X(kMcBadPktRecv, "MC BAD PKT RECV")           \
  X(kMcOutOfSeqRecv, "MC OUTOFSEQ RCV")         \
  X(kFileInfoDrop, "FILE INFO DROP")            \
  X(kFileSegmentDup, "FILE SEG DUP")            \
  X(kFileNotFound, "FILE NOT FOUND")            \
  X(kFileSegmentTooBig, "FILE SEG TOOBIG")      \
  X(kFileInfoTimeout, "FILE INFO TMOUT")        \
  X(kFileMissSegmentTimeout, "FILE MISSSEG TO") \
  X(kFileSegmentTimeout, "FILE SEG TMOUT")      \
  X(kFileNotDoneTimeout, "FILE NOT DNE TO")     \
  X(kFileTimeout, "FILE TIMEOUT")

#define PKGDIST_DRT_WATERMARKS(X) X(kFileQueue, "FILE QUEUE")

#define PKGDIST_DRT_HISTOGRAMS(X)    \
  X(kUcSendTime, "UC SEND TIME")     \
  X(kMcRxTime, "MC RX TIME")         \
  X(kRxQueueTime, "RX QUEUE TIME")   \
  X(kFileInfoTime, "FILE INFO TIME") \
  X(kMissSegmentTime, "MISS SEG TIME")

// --- Data server ---

#define PKGDIST_DRS_COUNTERS(X)            \
  X(kFileAdd, "FILE ADD")                  \
  X(kFileRemove, "FILE REMOVE")            \
  X(kXactAdd, "XAXT ADD")                  \
  X(kFileError, "FILE ERROR")              \
  X(kFileBadStatusRecv, "FILE BADSTATRCV") \
  X(kFileSkip, "FILE SKIP")                \
  X(kFileStartCb, "FILE START CB")         \
  X(kFileXferCb, "FILE XFER CB")           \
  X(kFileDoneCb, "FILE DONE CB")           \
  X(kStatAdd, "STAT ADD")                  \
  X(kStatRemove, "STAT REMOVE")            \
  X(kRxThreadStart, "RX THRD START")       \
  X(kRxThreadStop, "RX THRD STOP")         \
  X(kFileThreadStart, "FILE THRD START")   \
  X(kFileThreadStop, "FILE THRD STOP")

#define PKGDIST_DRS_HISTOGRAMS(X)       \
  X(kFileStatTime, "FILE STAT TIME")    \
  X(kFileOpenTime, "FILE OPEN TIME")    \
  X(kFileWriteTime, "FILE WRITE TIME")  \
  X(kFileRenameTime, "FILE RENAMETIME") \
  X(kFileUnlinkTime, "FILE UNLINKTIME") \
  X(kFileQitcTime, "FILE QITC TIME")    \
  X(kSymlinkTime, "SYMLINK TIME")

#define PKGDIST_STAT_NAME(name, label) name,
#define PKGDIST_STAT_ENUM(type, list) enum class type : uint32_t { list(PKGDIST_STAT_NAME) kCount }
PKGDIST_STAT_ENUM(CrtCounter, PKGDIST_CRT_COUNTERS);
PKGDIST_STAT_ENUM(CrtHistogram, PKGDIST_CRT_HISTOGRAMS);
PKGDIST_STAT_ENUM(CrsCounter, PKGDIST_CRS_COUNTERS);
PKGDIST_STAT_ENUM(CrsHistogram, PKGDIST_CRS_HISTOGRAMS);
PKGDIST_STAT_ENUM(DrtCounter, PKGDIST_DRT_COUNTERS);
PKGDIST_STAT_ENUM(DrtWatermark, PKGDIST_DRT_WATERMARKS);
PKGDIST_STAT_ENUM(DrtHistogram, PKGDIST_DRT_HISTOGRAMS);
PKGDIST_STAT_ENUM(DrsCounter, PKGDIST_DRS_COUNTERS);
PKGDIST_STAT_ENUM(DrsHistogram, PKGDIST_DRS_HISTOGRAMS);
#undef PKGDIST_STAT_ENUM
#undef PKGDIST_STAT_NAME

extern "C" {
// Value blocks of the registered tables; null until registered.
extern void* pkgdist_crt_ship_counter_hdl;
extern void* pkgdist_crt_ship_histogram_hdl;
extern void* pkgdist_crs_ship_counter_hdl;
extern void* pkgdist_crs_ship_histogram_hdl;
extern void* pkgdist_drt_ship_counter_hdl;
extern void* pkgdist_drt_ship_watermark_hdl;
extern void* pkgdist_drt_ship_histogram_hdl;
extern void* pkgdist_drs_ship_counter_hdl;
extern void* pkgdist_drs_ship_histogram_hdl;
}

namespace pkgdist {

// One table as it is registered with the statistics library.
struct StatTable {
  const char* application;
  const char* name;
  uint32_t kind;
  ship_entry* entries;
  uint32_t count;
  void** handle;
};
extern const StatTable kCrtCounters, kCrtHistograms, kCrsCounters, kCrsHistograms;
extern const StatTable kDrtCounters, kDrtWatermarks, kDrtHistograms, kDrsCounters, kDrsHistograms;

// Returns the result of the registration: 0, or an error number with the handle left null.
int register_table(const StatTable& table);

// Adds to one 32-bit word under the installer's lock and returns its previous value.
uint32_t counter_add(uint32_t* counter, uint32_t amount);

// Counts `elapsed` nanoseconds in its decade bucket of histogram `index` of a value block.
void histogram_record(void* block, uint32_t index, uint64_t elapsed_ns);

// Moves the mark of the one-entry watermark block for a new current value.
void watermark_update(void* block, uint32_t current);

void count(CrtCounter counter);
void count(CrsCounter counter);
void count(DrtCounter counter);
void count(DrsCounter counter);

void record(CrtHistogram histogram, uint64_t elapsed_ns);
void record(CrsHistogram histogram, uint64_t elapsed_ns);
void record(DrtHistogram histogram, uint64_t elapsed_ns);
void record(DrsHistogram histogram, uint64_t elapsed_ns);

// Whether times of this table are wanted: stamps are only taken for a registered histogram table.
bool recording(CrtHistogram);
bool recording(CrsHistogram);
bool recording(DrtHistogram);
bool recording(DrsHistogram);

// Now when the table records, else 0: the stamp of something that will wait in a queue.
template <class Histogram>
uint64_t stamp_for(Histogram histogram) {
  return recording(histogram) ? fts_get_stamp_fast() : 0;
}

// |now - stamp|: a stamp from the future still lands in a bucket.
template <class Histogram>
void record_since(Histogram histogram, uint64_t stamp) {
  if (!recording(histogram)) return;
  const uint64_t now = fts_get_stamp_fast();
  record(histogram, now > stamp ? now - stamp : stamp - now);
}

// Measures from its construction; finish() records. What does not succeed is not finished.
template <class Histogram>
class Stopwatch {
 public:
  explicit Stopwatch(Histogram histogram) : histogram_(histogram), start_(stamp_for(histogram)) {}
  void finish() const { record_since(histogram_, start_); }

 private:
  Histogram histogram_;
  uint64_t start_;
};

}  // namespace pkgdist
