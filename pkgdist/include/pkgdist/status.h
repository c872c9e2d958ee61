/* Status values of the receive library.
 *
 * A status is 64 bits; 0 is success. The high word says what kind of value it is, the low word
 * carries the library's component identifier in its upper 12 bits and a code below:
 *
 *   0x40101278 CA1 code   error of the library           (PKGDIST_ERR_...)
 *   0x30101278 CA1 code   outcome, not an error          (PKGDIST_STATUS_...)
 *   0x40001278 CA1 errno  an operating-system call failed on a file, or a transfer was given up
 *                         (errno ETIMEDOUT)              (PKGDIST_STATUS_FROM_ERRNO)
 */
#ifndef PKGDIST_STATUS_H
#define PKGDIST_STATUS_H

#include <stdint.h>

typedef uint64_t PkgdistStatus;

#define PKGDIST_COMPONENT_ID UINT64_C(0xCA1)
#define PKGDIST_COMPONENT_BITS (PKGDIST_COMPONENT_ID << 20)
#define PKGDIST_ERROR(code) ((UINT64_C(0x40101278) << 32) | PKGDIST_COMPONENT_BITS | (code))
#define PKGDIST_OUTCOME(code) ((UINT64_C(0x30101278) << 32) | PKGDIST_COMPONENT_BITS | (code))

/* An operating-system or platform-library call failed: sockets, threads, channels, traces. */
#define PKGDIST_ERR_SYSTEM PKGDIST_ERROR(0xBE8)
/* Out of memory. */
#define PKGDIST_ERR_NOMEM PKGDIST_ERROR(0xBE9)
/* An argument was rejected. */
#define PKGDIST_ERR_INVALID PKGDIST_ERROR(0xBEA)
/* A datagram could not be sent. */
#define PKGDIST_ERR_SEND PKGDIST_ERROR(0xBEB)
/* The client context, callback channel, message or file does not exist. */
#define PKGDIST_ERR_NOT_FOUND PKGDIST_ERROR(0xBEE)
/* A message could not be encoded or does not fit its datagram. */
#define PKGDIST_ERR_ENCODE PKGDIST_ERROR(0xBEF)
/* A message to the lead was not acknowledged after its last retransmission. */
#define PKGDIST_ERR_TIMEOUT PKGDIST_ERROR(0xBF1)
/* A received message could not be decoded. */
#define PKGDIST_ERR_DECODE PKGDIST_ERROR(0xBF2)
/* A file write wrote fewer bytes than asked. */
#define PKGDIST_ERR_WRITE PKGDIST_ERROR(0xBF3)

/* A transaction or file was cancelled, by the caller or by the lead. */
#define PKGDIST_STATUS_CANCELLED PKGDIST_OUTCOME(0xBF5)
/* The lead deleted the file while it was being received. */
#define PKGDIST_STATUS_DELETED PKGDIST_OUTCOME(0xBF7)
/* Told to the lead: this node knows nothing of the file. */
#define PKGDIST_STATUS_UNKNOWN_FILE PKGDIST_OUTCOME(0xBF8)
/* Told to the lead: the file is still being received. */
#define PKGDIST_STATUS_IN_PROGRESS PKGDIST_OUTCOME(0xBF9)

/* A failed file operation, or ETIMEDOUT for a transfer given up after its retries. */
#define PKGDIST_STATUS_FROM_ERRNO(error_number) \
  ((UINT64_C(0x40001278) << 32) | PKGDIST_COMPONENT_BITS | ((uint64_t)(error_number)&0x7FF))

#ifdef __cplusplus
extern "C" {
#endif

/* A status in words, for people: "an argument was rejected", "No such file or directory"; one that
 * is not known as "status 0x...". Never NULL, one line, without full stop; texts of
 * operating-system errors are in the language of the process. Any thread. The string is the
 * library's; it stays as it is until the same thread calls the function again. */
const char* pkgdist_status_str(PkgdistStatus status);

#ifdef __cplusplus
}
#endif

#endif
