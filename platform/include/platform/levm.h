/* Event manager: an epoll loop on the caller's thread that runs the handlers of callback channels.
 *
 * Threads: a loop is run by one thread at a time; attach, detach and stop may be called from any
 * thread, also from inside a handler. No lock of the loop is held while a handler runs, so a
 * handler may attach, detach or destroy any channel, its own included. A channel that is detached
 * or destroyed during a pass has its handler run no more; when another thread does that while the
 * handler runs, the call does not wait for it: the handler may still be in its last run when the
 * call returns.
 */
#ifndef PLATFORM_LEVM_H
#define PLATFORM_LEVM_H

#include "platform/qitc.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct levm* levm_handle_t;

/* Creates an event loop; NULL and errno on failure. */
levm_handle_t levm_create(void);

/* Destroys the loop. Channels still attached are detached, not destroyed. Not from inside a handler
 * of this loop, nor while another thread runs it. NULL is ignored. */
void levm_destroy(levm_handle_t levm);

/* Waits up to timeout_ms milliseconds (-1: without limit, 0: not at all) for channels with entries
 * and runs their handlers, most urgent priority first, each once. Returns the number of handlers
 * that ran; 0 on time-out or when levm_stop() woke the wait; -1 with errno set on failure. A signal
 * that interrupts the wait does not end it. A channel attached by a handler waits for the next
 * pass. */
int levm_run_once(levm_handle_t levm, int timeout_ms);

/* Runs until levm_stop(). Returns 0, or -1 with errno. */
int levm_run(levm_handle_t levm);

/* Makes levm_run() return after the handler that runs now. May be called from any thread and from
 * signal handlers; a stop that arrives before the run ends that run at once. A stop ends one run;
 * several that arrive before it takes effect are one. levm_run_once() is a run in this sense too.
 */
void levm_stop(levm_handle_t levm);

/* A descriptor that is readable when levm_run_once(levm, 0) has work: the way to embed this loop in
 * another one (a pending stop counts as work). Owned by the loop; -1 for a null handle. */
int levm_fd(levm_handle_t levm);

/* Attaches `channel` to the loop: `handler` runs whenever the channel holds entries. A NULL handler
 * detaches. `priority`: smaller runs first within one pass. The three integers are reserved; pass
 * 0. A channel belongs to one loop at a time. Returns 0 or an error number: EINVAL (null handle),
 * EEXIST (already attached), ENOENT (detach of a channel that is not attached to this loop),
 * or that of epoll_ctl (ENOMEM, ENOSPC). */
int levm_attach_qitc_handle(levm_handle_t levm, qitc_handle_t channel, qitc_handler_t handler,
                            int priority, int reserved1, int reserved2, int reserved3);

#ifdef __cplusplus
}
#endif

#endif
