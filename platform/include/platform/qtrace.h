/* Trace rings: fixed-size rings of binary records in one file per process, oldest overwritten
 * first, readable while the process runs and after it crashed. qtrace_layout.h describes the file
 * for readers.
 */
#ifndef PLATFORM_QTRACE_H
#define PLATFORM_QTRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque; 0 is no ring, and recording into it does nothing. */
typedef uint64_t qtrace_handle_t;

/* Opens the ring `name` with room for `records` records of a catalogue of `points` trace points.
 * `path` is the registering library's path in the installed tree, `catalogue_id` 32 hexadecimal
 * digits that name the build's catalogue of formats; both are kept in the file for readers. The
 * integer is reserved; pass 0. Opening a name again gives the same ring; after a fork, what the
 * child opens goes into a file of its own. Returns 0 and stores the handle in *out, or an error
 * number with *out untouched: EINVAL (a null argument, no records, a name that is empty or above 31
 * characters), ENOSPC (64 rings are open), ENOMEM, ENAMETOOLONG, or that of open/ftruncate/mmap.
 * Any thread. */
int qtrace_open_internal(const char* name, uint32_t records, uint32_t points, const char* path,
                         const char* catalogue_id, int reserved, qtrace_handle_t* out);

/* Sets what the ring records: configuration 0 records everything; otherwise bit 0 set switches the
 * ring off. Returns 0, or EINVAL for a handle that was never opened. */
int qtrace_enable_configuration(qtrace_handle_t trace, uint64_t configuration);

/* Writes one record: the trace point's number, the two integers of its catalogue entry, a
 * time-stamp, the calling thread and the arguments. `signature` has a letter per argument: 's' a
 * string (NULL is recorded as "(null)"), 'd' a 32-bit integer, 'D' a 64-bit value. `format` is not
 * stored: readers take it from the catalogue. Strings are cut when the record is full, so that the
 * integers still fit. A handle that was never opened and a ring that is switched off record
 * nothing. Lock-free; any thread; errno is left alone. */
void qtrace_internal(qtrace_handle_t trace, uint32_t point, int first, int second,
                     const char* signature, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
