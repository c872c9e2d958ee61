/* Receives what the lead pushes, until it is interrupted:  c_minimal OWN-ADDRESS DIRECTORY/
 * Groups and ports are those that pkgdist-lead uses when it is told nothing else. */
#include <arpa/inet.h>
#include <pkgdist/pkgdist_recv.h>
#include <stdio.h>
#include <stdlib.h>

static void check(PkgdistStatus status, const char* what) {
  if (status == 0) return;
  fprintf(stderr, "%s: %s\n", what, pkgdist_status_str(status));
  exit(1);
}

static uint32_t address(const char* text) {
  struct in_addr parsed;
  if (inet_pton(AF_INET, text, &parsed) == 1) return ntohl(parsed.s_addr);
  fprintf(stderr, "not an IPv4 address: %s\n", text);
  exit(2);
}

/* Runs on the thread of levm_run(); `path` is gone when it returns. */
static void on_file(uint64_t status, const char* path, uint32_t type, uint32_t location,
                    uint32_t xact_id, void* ctx) {
  (void)type, (void)location, (void)ctx;
  printf("push %u: %s: %s\n", xact_id, path, pkgdist_status_str(status));
}

static void on_done(uint64_t status, uint32_t xact_id, void* ctx) {
  (void)ctx;
  printf("push %u: over, %s\n", xact_id, pkgdist_status_str(status));
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s OWN-ADDRESS DIRECTORY/\n", argv[0]);
    return 2;
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  levm_handle_t loop = levm_create();
  if (loop == NULL) return 1;

  check(instcomm_pkgdist_ctrl_recv_init(PKGDIST_DEFAULT_CONTROL_GROUP, PKGDIST_DEFAULT_CONTROL_PORT,
                                        PKGDIST_DEFAULT_LEAD_PORT, PKGDIST_DEFAULT_NODE_PORT,
                                        PKGDIST_DEFAULT_CARD_CLASS, address(argv[1]), 0),
        "control side");
  nodeid_handle_t me = NULL; /* chassis, slot and card: what they mean is up to you */
  if (nodeid_create(1, 2, 3, &me) != 0) return 1;
  check(instcomm_pkgdist_ctrl_recv_set_nodeid(me), "identity");
  check(instcomm_pkgdist_data_file_hdlr_attach(loop, on_file, NULL), "files");
  check(instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop, on_done, NULL), "pushes");
  check(instcomm_pkgdist_data_recv_init(PKGDIST_DEFAULT_DATA_GROUP, PKGDIST_DEFAULT_DATA_PORT,
                                        PKGDIST_DEFAULT_REQUEST_PORT),
        "data side");
  check(instcomm_pkgdist_set_recv_repository(argv[2], 1, false), "location 1");
  return levm_run(loop);
}
