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
  requested_ = now;
  asked_.insert_run(first, num);
  return due_.insert_run(first, num, {&recent_, &older_});
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
