#include "stream/schedule.h"

namespace pkgdist::lead {

void Schedule::enter(const Transfer& transfer) {
  Files& files = of(transfer);
  files.announcing.push_back(transfer.id);
  ++files.waiting_files;
  files.waiting_bytes += transfer.attributes.size;
}

void Schedule::leave_waiting(const Transfer& transfer) {
  Files& files = of(transfer);
  --files.waiting_files;
  files.waiting_bytes -= transfer.attributes.size;
}

Schedule::Place Schedule::leave(const Transfer& transfer) {
  using Stage = Transfer::Stage;
  Files& files = of(transfer);
  Place place;
  place.waiting = transfer.stage == Stage::kQueued || transfer.stage == Stage::kAnnounced;
  if (place.waiting) leave_waiting(transfer);
  place.announcing = std::erase(files.announcing, transfer.id) != 0;
  const auto line = files.streaming.find(transfer.priority);
  place.streaming = line != files.streaming.end() && std::erase(line->second, transfer.id) != 0;
  return place;
}

void Schedule::come_back(const Transfer& transfer, Place place) {
  Files& files = of(transfer);
  if (place.waiting) {
    ++files.waiting_files;
    files.waiting_bytes += transfer.attributes.size;
  }
  if (place.announcing) files.announcing.push_back(transfer.id);
  if (place.streaming) stream_again(transfer);
}

// The first transfer of a line that still exists.
Transfer* Schedule::head(Line& line) {
  while (!line.empty()) {
    if (Transfer* transfer = table_.at(line.front())) return transfer;
    line.pop_front();
  }
  return nullptr;
}

Transfer* Schedule::next_announcement(Lane lane) {
  Line& line = of(lane).announcing;
  Transfer* const transfer = head(line);
  if (transfer != nullptr) line.pop_front();
  return transfer;
}

void Schedule::announced(const Transfer& transfer, Time now) {
  Files& files = of(transfer);
  files.streaming[transfer.priority].push_back(transfer.id);
  files.due = std::min(files.due, std::max(now, stream_time(transfer)));
}

// When the stream may begin with an announced file.
Time Schedule::stream_time(const Transfer& transfer) const {
  if (transfer.stage != Transfer::Stage::kAnnounced) return 0;
  const Time wait = std::clamp(2 * round_trip_ + kMillisecond, kLeastSkipWait, kMostSkipWait);
  return std::min(std::max(transfer.info_sent, last_skip_) + wait,
                  transfer.info_sent + kMostSkipWait);
}

Transfer* Schedule::streamable(Time now, Lane lane) {
  Files& files = of(lane);
  files.due = kNever;
  for (auto line = files.streaming.begin(); line != files.streaming.end();) {
    Transfer* transfer = head(line->second);
    if (transfer == nullptr) {
      line = files.streaming.erase(line);
      continue;
    }
    const Time due = stream_time(*transfer);
    if (due <= now) {
      files.due = 0;
      return transfer;
    }
    files.due = std::min(files.due, due);
    ++line;
  }
  return nullptr;
}

void Schedule::stream_again(const Transfer& transfer) {
  Files& files = of(transfer);
  files.streaming[transfer.priority].push_front(transfer.id);
  files.due = 0;
}

bool Schedule::empty() const {
  return std::all_of(lanes_.begin(), lanes_.end(), [](const Files& files) {
    return files.announcing.empty() && files.streaming.empty();
  });
}

Time Schedule::next_deadline() const {
  Time deadline = kNever;
  for (const Files& files : lanes_)
    deadline = std::min(deadline, files.announcing.empty() ? files.due : 0);
  return deadline;
}

uint64_t Schedule::segments_ahead() {
  uint64_t segments = 0;
  for (auto& [priority, line] : lanes_[0].streaming)
    if (const Transfer* first = head(line); first != nullptr)
      if (first->stage == Transfer::Stage::kStreaming) segments += first->turn.ahead();
  return segments;
}

}  // namespace pkgdist::lead
