/* What the examples with a third-party event loop have in common: starting as a node that
 * receives pushes into a directory. c_minimal.c shows the same calls one by one. */
#ifndef START_NODE_H
#define START_NODE_H

#include <arpa/inet.h>
#include <pkgdist/pkgdist_recv.h>
#include <stdio.h>
#include <stdlib.h>

static inline void check(PkgdistStatus status, const char* what) {
  if (status == 0) return;
  fprintf(stderr, "%s: %s\n", what, pkgdist_status_str(status));
  exit(1);
}

static inline void print_file(uint64_t status, const char* path, uint32_t type, uint32_t location,
                              uint32_t xact_id, void* ctx) {
  (void)type, (void)location, (void)ctx;
  printf("push %u: %s: %s\n", xact_id, path, pkgdist_status_str(status));
}

/* The library's loop, with everything attached; the caller embeds it by levm_fd(). Threads of the
 * library inherit the signal mask: block the signals that you want for yourself before. */
static inline levm_handle_t start_node(int argc, char** argv) {
  struct in_addr own;
  if (argc != 3 || inet_pton(AF_INET, argv[1], &own) != 1) {
    fprintf(stderr, "usage: %s OWN-ADDRESS DIRECTORY/\n", argv[0]);
    exit(2);
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  levm_handle_t loop = levm_create();
  if (loop == NULL) {
    perror("event loop");
    exit(1);
  }
  check(instcomm_pkgdist_ctrl_recv_init(PKGDIST_DEFAULT_CONTROL_GROUP, PKGDIST_DEFAULT_CONTROL_PORT,
                                        PKGDIST_DEFAULT_LEAD_PORT, PKGDIST_DEFAULT_NODE_PORT,
                                        PKGDIST_DEFAULT_CARD_CLASS, ntohl(own.s_addr), 0),
        "control side");
  check(instcomm_pkgdist_data_file_hdlr_attach(loop, print_file, NULL), "files");
  check(instcomm_pkgdist_data_recv_init(PKGDIST_DEFAULT_DATA_GROUP, PKGDIST_DEFAULT_DATA_PORT,
                                        PKGDIST_DEFAULT_REQUEST_PORT),
        "data side");
  check(instcomm_pkgdist_set_recv_repository(argv[2], 1, false), "location 1");
  return loop;
}

#endif
