#include "stream/schedule.h"

namespace pkgdist::lead {

void Schedule::enter(const Transfer& transfer) {
  announcing_.push_back(transfer.id);
  ++waiting_files_;
  waiting_bytes_ += transfer.attributes.size;
}

void Schedule::leave_waiting(const Transfer& transfer) {
  --waiting_files_;
  waiting_bytes_ -= transfer.attributes.size;
}

// The first transfer of a line that still exists.
Transfer* Schedule::head(Line& line) {
  while (!line.empty()) {
    if (Transfer* transfer = table_.at(line.front())) return transfer;
    line.pop_front();
  }
  return nullptr;
}

Transfer* Schedule::next_announcement() {
  Transfer* const transfer = head(announcing_);
  if (transfer != nullptr) announcing_.pop_front();
  return transfer;
}

void Schedule::announced(const Transfer& transfer, Time now) {
  streaming_[transfer.priority].push_back(transfer.id);
  due_ = std::min(due_, std::max(now, stream_time(transfer)));
}

// When the stream may begin with an announced file.
Time Schedule::stream_time(const Transfer& transfer) const {
  if (transfer.stage != Transfer::Stage::kAnnounced) return 0;
  const Time wait = std::clamp(2 * round_trip_ + kMillisecond, kLeastSkipWait, kMostSkipWait);
  return std::min(std::max(transfer.info_sent, last_skip_) + wait,
                  transfer.info_sent + kMostSkipWait);
}

Transfer* Schedule::streamable(Time now) {
  due_ = kNever;
  for (auto line = streaming_.begin(); line != streaming_.end();) {
    Transfer* transfer = head(line->second);
    if (transfer == nullptr) {
      line = streaming_.erase(line);
      continue;
    }
    const Time due = stream_time(*transfer);
    if (due <= now) {
      due_ = 0;
      return transfer;
    }
    due_ = std::min(due_, due);
    ++line;
  }
  return nullptr;
}

void Schedule::stream_again(const Transfer& transfer) {
  streaming_[transfer.priority].push_front(transfer.id);
  due_ = 0;
}

uint64_t Schedule::segments_ahead() {
  uint64_t segments = 0;
  for (auto& [priority, line] : streaming_)
    if (const Transfer* first = head(line); first != nullptr)
      if (first->stage == Transfer::Stage::kStreaming) segments += first->turn.ahead();
  return segments;
}

}  // namespace pkgdist::lead
