/* A platform layer made of poll(), pipes and one mutex: the least that satisfies the headers in
 * platform/. No shared memory, no files: statistics stay in the process and traces go nowhere.
 *
 * One lock guards channels, loops and statistics; it is never held while a handler runs. Whoever
 * queues an entry raises the pipe of the channel and that of its loop, and a round of the loop
 * takes every channel that has entries once, by priority. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "platform/fts.h"
#include "platform/inst_common.h"
#include "platform/levm.h"
#include "platform/nodeid.h"
#include "platform/qitc.h"
#include "platform/qtrace.h"
#include "platform/quendrel.h"
#include "platform/queue.h"
#include "platform/ship.h"

int32_t g_inst_common_debug_verbosity_level;
int32_t g_inst_common_debug_prefix;
pthread_mutex_t atomic_mutex = PTHREAD_MUTEX_INITIALIZER;

static pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;

/* --- Pipes: readable while raised --- */

struct signal_pipe {
  int ends[2];
  bool raised;
};

static int open_pipe(struct signal_pipe* pipe) {
  pipe->raised = false;
  return pipe2(pipe->ends, O_NONBLOCK | O_CLOEXEC) == 0 ? 0 : errno;
}

static void close_pipe(struct signal_pipe* pipe) {
  close(pipe->ends[0]);
  close(pipe->ends[1]);
}

static void raise_pipe(struct signal_pipe* pipe) {
  if (!pipe->raised) pipe->raised = write(pipe->ends[1], "", 1) == 1;
}

static void clear_pipe(struct signal_pipe* pipe) {
  char bytes[64];
  while (read(pipe->ends[0], bytes, sizeof bytes) > 0) {
  }
  pipe->raised = false;
}

/* --- Channels --- */

struct entry {
  struct entry* next;
  void* value;
};

struct qitc_channel {
  struct signal_pipe readable;
  struct entry *head, **tail;
  levm_handle_t loop;
  qitc_handler_t handler;
  int priority;
  unsigned long round;       /* of the loop, in which it was attached or ran last */
  struct qitc_channel* next; /* of its loop, by priority */
  int users;                 /* the owner, and each run of the handler */
  bool destroyed;
};

struct levm {
  struct signal_pipe readable;
  atomic_bool stop;
  unsigned long round;
  struct qitc_channel* channels;
};

int qitc_handle_create(uint32_t size, int reserved1, int reserved2, int reserved3,
                       qitc_handle_t* out) {
  (void)size, (void)reserved1, (void)reserved2, (void)reserved3;
  if (out == NULL) return EINVAL;
  struct qitc_channel* channel = calloc(1, sizeof *channel);
  if (channel == NULL) return ENOMEM;
  const int error = open_pipe(&channel->readable);
  if (error != 0) {
    free(channel);
    return error;
  }
  channel->tail = &channel->head;
  channel->users = 1;
  *out = channel;
  return 0;
}

static void detach(struct qitc_channel* channel) {
  if (channel->loop == NULL) return;
  struct qitc_channel** at = &channel->loop->channels;
  while (*at != channel) at = &(*at)->next;
  *at = channel->next;
  channel->loop = NULL;
}

static void* take_entry(struct qitc_channel* channel) {
  struct entry* entry = channel->head;
  void* value = entry->value;
  channel->head = entry->next;
  if (channel->head == NULL) {
    channel->tail = &channel->head;
    clear_pipe(&channel->readable);
  }
  free(entry);
  return value;
}

static void drop_user(struct qitc_channel* channel) {
  if (--channel->users > 0) return;
  while (channel->head != NULL) take_entry(channel);
  close_pipe(&channel->readable);
  free(channel);
}

int qitc_handle_destroy(qitc_handle_t channel) {
  if (channel == NULL) return EINVAL;
  pthread_mutex_lock(&guard);
  detach(channel);
  channel->destroyed = true;
  drop_user(channel);
  pthread_mutex_unlock(&guard);
  return 0;
}

int qitc_put(qitc_handle_t channel, void* value) {
  if (channel == NULL) return EINVAL;
  struct entry* entry = malloc(sizeof *entry);
  if (entry == NULL) return ENOMEM;
  *entry = (struct entry){.next = NULL, .value = value};
  pthread_mutex_lock(&guard);
  *channel->tail = entry;
  channel->tail = &entry->next;
  raise_pipe(&channel->readable);
  if (channel->loop != NULL) raise_pipe(&channel->loop->readable);
  pthread_mutex_unlock(&guard);
  return 0;
}

int qitc_get(qitc_handle_t channel, void** value) {
  if (channel == NULL || value == NULL) return EINVAL;
  pthread_mutex_lock(&guard);
  const int result = channel->destroyed ? EINVAL : channel->head == NULL ? -1 : 0;
  if (result == 0) *value = take_entry(channel);
  pthread_mutex_unlock(&guard);
  return result;
}

int qitc_handle_fd(qitc_handle_t channel) {
  return channel == NULL ? -1 : channel->readable.ends[0];
}

/* --- Loops --- */

levm_handle_t levm_create(void) {
  levm_handle_t levm = calloc(1, sizeof *levm);
  if (levm == NULL) return NULL;
  const int error = open_pipe(&levm->readable);
  if (error == 0) return levm;
  free(levm);
  errno = error;
  return NULL;
}

void levm_destroy(levm_handle_t levm) {
  if (levm == NULL) return;
  pthread_mutex_lock(&guard);
  while (levm->channels != NULL) detach(levm->channels);
  pthread_mutex_unlock(&guard);
  close_pipe(&levm->readable);
  free(levm);
}

static int attach(levm_handle_t levm, qitc_handle_t channel, qitc_handler_t handler, int priority) {
  if (channel->loop != NULL) return EEXIST;
  channel->loop = levm;
  channel->handler = handler;
  channel->priority = priority;
  channel->round = levm->round; /* its turn is in the next one */
  struct qitc_channel** at = &levm->channels;
  while (*at != NULL && (*at)->priority <= priority) at = &(*at)->next;
  channel->next = *at;
  *at = channel;
  if (channel->head != NULL) raise_pipe(&levm->readable);
  return 0;
}

int levm_attach_qitc_handle(levm_handle_t levm, qitc_handle_t channel, qitc_handler_t handler,
                            int priority, int reserved1, int reserved2, int reserved3) {
  (void)reserved1, (void)reserved2, (void)reserved3;
  if (levm == NULL || channel == NULL) return EINVAL;
  int error = 0;
  pthread_mutex_lock(&guard);
  if (handler != NULL)
    error = attach(levm, channel, handler, priority);
  else if (channel->loop != levm)
    error = ENOENT;
  else
    detach(channel);
  pthread_mutex_unlock(&guard);
  return error;
}

/* The next channel with entries whose turn has not been in this round. */
static struct qitc_channel* next_channel(const struct levm* levm) {
  struct qitc_channel* at = levm->channels;
  while (at != NULL && (at->head == NULL || at->round == levm->round)) at = at->next;
  return at;
}

static bool has_entries(const struct levm* levm) {
  for (const struct qitc_channel* at = levm->channels; at != NULL; at = at->next)
    if (at->head != NULL) return true;
  return false;
}

/* Runs what is ready; *stopped tells whether a stop ended it. */
static int run_round(levm_handle_t levm, bool* stopped) {
  int ran = 0;
  pthread_mutex_lock(&guard);
  clear_pipe(&levm->readable);
  ++levm->round;
  struct qitc_channel* channel = NULL;
  while (!(*stopped = atomic_exchange(&levm->stop, false)) &&
         (channel = next_channel(levm)) != NULL) {
    channel->round = levm->round;
    ++channel->users;
    const qitc_handler_t handler = channel->handler;
    pthread_mutex_unlock(&guard);
    handler(channel);
    pthread_mutex_lock(&guard);
    drop_user(channel);
    ++ran;
  }
  if (has_entries(levm)) raise_pipe(&levm->readable);
  pthread_mutex_unlock(&guard);
  return ran;
}

static int wait_and_run(levm_handle_t levm, int timeout_ms, bool* stopped) {
  struct pollfd readable = {.fd = levm->readable.ends[0], .events = POLLIN};
  int ready = 0;
  do ready = poll(&readable, 1, timeout_ms);
  while (ready < 0 && errno == EINTR);
  *stopped = false;
  return ready <= 0 ? ready : run_round(levm, stopped);
}

int levm_run_once(levm_handle_t levm, int timeout_ms) {
  bool stopped = false;
  return wait_and_run(levm, timeout_ms, &stopped);
}

int levm_run(levm_handle_t levm) {
  for (bool stopped = false; !stopped;)
    if (wait_and_run(levm, -1, &stopped) < 0) return -1;
  return 0;
}

void levm_stop(levm_handle_t levm) {
  if (levm == NULL) return;
  const int saved = errno;
  atomic_store(&levm->stop, true);
  const ssize_t wrote = write(levm->readable.ends[1], "", 1);
  (void)wrote;
  errno = saved;
}

int levm_fd(levm_handle_t levm) {
  return levm == NULL ? -1 : levm->readable.ends[0];
}

/* --- Statistics: blocks in ordinary memory --- */

struct table {
  struct table* next;
  char name[64];
  uint64_t values[];
};

static size_t entry_bytes(uint32_t kind) {
  switch (kind) {
    case SHIP_KIND_HISTOGRAMS:
      return 32;
    case SHIP_KIND_WATERMARKS:
      return 24;
    default:
      return 20;
  }
}

int ship_register(const char* application, const char* table, const char* process, uint32_t kind,
                  const uint32_t* parameter, ship_entry* entries, uint32_t count, void** handle) {
  (void)process, (void)parameter;
  static struct table* tables;
  char name[64];
  snprintf(name, sizeof name, "%s/%s", application, table);
  *handle = NULL;
  pthread_mutex_lock(&guard);
  struct table* found = tables;
  while (found != NULL && strcmp(found->name, name) != 0) found = found->next;
  if (found == NULL && (found = calloc(1, sizeof *found + count * entry_bytes(kind) + 8)) != NULL) {
    snprintf(found->name, sizeof found->name, "%s", name);
    found->next = tables;
    tables = found;
    for (uint32_t i = 0; kind == SHIP_KIND_WATERMARKS && i < count; ++i)
      ((uint32_t*)found->values)[6 * i + 2] = entries[i].word == 1;
  }
  pthread_mutex_unlock(&guard);
  if (found == NULL) return ENOMEM;
  *handle = found->values;
  return 0;
}

/* --- Traces: nowhere --- */

int qtrace_open_internal(const char* name, uint32_t records, uint32_t points, const char* path,
                         const char* catalogue_id, int reserved, qtrace_handle_t* out) {
  (void)name, (void)records, (void)points, (void)path, (void)catalogue_id, (void)reserved;
  *out = 1;
  return 0;
}

int qtrace_enable_configuration(qtrace_handle_t trace, uint64_t configuration) {
  (void)configuration;
  return trace == 1 ? 0 : EINVAL;
}

void qtrace_internal(qtrace_handle_t trace, uint32_t point, int first, int second,
                     const char* signature, const char* format, ...) {
  (void)trace, (void)point, (void)first, (void)second, (void)signature, (void)format;
}

/* --- Time, identity, queues, strings, files --- */

uint64_t fts_get_stamp_fast(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

bool platform_is_sim_platform(void) {
  return false;
}

int nodeid_create(uint32_t first, uint32_t second, uint32_t third, nodeid_handle_t* out) {
  if (out == NULL) return EINVAL;
  nodeid_handle_t nodeid = malloc(sizeof *nodeid);
  if (nodeid == NULL) return ENOMEM;
  *nodeid = (struct nodeid){first, second, third};
  *out = nodeid;
  return 0;
}

void nodeid_destroy(nodeid_handle_t nodeid) {
  free(nodeid);
}

int nodeid_to_str_external(nodeid_handle_t nodeid, char* buffer, size_t size) {
  if (buffer == NULL || size == 0) return EINVAL;
  *buffer = '\0';
  if (nodeid == NULL) return EINVAL;
  const int length =
      snprintf(buffer, size, "%u/%u/%u", nodeid->first, nodeid->second, nodeid->third);
  return (size_t)length < size ? 0 : ENOSPC;
}

void queue_init(queue_t* queue) {
  *queue = (queue_t){NULL, NULL, 0};
}

void queue_enqueue(queue_t* queue, queue_link_t* link) {
  link->next = NULL;
  *(queue->head == NULL ? &queue->head : &queue->tail->next) = link;
  queue->tail = link;
  ++queue->count;
}

queue_link_t* queue_dequeue(queue_t* queue) {
  queue_link_t* link = queue->head;
  if (link == NULL) return NULL;
  queue->head = link->next;
  if (queue->head == NULL) queue->tail = NULL;
  --queue->count;
  return link;
}

size_t quendrel_sstrncpy(char* to, const char* from, size_t size) {
  return (size_t)snprintf(to, size, "%s", from);
}

size_t quendrel_sstrncat(char* to, const char* from, size_t size) {
  const size_t used = strnlen(to, size);
  return used + quendrel_sstrncpy(to + used, from, size - used);
}

int instcomm_create_filepath_dirs(const char* path) {
  char part[4096];
  for (const char* slash = strchr(path + 1, '/'); slash != NULL; slash = strchr(slash + 1, '/')) {
    snprintf(part, sizeof part, "%.*s", (int)(slash - path), path);
    if (mkdir(part, 0777) != 0 && errno != EEXIST) return -1;
  }
  return 0;
}

int inst_symlink(const char* target, const char* link_path) {
  return symlink(target, link_path);
}
