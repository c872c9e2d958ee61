// What a callback channel consists of, shared by the channel functions and the event loop.
//
// Two locks, always taken in this order:
//   attachment_lock  one for the process: which channel hangs on which loop, the loops' lists and
//                    the lifetime of channels. Held for pointer work and one epoll_ctl, never while
//                    a handler runs. One lock for all, because a channel and a loop can be
//                    destroyed at the same time by different threads and each has to reach into the
//                    other.
//   fifo_lock        one per channel: its entries and its descriptor.
#ifndef PLATFORM_SRC_CHANNEL_H
#define PLATFORM_SRC_CHANNEL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "platform/levm.h"
#include "platform/qitc.h"
#include "pointer_ring.h"
#include "unique_fd.h"

struct qitc_channel {
  // Guarded by fifo_lock.
  std::mutex fifo_lock;
  platform::PointerRing fifo;
  platform::UniqueFd event;  // readable while the FIFO holds an entry; closed once destroyed

  // Size of the FIFO: stored under fifo_lock, read by the loop without it.
  std::atomic<size_t> waiting{0};

  // Guarded by attachment_lock.
  levm* loop = nullptr;  // null: not attached, and what follows up to `pins` means nothing
  qitc_handler_t handler = nullptr;
  int priority = 0;
  uint64_t serial = 0;  // grows with every attachment of the loop
  qitc_channel* previous = nullptr;
  qitc_channel* next = nullptr;
  int pins = 1;  // the owner, and one per handler that runs; freed at zero
  bool destroyed = false;
};

namespace platform {

[[gnu::visibility("hidden")]] extern std::mutex attachment_lock;

// Takes an attached channel off its loop, before the channel or the loop goes. The attachment lock
// is held.
[[gnu::visibility("hidden")]] void detach_locked(qitc_channel& channel) noexcept;
// Takes a channel that is no longer watched off its loop's list. The attachment lock is held.
[[gnu::visibility("hidden")]] void take_off_locked(qitc_channel& channel) noexcept;

// Gives up one pin and frees the channel with the last. The attachment lock is not held.
[[gnu::visibility("hidden")]] void unpin(qitc_channel* channel) noexcept;

// Clears the descriptor of a channel without entries. A reading that failed when the last entry was
// taken would leave it readable, and the loop would find work for ever that is not there.
[[gnu::visibility("hidden")]] void clear_if_empty(qitc_channel& channel) noexcept;

}  // namespace platform

#endif
