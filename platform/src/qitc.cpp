// Callback channels: a ring of pointers and an eventfd that is readable exactly while the ring
// holds an entry.
//
// Rule: the eventfd changes only under fifo_lock and only when the ring turns from empty to not
// empty or back; so it costs one system call per burst, not one per entry.
//
// Threads: any. A channel that is destroyed while its handler runs on another thread lives on,
// empty and closed, until that handler returns; the handler sees EINVAL from then on.
//
// Bad case: no memory for a larger ring, or a descriptor that was closed behind our back. The put
// fails and leaves ring and descriptor as they were.
#include "platform/qitc.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "channel.h"

namespace platform {

std::mutex attachment_lock;

void unpin(qitc_channel* channel) noexcept {
  {
    const std::scoped_lock guard(attachment_lock);
    if (--channel->pins > 0) return;
  }
  delete channel;
}

}  // namespace platform

namespace {

// Largest hint that is believed; a ring beyond it grows when it is needed.
constexpr uint32_t kMostPreallocated = 4096;

bool raise_event(int fd) noexcept {
  const uint64_t one = 1;
  return write(fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one);
}

void clear_event(int fd) noexcept {
  uint64_t count = 0;
  // When this fails, the loop clears the descriptor of the empty channel (clear_if_empty).
  [[maybe_unused]] const ssize_t got = read(fd, &count, sizeof count);
}

}  // namespace

namespace platform {

void clear_if_empty(qitc_channel& channel) noexcept {
  const std::scoped_lock guard(channel.fifo_lock);
  if (channel.event && channel.fifo.size() == 0) clear_event(channel.event.get());
}

}  // namespace platform

int qitc_handle_create(uint32_t size, int, int, int, qitc_handle_t* out) {
  if (out == nullptr) return EINVAL;
  std::unique_ptr<qitc_channel> channel(new (std::nothrow) qitc_channel);
  if (!channel || !channel->fifo.reserve(std::min(size, kMostPreallocated))) return ENOMEM;
  channel->event.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!channel->event) return errno;
  *out = channel.release();
  return 0;
}

int qitc_handle_destroy(qitc_handle_t channel) {
  if (channel == nullptr) return EINVAL;
  {
    const std::scoped_lock guard(platform::attachment_lock);
    if (channel->destroyed) return EINVAL;
    channel->destroyed = true;
    if (channel->loop != nullptr) platform::detach_locked(*channel);
    const std::scoped_lock fifo_guard(channel->fifo_lock);
    channel->event.reset();
  }
  platform::unpin(channel);
  return 0;
}

int qitc_put(qitc_handle_t channel, void* entry) {
  if (channel == nullptr) return EINVAL;
  const std::scoped_lock guard(channel->fifo_lock);
  if (!channel->event) return EINVAL;
  if (!channel->fifo.push(entry)) return ENOMEM;
  if (channel->fifo.size() == 1 && !raise_event(channel->event.get())) {
    channel->fifo.drop_newest();
    return errno;
  }
  channel->waiting.store(channel->fifo.size(), std::memory_order_release);
  return 0;
}

int qitc_get(qitc_handle_t channel, void** entry) {
  if (channel == nullptr || entry == nullptr) return EINVAL;
  const std::scoped_lock guard(channel->fifo_lock);
  if (!channel->event) return EINVAL;
  if (channel->fifo.size() == 0) return -1;
  *entry = channel->fifo.pop();
  channel->waiting.store(channel->fifo.size(), std::memory_order_release);
  if (channel->fifo.size() == 0) clear_event(channel->event.get());
  return 0;
}

int qitc_handle_fd(qitc_handle_t channel) {
  if (channel == nullptr) return -1;
  const std::scoped_lock guard(channel->fifo_lock);
  return channel->event.get();
}
