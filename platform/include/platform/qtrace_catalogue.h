/* Puts a catalogue into the trace file, so that readers can decode its records without the program
 * that wrote them. A platform may do without: the receive library skips the call when this header
 * or the function is missing.
 */
#ifndef PLATFORM_QTRACE_CATALOGUE_H
#define PLATFORM_QTRACE_CATALOGUE_H

#include <stdint.h>

#include "platform/qtrace.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qtrace_point {
  const char* file;
  const char* function;
  const char* format;    /* as printf has it */
  const char* signature; /* of qtrace_internal */
  int line;
  int first; /* the two integers of qtrace_internal */
  int second;
} qtrace_point;

/* Writes the description of `count` points, in the order of their numbers, into the file of the
 * ring's process. Rings with the same catalogue_id share one: for the second, and when called
 * again, nothing is written. The texts are copied. Returns 0, or an error number: EINVAL (a null
 * argument, a handle that was never opened or is the parent's, more points than the ring was opened
 * with), or that of ftruncate/fallocate/mmap, after which the ring works on without a catalogue.
 * Any thread. */
int qtrace_describe(qtrace_handle_t trace, const qtrace_point* points, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
