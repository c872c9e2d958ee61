/* The library's loop inside libuv:  libuv_loop OWN-ADDRESS DIRECTORY/
 * Ends in order on SIGINT and SIGTERM. */
#include <uv.h>

#include "start_node.h"

static void on_readable(uv_poll_t* poll, int status, int events) {
  (void)status, (void)events;
  levm_run_once(poll->data, 0); /* callbacks run here, on the thread of the libuv loop */
}

static void on_signal(uv_signal_t* handle, int number) {
  (void)number;
  uv_stop(handle->loop);
}

int main(int argc, char** argv) {
  uv_loop_t* uv = uv_default_loop();
  uv_signal_t interrupt, terminate;
  uv_signal_init(uv, &interrupt);
  uv_signal_init(uv, &terminate);
  uv_signal_start(&interrupt, on_signal, SIGINT);
  uv_signal_start(&terminate, on_signal, SIGTERM);

  levm_handle_t loop = start_node(argc, argv);
  uv_poll_t poll;
  if (uv_poll_init(uv, &poll, levm_fd(loop)) != 0) return 1;
  poll.data = loop;
  if (uv_poll_start(&poll, UV_READABLE, on_readable) != 0) return 1;
  uv_run(uv, UV_RUN_DEFAULT);
  return 0;
}
