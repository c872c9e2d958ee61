/* Layout of the trace file, for programs that read it from outside.
 *
 * Every process that opens a trace ring has one file "pkgdist-trace.<pid>" in the directory named
 * by PKGDIST_TRACE_DIR, by default /dev/shm; it has no name where the file of another user's
 * process, which had the number before, cannot be replaced. It is there while the process runs and
 * stays after it was killed or crashed. On orderly exit the process removes it, unless its
 * environment has PKGDIST_KEEP_TRACE=1. The file is sparse: only records that were written take
 * space.
 *
 * Reading:
 *   1. Wait until `magic` is QTRACE_LAYOUT_MAGIC; it is stored last. Check `version`, and
 *      `record_size` against sizeof(struct qtrace_layout_record).
 *   2. Load `ring_count` (with acquire order); that many rings of the directory are complete. Ring
 * i stands `ring_offset + i * ring_stride` bytes into the file. The count only grows.
 *   3. Record number n of a ring, counted from 0 over the ring's whole life, lives in slot
 *      n % records. `next` is the number that comes next, so the numbers from next - records (or 0)
 *      up to next - 1 are the ones that may still be there.
 *   4. A record n is whole when its `commit` word is n + 1, before and after it was copied out. Any
 *      other value: it is being written (top bit set), was left out (see `lost`) or was
 * overwritten. Load `commit` with acquire order, copy the record, then, behind an acquire fence,
 * load `commit` again and compare.
 *
 * The catalogue of a ring says what its points are. It stands at the ring's `catalogue_offset` once
 * `catalogue_size` is not 0 (load it with acquire order): a structure qtrace_layout_catalogue,
 * whose `id` is that of the ring, then for each point, from number 0 on, a structure
 * qtrace_layout_point with four texts behind it: file, function, format and signature, each ended
 * by a zero. The next point stands `size` bytes behind the beginning of this one. Rings may share a
 * catalogue. A ring has none when its owner described no points (qtrace_catalogue.h) or the space
 * for it was lacking.
 *
 * Arguments stand in `payload` one after another, unaligned, each with its letter in front:
 *   's', a 16-bit length, then that many bytes of text without a terminating zero;
 *   'd', a 32-bit value;
 *   'D', a 64-bit value.
 * All numbers are in host byte order, all offsets in bytes from the start of the file, all texts of
 * the directory end in a zero.
 */
#ifndef PLATFORM_QTRACE_LAYOUT_H
#define PLATFORM_QTRACE_LAYOUT_H

#include <stdint.h>

#define QTRACE_LAYOUT_FILE_PREFIX "pkgdist-trace." /* then the pid in decimal */
#define QTRACE_LAYOUT_MAGIC UINT64_C(0x4341525444474b50)
#define QTRACE_LAYOUT_VERSION 2u
#define QTRACE_LAYOUT_BUSY UINT64_C(0x8000000000000000) /* in a commit word: being written */

enum {
  QTRACE_LAYOUT_NAME_SIZE = 32,
  QTRACE_LAYOUT_PATH_SIZE = 256, /* longer paths are cut */
  QTRACE_LAYOUT_CATALOGUE_SIZE = 40,
  QTRACE_LAYOUT_RECORD_SIZE = 256,
  QTRACE_LAYOUT_PAYLOAD_SIZE = 220,

  /* Flags of a record. */
  QTRACE_LAYOUT_STRING_CUT = 1,   /* at least one string is shorter than it was */
  QTRACE_LAYOUT_ARGUMENTS_CUT = 2 /* the last arguments are missing */
};

struct qtrace_layout_header {
  uint64_t magic;
  uint32_t version;
  uint32_t pid;
  uint64_t created_realtime_ns;  /* CLOCK_REALTIME and CLOCK_MONOTONIC at one moment: their */
  uint64_t created_monotonic_ns; /* difference turns a record's stamp into a time of day */
  uint64_t ring_offset;          /* of the directory */
  uint32_t ring_stride;          /* bytes from one directory entry to the next */
  uint32_t ring_capacity;        /* entries that the directory has room for */
  uint32_t ring_count;           /* entries that are complete */
  uint32_t record_size;
};

struct qtrace_layout_ring {
  char name[QTRACE_LAYOUT_NAME_SIZE];
  char path[QTRACE_LAYOUT_PATH_SIZE];
  char catalogue_id[QTRACE_LAYOUT_CATALOGUE_SIZE];
  uint32_t records; /* slots */
  uint32_t points;  /* trace points of the catalogue */
  uint64_t records_offset;
  uint64_t configuration; /* as last set */
  uint64_t next;          /* number of the next record */
  uint64_t lost;          /* records left out: no space in the file system, or the slot was busy */
  uint64_t catalogue_offset;
  uint64_t catalogue_size; /* stored last; 0: no catalogue */
};

struct qtrace_layout_catalogue {
  char id[QTRACE_LAYOUT_CATALOGUE_SIZE];
  uint32_t points;
  uint32_t unused;
};

struct qtrace_layout_point {
  uint32_t size; /* with the texts, a multiple of 4 */
  int32_t line;
  int32_t first; /* the two integers that its records carry */
  int32_t second;
};

struct qtrace_layout_record {
  uint64_t commit;   /* record number + 1 once complete; 0 in a slot that was never written */
  uint64_t stamp_ns; /* CLOCK_MONOTONIC */
  uint32_t thread;   /* the kernel's thread id */
  uint32_t point;    /* number in the catalogue */
  int32_t first;     /* the two integers of the catalogue entry */
  int32_t second;
  uint16_t payload_size; /* bytes of payload in use */
  uint16_t flags;
  char payload[QTRACE_LAYOUT_PAYLOAD_SIZE];
};

#endif
