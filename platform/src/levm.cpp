// Event loop: waits in epoll for the descriptors of its channels, then runs handlers by priority.
//
// Rule: epoll only says that there is work. Which handlers run, and in which order, is read from
// the loop's own list, sorted by priority and then by age of the attachment. A pass walks it with a
// cursor; whoever detaches the channel under the cursor moves the cursor on. So a pass holds no
// pointer that a handler could make stale, needs no memory, and cannot meet a channel twice: an
// attachment made during the pass is younger than its limit and waits for the next one.
//
// Threads: one runs the loop; any may attach, detach, destroy channels and stop. The channel whose
// handler runs is pinned, so that a destroy by another thread takes its memory only afterwards.
//
// Bad cases: a signal interrupts the wait (it goes on for the time that is left); another thread
// takes the last entry between wait and pass (nothing runs, the wait goes on); a descriptor is
// readable without entries behind it because it could not be read (it is cleared after a pass that
// ran nothing).
#include "platform/levm.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "channel.h"
#include "platform/fts.h"

struct levm {
  platform::UniqueFd epoll;
  platform::UniqueFd stop;  // readable while a stop is pending

  // Guarded by attachment_lock.
  qitc_channel* first = nullptr;
  qitc_channel* cursor = nullptr;  // the next channel that the pass looks at
  uint64_t last_serial = 0;
};

namespace {

// What is left of a time-out in milliseconds, -1 for no limit.
class Deadline {
 public:
  explicit Deadline(int timeout_ms) noexcept
      : timeout_ms_(timeout_ms), end_ns_(timeout_ms > 0 ? after(timeout_ms) : 0) {}

  int remaining_ms() const noexcept {
    if (timeout_ms_ <= 0) return std::max(timeout_ms_, -1);
    const uint64_t now = fts_get_stamp_fast();
    if (now >= end_ns_) return 0;
    // Never more than was asked for, whatever the clock says.
    const uint64_t left = (end_ns_ - now + kNsPerMs - 1) / kNsPerMs;
    return static_cast<int>(std::min(left, static_cast<uint64_t>(timeout_ms_)));
  }

 private:
  static constexpr uint64_t kNsPerMs = 1000000;

  static uint64_t after(int timeout_ms) noexcept {
    return fts_get_stamp_fast() + static_cast<uint64_t>(timeout_ms) * kNsPerMs;
  }

  int timeout_ms_;
  uint64_t end_ns_;
};

bool watch(const levm& loop, int fd) noexcept {
  epoll_event event{};
  event.events = EPOLLIN;
  return epoll_ctl(loop.epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

bool unwatch(const levm& loop, int fd) noexcept {
  epoll_event unused{};
  return epoll_ctl(loop.epoll.get(), EPOLL_CTL_DEL, fd, &unused) == 0;
}

// True when a stop was pending; it is used up by that.
bool take_stop(const levm& loop) noexcept {
  uint64_t count = 0;
  return read(loop.stop.get(), &count, sizeof count) == static_cast<ssize_t>(sizeof count);
}

// 1: something is readable, 0: time-out, -1: errno.
int wait_readable(const levm& loop, const Deadline& deadline) noexcept {
  for (;;) {
    epoll_event event{};
    const int ready = epoll_wait(loop.epoll.get(), &event, 1, deadline.remaining_ms());
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

// Links the channel behind all that are at least as urgent.
void insert_sorted(levm& loop, qitc_channel& channel) noexcept {
  qitc_channel* before = nullptr;
  qitc_channel* behind = loop.first;
  while (behind != nullptr && behind->priority <= channel.priority) {
    before = behind;
    behind = behind->next;
  }
  channel.previous = before;
  channel.next = behind;
  (before != nullptr ? before->next : loop.first) = &channel;
  if (behind != nullptr) behind->previous = &channel;
}

int attach(levm& loop, qitc_channel& channel, qitc_handler_t handler, int priority) noexcept {
  const std::scoped_lock guard(platform::attachment_lock);
  if (channel.destroyed) return EINVAL;
  if (channel.loop != nullptr) return EEXIST;
  if (!watch(loop, channel.event.get())) return errno;
  channel.loop = &loop;
  channel.handler = handler;
  channel.priority = priority;
  channel.serial = ++loop.last_serial;
  insert_sorted(loop, channel);
  return 0;
}

int detach(const levm& loop, qitc_channel& channel) noexcept {
  const std::scoped_lock guard(platform::attachment_lock);
  if (channel.loop != &loop) return ENOENT;
  // While it is watched it stays attached: readable, and nobody's, it would keep the loop busy.
  if (!unwatch(loop, channel.event.get())) return errno;
  platform::take_off_locked(channel);
  return 0;
}

struct Runnable {
  qitc_channel* channel = nullptr;  // pinned
  qitc_handler_t handler = nullptr;
};

// One walk over the loop's list: each handler whose channel holds entries, once.
class Pass {
 public:
  explicit Pass(levm& loop) noexcept : loop_(loop) {
    const std::scoped_lock guard(platform::attachment_lock);
    loop_.cursor = loop_.first;
    youngest_ = loop_.last_serial;
  }

  // Runs what is ready, or up to the handler during which a stop came.
  void run() noexcept {
    for (Runnable next = pin_next(); next.channel != nullptr; next = pin_next()) {
      next.handler(next.channel);
      platform::unpin(next.channel);
      ++ran_;
      stopped_ = take_stop(loop_);
      if (stopped_) return;
    }
  }

  int ran() const noexcept { return ran_; }
  bool stopped() const noexcept { return stopped_; }

 private:
  Runnable pin_next() noexcept {
    const std::scoped_lock guard(platform::attachment_lock);
    while (loop_.cursor != nullptr) {
      qitc_channel* channel = loop_.cursor;
      loop_.cursor = channel->next;
      if (channel->serial > youngest_) continue;
      if (channel->waiting.load(std::memory_order_acquire) == 0) continue;
      ++channel->pins;
      return {channel, channel->handler};
    }
    return {};
  }

  levm& loop_;
  uint64_t youngest_ = 0;
  int ran_ = 0;
  bool stopped_ = false;
};

// After a pass that found nothing to run.
void clear_idle_channels(const levm& loop) noexcept {
  const std::scoped_lock guard(platform::attachment_lock);
  for (qitc_channel* at = loop.first; at != nullptr; at = at->next) platform::clear_if_empty(*at);
}

}  // namespace

namespace platform {

void detach_locked(qitc_channel& channel) noexcept {
  // One of the two descriptors is closed right after this, which ends the watch as well.
  (void)unwatch(*channel.loop, channel.event.get());
  take_off_locked(channel);
}

void take_off_locked(qitc_channel& channel) noexcept {
  levm& loop = *channel.loop;
  if (loop.cursor == &channel) loop.cursor = channel.next;
  (channel.previous != nullptr ? channel.previous->next : loop.first) = channel.next;
  if (channel.next != nullptr) channel.next->previous = channel.previous;
  channel.loop = nullptr;
}

}  // namespace platform

levm_handle_t levm_create(void) {
  std::unique_ptr<levm> loop(new (std::nothrow) levm);
  if (!loop) {
    errno = ENOMEM;
    return nullptr;
  }
  loop->epoll.reset(epoll_create1(EPOLL_CLOEXEC));
  if (!loop->epoll) return nullptr;
  loop->stop.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!loop->stop || !watch(*loop, loop->stop.get())) return nullptr;
  return loop.release();
}

void levm_destroy(levm_handle_t levm) {
  if (levm == nullptr) return;
  {
    const std::scoped_lock guard(platform::attachment_lock);
    while (levm->first != nullptr) platform::detach_locked(*levm->first);
  }
  delete levm;
}

int levm_run_once(levm_handle_t levm, int timeout_ms) {
  if (levm == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const Deadline deadline(timeout_ms);
  for (;;) {
    const int ready = wait_readable(*levm, deadline);
    if (ready <= 0) return ready;
    if (take_stop(*levm)) return 0;
    Pass pass(*levm);
    pass.run();
    if (pass.ran() > 0) return pass.ran();
    clear_idle_channels(*levm);
  }
}

int levm_run(levm_handle_t levm) {
  if (levm == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const Deadline never(-1);
  for (;;) {
    if (wait_readable(*levm, never) < 0) return -1;
    if (take_stop(*levm)) return 0;
    Pass pass(*levm);
    pass.run();
    if (pass.stopped()) return 0;
    if (pass.ran() == 0) clear_idle_channels(*levm);
  }
}

void levm_stop(levm_handle_t levm) {
  if (levm == nullptr) return;
  const int saved = errno;
  const uint64_t one = 1;
  // A full counter is a stop that is already pending.
  [[maybe_unused]] const ssize_t wrote = write(levm->stop.get(), &one, sizeof one);
  errno = saved;
}

int levm_fd(levm_handle_t levm) {
  return levm == nullptr ? -1 : levm->epoll.get();
}

int levm_attach_qitc_handle(levm_handle_t levm, qitc_handle_t channel, qitc_handler_t handler,
                            int priority, int, int, int) {
  if (levm == nullptr || channel == nullptr) return EINVAL;
  if (handler == nullptr) return detach(*levm, *channel);
  return attach(*levm, *channel, handler, priority);
}
