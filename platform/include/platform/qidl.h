/* Message codec: memory interface shared by all generated encode, decode and free operations.
 *
 * For every wire structure <type> there are three operations:
 *
 *   ssize_t qidl_<type>_encode_ext(const <type>* message, uint8_t* buffer, size_t size);
 *     Encodes the present fields. Returns the encoded size, also when it is larger than `size`:
 * then the content of the buffer is unspecified, but nothing is written past its end (as snprintf
 *     does; a null buffer with size 0 measures). Negative when the message cannot be encoded at
 * all: a presence bit that names no field, or a string, array or byte string that is too long.
 *
 *   int qidl_<type>_decode_ext(const uint8_t* buffer, size_t length, <type>* message,
 *                              const qidl_allocator* allocator);
 *     Decodes exactly `length` bytes. 0, or negative with nothing left allocated and *message
 *     cleared. Absent fields are 0 or empty with their bit clear; strings are never null. Byte
 *     strings point into `buffer`, strings and arrays are owned by *message.
 *
 *   int qidl_<type>_free_ext(<type>* message, const qidl_allocator* allocator);
 *     Releases the strings and arrays that *message owns and clears it. Returns 0.
 *
 * All are free of global state and may be called from any thread.
 */
#ifndef PLATFORM_QIDL_H
#define PLATFORM_QIDL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where decoded strings and arrays come from. `ctx` is handed back to both functions. */
typedef struct qidl_allocator {
  void* (*allocate)(size_t size, void* ctx); /* NULL when out of memory */
  void (*release)(void* memory, void* ctx);
  void* ctx;
} qidl_allocator;

/* malloc() and free(); also used where a null allocator is passed. */
extern const qidl_allocator qidl_system_allocator;

/* Results of a failing codec operation. */
enum {
  QIDL_ERR_TRUNCATED = -1, /* a field is cut short, or a count is larger than what is left */
  QIDL_ERR_MASK = -2,      /* a presence bit names no field */
  QIDL_ERR_TRAILING = -3,  /* bytes are left over after the last field */
  QIDL_ERR_STRING = -4,    /* a zero byte inside a string */
  QIDL_ERR_NOMEM = -5,     /* the allocator returned nothing */
  QIDL_ERR_TOO_LONG = -6,  /* encode: a string, array or byte string exceeds its length field */
};

#ifdef __cplusplus
}
#endif

#endif
