/* Statistics of the library: the entries of its nine tables and the value blocks they live in.
 *
 * A table is one list of (name, label) pairs in the order of its entries; the enumerations below
 * are made from the lists. A process that looks at its own counts takes them from the exported
 * handles: entry i of a counter table is the 32-bit word 20 * i bytes into the block. Layouts of
 * the blocks are in platform/ship.h; programs outside the process use platform/ship_layout.h. A
 * handle is null until its side was started, and stays null when the registration failed.
 */
#ifndef PKGDIST_STATISTICS_H
#define PKGDIST_STATISTICS_H

#include <stdint.h>

/* --- Control transport --- */

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

/* --- Control server --- */

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

/* --- Data transport --- */

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

/* --- Data server --- */

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

#ifdef __cplusplus
extern "C" {
#endif

/* Value blocks of the registered tables. */
extern void* pkgdist_crt_ship_counter_hdl;
extern void* pkgdist_crt_ship_histogram_hdl;
extern void* pkgdist_crs_ship_counter_hdl;
extern void* pkgdist_crs_ship_histogram_hdl;
extern void* pkgdist_drt_ship_counter_hdl;
extern void* pkgdist_drt_ship_watermark_hdl;
extern void* pkgdist_drt_ship_histogram_hdl;
extern void* pkgdist_drs_ship_counter_hdl;
extern void* pkgdist_drs_ship_histogram_hdl;

#ifdef __cplusplus
}

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
#endif

#endif
