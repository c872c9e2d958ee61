/* A C11 program that brings parts of the platform itself: the library uses the program's debug
 * switches, statistics lock and trace, not those of the platform library that is loaded too. It
 * is built with symbol_names.h, because it replaces the trace on purpose. Prints what is wrong and
 * returns 1. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist/statistics.h"
#include "platform/inst_common.h"
#include "platform/qtrace.h"

static int failures = 0;

#define CHECK(condition)                                     \
  do {                                                       \
    if (!(condition)) {                                      \
      ++failures;                                            \
      printf("%s:%d: %s\n", __FILE__, __LINE__, #condition); \
    }                                                        \
  } while (0)

/* --- What the program brings --- */

int32_t g_inst_common_debug_verbosity_level = 1;
int32_t g_inst_common_debug_prefix = 0;
pthread_mutex_t atomic_mutex = PTHREAD_MUTEX_INITIALIZER;

static int traced = 0;
static struct {
  uint32_t point;
  int first, second;
  const char *signature, *format;
} last;

void qtrace_internal(qtrace_handle_t trace, uint32_t point, int first, int second,
                     const char* signature, const char* format, ...) {
  (void)trace;
  ++traced;
  last.point = point;
  last.first = first;
  last.second = second;
  last.signature = signature;
  last.format = format;
}

/* --- */

static char copies[4096]; /* what came on standard error, with a zero behind */

/* Runs `act` with standard error going to a file, which is then read into `copies`. */
static void capture(void (*act)(void)) {
  FILE* file = tmpfile();
  const int kept = dup(STDERR_FILENO);
  CHECK(file != NULL && kept >= 0);
  fflush(stderr);
  dup2(fileno(file), STDERR_FILENO);
  act();
  fflush(stderr);
  dup2(kept, STDERR_FILENO);
  close(kept);
  rewind(file);
  copies[fread(copies, 1, sizeof copies - 1, file)] = '\0';
  fclose(file);
}

static void fail_once(void) {
  CHECK(instcomm_pkgdist_ctrl_register_lead_change(NULL, NULL, NULL) == PKGDIST_ERR_INVALID);
}

static void set_identity(void) {
  CHECK(instcomm_pkgdist_ctrl_recv_set_nodeid(NULL) == 0);
}

static void check_trace_and_copies(void) {
  capture(fail_once);
  CHECK(traced == 1);
  CHECK(last.point < 361);
  CHECK(last.first == 1 && last.second == 0); /* an error: from verbosity 1, to the error trace */
  CHECK(strcmp(last.signature, "s") == 0);
  CHECK(strcmp(last.format, "ERR:%s: levm passed is NULL\n") == 0);
  CHECK(strstr(copies, "register_lead_change: levm passed is NULL\n\n") != NULL);
  capture(set_identity);
  CHECK(last.first == 2 && last.second == 1); /* routine: from verbosity 2, to the library trace */
  CHECK(strcmp(last.signature, "ds") == 0);
  CHECK(copies[0] == '\0');
  g_inst_common_debug_verbosity_level = 0;
  capture(fail_once);
  CHECK(traced == 3);
  CHECK(copies[0] == '\0');
}

/* Counts with the statistics lock held already, which this kind of mutex reports. */
static void count_with_the_lock_held(void) {
  static uint64_t counters[13 * 20 / 8 + 1];
  pthread_mutexattr_t reporting;
  pthread_mutexattr_init(&reporting);
  pthread_mutexattr_settype(&reporting, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&atomic_mutex, &reporting);
  pthread_mutex_lock(&atomic_mutex);
  g_inst_common_debug_verbosity_level = 1;
  pkgdist_crs_ship_counter_hdl = counters;
  (void)instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, NULL, NULL, NULL);
}

/* In a child, because a lock that fails ends the process. */
static void wait_for_the_end_of_a_child(void) {
  const pid_t child = fork();
  if (child == 0) {
    count_with_the_lock_held();
    _exit(0);
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

static void check_statistics_lock(void) {
  capture(wait_for_the_end_of_a_child);
  CHECK(strstr(copies, "pthread_mutex_lock failed: ") != NULL);
}

int main(void) {
  check_trace_and_copies();
  check_statistics_lock();
  if (failures == 0) puts("all well");
  return failures != 0;
}
