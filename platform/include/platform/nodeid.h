/* Node identity: the location of a node as three components, for example chassis/slot/card. */
#ifndef PLATFORM_NODEID_H
#define PLATFORM_NODEID_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Readers may look at the three components directly. */
struct nodeid {
  uint32_t first;
  uint32_t second;
  uint32_t third;
};
typedef struct nodeid* nodeid_handle_t;

/* Creates an identity. Returns 0 and stores it in *out, or ENOMEM / EINVAL with *out untouched. */
int nodeid_create(uint32_t first, uint32_t second, uint32_t third, nodeid_handle_t* out);

/* Frees an identity; NULL is ignored. */
void nodeid_destroy(nodeid_handle_t nodeid);

/* Writes "1/2/3", always terminated, into `buffer` of `size` bytes. Returns 0; EINVAL for a null
 * argument or a size of 0; ENOSPC when the text was cut. With a null identity and a usable buffer
 * the buffer becomes the empty string. */
int nodeid_to_str_external(nodeid_handle_t nodeid, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
