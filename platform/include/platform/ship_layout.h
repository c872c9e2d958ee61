/* Layout of the statistics object, for programs that read it from outside.
 *
 * Every process that registers statistics has one POSIX shared-memory object named
 * "/pkgdist-stat.<pid>" (mode 0644, before the process umask). Attach to it with
 * shm_open(O_RDONLY) and a read-only mmap of the size that fstat() tells. The object is there while
 * the process runs and stays after it was killed or crashed. On orderly exit the process removes
 * it, unless its environment has PKGDIST_KEEP_STATS=1. A new process that gets the pid of one that
 * left its object behind replaces that object on its first registration.
 *
 * Reading:
 *   1. Wait until `magic` is SHIP_LAYOUT_MAGIC; it is stored last. Check `version`.
 *   2. Load `table_count` (with acquire order); that many tables of the directory are complete and
 *      never change again. The count only grows. Table i stands `table_offset + i * table_stride`
 *      bytes into the object.
 *   3. Entries (labels) and values of a table stand at the offsets that the table gives. Labels do
 *      not change. Values change at any time, each 32-bit word at once; ship.h describes the value
 *      block of each kind.
 *
 * All numbers are in host byte order, all offsets in bytes from the start of the object, all texts
 * end in a zero. Value blocks start at multiples of 8.
 */
#ifndef PLATFORM_SHIP_LAYOUT_H
#define PLATFORM_SHIP_LAYOUT_H

#include <stdint.h>

#define SHIP_LAYOUT_OBJECT_PREFIX "/pkgdist-stat." /* then the pid in decimal */
#define SHIP_LAYOUT_MAGIC UINT64_C(0x5441545344474b50)
#define SHIP_LAYOUT_VERSION 1u

enum {
  SHIP_LAYOUT_NAME_SIZE = 32,    /* application and table, with the terminating zero */
  SHIP_LAYOUT_PROCESS_SIZE = 64, /* longer process names are cut */
};

struct ship_layout_header {
  uint64_t magic;
  uint32_t version;
  uint32_t pid;
  uint64_t object_size;
  uint64_t created_ns;     /* nanoseconds of CLOCK_REALTIME; tells a recycled pid's object apart */
  uint64_t table_offset;   /* of the directory */
  uint32_t table_stride;   /* bytes from one directory entry to the next */
  uint32_t table_capacity; /* entries that the directory has room for */
  uint32_t table_count;    /* entries that are complete */
  uint32_t unused;
};

struct ship_layout_table {
  char application[SHIP_LAYOUT_NAME_SIZE];
  char table[SHIP_LAYOUT_NAME_SIZE];
  char process[SHIP_LAYOUT_PROCESS_SIZE];
  uint32_t kind;           /* SHIP_KIND_... */
  uint32_t parameter;      /* as given at registration */
  uint32_t count;          /* entries of the table */
  uint32_t value_stride;   /* bytes of the value block per entry */
  uint64_t entries_offset; /* `count` structures ship_layout_entry */
  uint64_t values_offset;  /* the value block */
  uint64_t values_size;    /* count * value_stride */
};

struct ship_layout_entry {
  char name[16]; /* label of 15 characters padded with blanks */
  uint64_t word; /* 1 for a high watermark, otherwise 0 */
};

#endif
