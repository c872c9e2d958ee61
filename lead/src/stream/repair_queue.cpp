#include "stream/repair_queue.h"

#include <utility>

namespace pkgdist::lead {

void RepairQueue::rotate(Time now) {
  const Time passed = elapsed(now, rotated_);
  if (passed < holdoff_) return;
  std::swap(recent_, older_);
  recent_.clear();
  if (passed >= 2 * holdoff_) older_.clear();
  rotated_ = now;
}

uint32_t RepairQueue::request(uint32_t first, uint32_t num, Time now) {
  rotate(now);
  if (elapsed(now, requested_) >= std::max(kRequestPause, 2 * holdoff_)) forget_asked();
  if (due_.empty()) gathered_since_ = now;
  requested_ = now;
  asked_.insert_run(first, num);
  return due_.insert_run(first, num, {&recent_, &older_});
}

uint64_t RepairQueue::parts_of(uint32_t first, uint32_t num) const {
  uint64_t parts = 0;
  for (uint32_t at = first; at < first + num; at += part_segments()) parts |= part_of(at);
  return parts | part_of(first + num - 1);
}

template <class Act>
void RepairQueue::each_asked(uint64_t parts, Act&& act) const {
  uint32_t segment = 0;
  for (uint32_t left = asked_.count(); left != 0; --left, ++segment) {
    segment = asked_.next(segment);
    if ((part_of(segment) & parts) != 0) act(segment);
  }
}

uint32_t RepairQueue::asked(uint64_t parts) const {
  uint32_t count = 0;
  each_asked(parts, [&](uint32_t) { ++count; });
  return count;
}

void RepairQueue::repeat_asked(uint64_t parts) {
  each_asked(parts, [&](uint32_t segment) { due_.insert(segment); });
}

uint32_t RepairQueue::take(Time now) {
  rotate(now);
  const uint32_t segment = due_.next(cursor_);
  due_.erase(segment);
  recent_.insert(segment);
  cursor_ = segment + 1;
  return segment;
}

}  // namespace pkgdist::lead
