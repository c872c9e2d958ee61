// Intrusive first-in first-out queue: a head, a tail and a count; the owner's lock guards all
// three.
#include "platform/queue.h"

void queue_init(queue_t* queue) {
  *queue = queue_t{};
}

void queue_enqueue(queue_t* queue, queue_link_t* link) {
  link->next = nullptr;
  (queue->tail != nullptr ? queue->tail->next : queue->head) = link;
  queue->tail = link;
  ++queue->count;
}

queue_link_t* queue_dequeue(queue_t* queue) {
  queue_link_t* oldest = queue->head;
  if (oldest == nullptr) return nullptr;
  queue->head = oldest->next;
  if (queue->head == nullptr) queue->tail = nullptr;
  oldest->next = nullptr;
  --queue->count;
  return oldest;
}
