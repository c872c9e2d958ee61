// When files that the stream has gone round are looked at: once the window has handled all that was
// sent about them, or at a time.
#pragma once

#include <deque>
#include <set>
#include <utility>

#include "stream/transfer_table.h"
#include "stream/window.h"

namespace pkgdist::lead {

class Agenda {
 public:
  Agenda(TransferTable& table, const Window& window) : table_(table), window_(window) {}

  // At this time and not before, instead of what was set; kNever: at none.
  void arm(Transfer& transfer, Time when) {
    if (transfer.timer != kNever) timers_.erase({transfer.timer, transfer.id});
    transfer.timer = when;
    if (when != kNever) timers_.emplace(when, transfer.id);
  }

  // When all that has been sent until now is handled, and at no time.
  void watch(Transfer& transfer) {
    arm(transfer, kNever);
    transfer.watched = window_.position();
    watched_.push_back({transfer.watched, transfer.id});
  }

  // Null when no file is due.
  Transfer* next_due(Time now) {
    while (is_handled()) {
      const Watched due = watched_.front();
      watched_.pop_front();
      Transfer* const transfer = table_.at(due.id);
      if (transfer == nullptr || transfer->watched != due.position) continue;
      transfer->watched = 0;
      // Not all nodes are polled: the others get as long as answers take.
      if (table_.busy().count() <= Window::kMaxPolled) return transfer;
      arm(*transfer, now + window_.answer_time());
    }
    if (timers_.empty() || timers_.begin()->first > now) return nullptr;
    return table_.at(timers_.begin()->second);
  }

  // 0: at once.
  Time next_deadline() const {
    if (is_handled()) return 0;
    return timers_.empty() ? kNever : timers_.begin()->first;
  }

 private:
  struct Watched {
    uint64_t position = 0;  // of the window, rising
    TransferId id = kNoTransfer;
  };
  bool is_handled() const {
    return !watched_.empty() && watched_.front().position <= window_.handled();
  }

  TransferTable& table_;
  const Window& window_;
  std::set<std::pair<Time, TransferId>> timers_;
  std::deque<Watched> watched_;
};

}  // namespace pkgdist::lead
