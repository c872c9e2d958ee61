/* Statistics registry: value blocks live in one shared-memory object per process, so that a reader
 * outside the process sees the counts while it runs and after it died. ship_layout.h describes the
 * object for readers.
 *
 * Layout of a value block, by kind (all words 32-bit unless said otherwise, host byte order):
 *   kinds 0 and 1, counters:   one 20-byte record per entry; its first word is the count.
 *   kind 31, histograms:       eight bucket counts per entry, entries one after another.
 *   kind 32, watermark:        current, mark, mode flags (bit 0 high, bit 1 low), 4 unused bytes,
 *                              64-bit time-stamp of the last move of the mark; 24 bytes per entry.
 */
#ifndef PLATFORM_SHIP_H
#define PLATFORM_SHIP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SHIP_KIND_TRANSPORT_COUNTERS = 0,
  SHIP_KIND_SERVER_COUNTERS = 1,
  SHIP_KIND_HISTOGRAMS = 31,
  SHIP_KIND_WATERMARKS = 32,
};

/* One entry of a table: a label of 15 characters padded with blanks, a terminating zero, and a word
 * that is 1 for a high watermark and 0 otherwise. */
typedef struct ship_entry {
  char name[16];
  uint64_t word;
} ship_entry;

/* Registers `count` entries as table `table` of `application` for the process named `process` and
 * stores the address of the zeroed value block in *handle. `parameter` points to a 32-bit value
 * kept with the table for readers. The strings and entries are copied. Registering a table again
 * gives the same block with its values; a table is known by application, table and process. A
 * watermark whose entry word is 1 starts as a high watermark. The block is aligned to 8 bytes and
 * stays where it is for the life of the process. After a fork the child's registrations go into an
 * object of its own. Returns 0, or an error number with *handle set to NULL: EINVAL (a null
 * argument, no entries, an unknown kind, an application or table name that is empty or above 31
 * characters, or a table that was registered before with another kind or count), ENOSPC (no room
 * for more tables, or none in the shared-memory file system), or that of shm_open/ftruncate/mmap. A
 * process name above 63 characters is cut. Any thread. */
int ship_register(const char* application, const char* table, const char* process, uint32_t kind,
                  const uint32_t* parameter, ship_entry* entries, uint32_t count, void** handle);

#ifdef __cplusplus
}
#endif

#endif
