/* Intrusive first-in first-out queue.
 *
 * The caller owns the elements and embeds a queue_link_t in each; the queue only threads them
 * together, so no call allocates and none can fail. Not thread-safe: the owner of the queue brings
 * the lock. An empty queue has a null head; `count` may be read at any time under that lock.
 */
#ifndef PLATFORM_QUEUE_H
#define PLATFORM_QUEUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct queue_link {
  struct queue_link* next; /* owned by the queue while the element is in it */
} queue_link_t;

typedef struct queue {
  queue_link_t* head; /* oldest element; NULL when empty */
  queue_link_t* tail; /* newest element; NULL when empty */
  uint32_t count;     /* elements in the queue */
} queue_t;

/* Makes *queue empty. Elements still linked are forgotten, not freed. */
void queue_init(queue_t* queue);

/* Appends `link` at the tail. The element must not be in any queue. */
void queue_enqueue(queue_t* queue, queue_link_t* link);

/* Takes the element at the head, or returns NULL when the queue is empty. */
queue_link_t* queue_dequeue(queue_t* queue);

#ifdef __cplusplus
}
#endif

#endif
