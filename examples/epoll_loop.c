/* The library's loop inside an epoll loop of your own:  epoll_loop OWN-ADDRESS DIRECTORY/
 * Ends in order on SIGINT and SIGTERM. */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "start_node.h"

static int signal_descriptor(void) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, NULL);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

static int watch(int epoll, int descriptor) {
  struct epoll_event event = {.events = EPOLLIN, .data = {.fd = descriptor}};
  return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

int main(int argc, char** argv) {
  const int signals = signal_descriptor(); /* before the library has threads */
  levm_handle_t loop = start_node(argc, argv);
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (signals < 0 || epoll < 0 || watch(epoll, signals) != 0 || watch(epoll, levm_fd(loop)) != 0) {
    perror("epoll");
    return 1;
  }
  for (;;) {
    struct epoll_event event;
    const int ready = epoll_wait(epoll, &event, 1, -1);
    if (ready < 0 && errno != EINTR) return 1;
    if (ready <= 0) continue;
    if (event.data.fd == signals) return 0;
    levm_run_once(loop, 0); /* callbacks run here, on this thread */
  }
}
