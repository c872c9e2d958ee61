#include "repair_queue.h"

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
  asked_.insert_run(first, num);
  if (!patient_) return due_.insert_run(first, num, {&recent_, &older_});
  if (fresh_.empty() && waiting_.empty()) ripened_ = now;
  last_request_ = now;
  return fresh_.insert_run(first, num, {&waiting_, &due_, &recent_, &older_});
}

bool RepairQueue::ripen(Time now) {
  if (fresh_.empty() && waiting_.empty()) return false;
  if (elapsed(now, last_request_) >= kQuiet) {
    end_waiting();
  } else if (elapsed(now, ripened_) >= kMaxWait) {
    due_.insert_all(waiting_);
    waiting_.clear();
    std::swap(fresh_, waiting_);
    ripened_ = now;
  }
  return !due_.empty();
}

void RepairQueue::end_waiting() {
  due_.insert_all(waiting_);
  due_.insert_all(fresh_);
  waiting_.clear();
  fresh_.clear();
}

uint32_t RepairQueue::take(Time now) {
  rotate(now);
  const bool again = due_.empty();
  SegmentSet& from = again ? echo_ : due_;
  const uint32_t segment = from.next(cursor_);
  from.erase(segment);
  recent_.insert(segment);
  if (echoing_ && !again && !once_.contains(segment)) echo_.insert(segment);
  once_.erase(segment);
  cursor_ = segment + 1;
  return segment;
}

}  // namespace pkgdist::lead
