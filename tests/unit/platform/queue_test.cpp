#include "platform/queue.h"

#include <gtest/gtest.h>

namespace {

TEST(Queue, starts_empty) {
  queue_t queue;
  queue_init(&queue);
  EXPECT_EQ(nullptr, queue.head);
  EXPECT_EQ(nullptr, queue.tail);
  EXPECT_EQ(0u, queue.count);
  EXPECT_EQ(nullptr, queue_dequeue(&queue));
  EXPECT_EQ(0u, queue.count);
}

TEST(Queue, gives_elements_in_the_order_they_came) {
  queue_t queue;
  queue_init(&queue);
  queue_link_t links[3];
  for (queue_link_t& link : links) queue_enqueue(&queue, &link);
  EXPECT_EQ(3u, queue.count);
  EXPECT_EQ(&links[0], queue.head);
  EXPECT_EQ(&links[2], queue.tail);
  for (queue_link_t& link : links) EXPECT_EQ(&link, queue_dequeue(&queue));
  EXPECT_EQ(nullptr, queue_dequeue(&queue));
}

TEST(Queue, is_usable_after_running_empty) {
  queue_t queue;
  queue_init(&queue);
  queue_link_t first;
  queue_link_t second;
  queue_enqueue(&queue, &first);
  queue_dequeue(&queue);
  EXPECT_EQ(nullptr, queue.head);
  EXPECT_EQ(nullptr, queue.tail);

  queue_enqueue(&queue, &second);
  queue_enqueue(&queue, &first);
  EXPECT_EQ(2u, queue.count);
  EXPECT_EQ(&second, queue_dequeue(&queue));
  EXPECT_EQ(&first, queue_dequeue(&queue));
  EXPECT_EQ(0u, queue.count);
}

TEST(Queue, does_not_keep_what_a_link_pointed_to_before) {
  queue_t queue;
  queue_init(&queue);
  queue_link_t stale;
  queue_link_t link = {&stale};
  queue_enqueue(&queue, &link);
  EXPECT_EQ(&link, queue_dequeue(&queue));
  EXPECT_EQ(nullptr, queue_dequeue(&queue));
  EXPECT_EQ(nullptr, link.next);
}

TEST(Queue, init_forgets_linked_elements) {
  queue_t queue;
  queue_init(&queue);
  queue_link_t link;
  queue_enqueue(&queue, &link);
  queue_init(&queue);
  EXPECT_EQ(0u, queue.count);
  EXPECT_EQ(nullptr, queue_dequeue(&queue));
}

}  // namespace
