/* Bounded string helpers. */
#ifndef PLATFORM_QUENDREL_H
#define PLATFORM_QUENDREL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies `from` into the buffer `to` of `size` bytes, cutting it so that it is always terminated.
 * Returns the length of `from`: a result of `size` or more means that it was cut. With size 0
 * nothing is written. */
size_t quendrel_sstrncpy(char* to, const char* from, size_t size);

/* Appends `from` to the string in the buffer `to` of `size` bytes, in the same way. Returns the
 * length that the whole string would have had. */
size_t quendrel_sstrncat(char* to, const char* from, size_t size);

#ifdef __cplusplus
}
#endif

#endif
