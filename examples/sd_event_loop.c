/* The library's loop inside sd-event:  sd_event_loop OWN-ADDRESS DIRECTORY/
 * Ends in order on SIGINT and SIGTERM. */
#define _GNU_SOURCE
#include <signal.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "start_node.h"

static int on_readable(sd_event_source* source, int fd, uint32_t events, void* loop) {
  (void)source, (void)fd, (void)events;
  levm_run_once(loop, 0); /* callbacks run here, on the thread of the sd-event loop */
  return 0;
}

int main(int argc, char** argv) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, NULL); /* before the library has threads */

  levm_handle_t loop = start_node(argc, argv);
  sd_event* event = NULL;
  /* A signal without handler ends sd_event_loop(). */
  if (sd_event_default(&event) < 0 || sd_event_add_signal(event, NULL, SIGINT, NULL, NULL) < 0 ||
      sd_event_add_signal(event, NULL, SIGTERM, NULL, NULL) < 0 ||
      sd_event_add_io(event, NULL, levm_fd(loop), EPOLLIN, on_readable, loop) < 0)
    return 1;
  const int result = sd_event_loop(event);
  sd_event_unref(event);
  return result < 0;
}
