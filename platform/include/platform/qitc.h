/* Callback channel: carries pointers from any thread to the thread that runs an event loop.
 *
 * A channel is a FIFO of pointers, bounded only by memory, with an eventfd that is readable while
 * the FIFO holds an entry. Every function may be called from any thread. The channel never looks at
 * what an entry points to and never frees it.
 */
#ifndef PLATFORM_QITC_H
#define PLATFORM_QITC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qitc_channel* qitc_handle_t;

/* Runs on the event loop's thread when the channel holds entries; takes them with qitc_get(). It
 * may destroy the channel it was called for. When another thread destroys the channel while the
 * handler runs, the handle stays safe to use until the handler returns, and every function returns
 * its EINVAL for it. */
typedef void (*qitc_handler_t)(qitc_handle_t channel);

/* Creates a channel. `size` is the number of entries the caller expects in flight: a hint, not a
 * limit. The three integers are reserved; pass 0. Returns 0 and stores the handle in *out, or an
 * error number (ENOMEM, EMFILE, EINVAL for a null `out`) with *out untouched. */
int qitc_handle_create(uint32_t size, int reserved1, int reserved2, int reserved3,
                       qitc_handle_t* out);

/* Detaches the channel from its event loop if it still has one, drops entries that nobody took
 * (their memory belongs to whoever put them: drain first) and frees the channel. Returns 0, or
 * EINVAL for a null handle. */
int qitc_handle_destroy(qitc_handle_t channel);

/* Appends `entry` and wakes the loop. Returns 0 or an error number (EINVAL, ENOMEM); on failure the
 * entry stays the caller's. */
int qitc_put(qitc_handle_t channel, void* entry);

/* Takes the oldest entry into *entry. Returns 0, -1 when the channel is empty, or an error number
 * (EINVAL). *entry is written only with result 0. */
int qitc_get(qitc_handle_t channel, void** entry);

/* The channel's descriptor, for logs and for loops of other makes: readable while an entry is
 * waiting. To be polled only, never read or written. -1 for a null handle. */
int qitc_handle_fd(qitc_handle_t channel);

#ifdef __cplusplus
}
#endif

#endif
