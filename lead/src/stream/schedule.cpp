#include "stream/schedule.h"

namespace pkgdist::lead {

namespace {

void count(size_t& files, uint64_t& bytes, const Transfer& transfer, bool more) {
  const uint64_t size = transfer.attributes.size;
  files = more ? files + 1 : files - 1;
  bytes = more ? bytes + size : bytes - size;
}

}  // namespace

void Schedule::count_waiting(const Transfer& transfer, bool more) {
  Files& files = of(transfer);
  count(files.waiting_files, files.waiting_bytes, transfer, more);
  if (transfer.stage == Transfer::Stage::kAnnounced)
    count(files.announced_files, files.announced_bytes, transfer, more);
}

void Schedule::enter(const Transfer& transfer) {
  of(transfer).announcing.push_back(transfer.id);
  count_waiting(transfer, true);
}

void Schedule::leave_waiting(const Transfer& transfer) {
  count_waiting(transfer, false);
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
  if (place.waiting) count_waiting(transfer, true);
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

// When the lane's next file may be announced, long ago for at once; kNever when there is none.
Time Schedule::announcement_due(Lane lane) const {
  const Files& files = lanes_[static_cast<size_t>(lane)];
  if (files.announcing.empty()) return kNever;
  const Transfer* const next = table_.at(files.announcing.front());
  const double ahead = rate_ * (files.filling ? kAheadSeconds : kLeastAheadSeconds);
  const bool near = files.announced_files < (skipping_ ? kLeastAheadOfSkips : kLeastAhead) ||
                    static_cast<double>(files.announced_bytes) < ahead;
  if (next == nullptr || near || lane == Lane::kRequests) return 0;
  return next->started + kMostHeldBack;
}

Transfer* Schedule::next_announcement(Time now, Lane lane) {
  Files& files = of(lane);
  files.filling = announcement_due(lane) <= now;
  if (!files.filling) return nullptr;
  Line& line = files.announcing;
  Transfer* const transfer = head(line);
  if (transfer != nullptr) line.pop_front();
  return transfer;
}

void Schedule::announced(const Transfer& transfer, Time now) {
  Files& files = of(transfer);
  files.streaming[transfer.priority].push_back(transfer.id);
  count(files.announced_files, files.announced_bytes, transfer, true);
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
      skipping_ &= transfer->stage != Transfer::Stage::kAnnounced;
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
  for (const Lane lane : {Lane::kPush, Lane::kRequests})
    deadline = std::min({deadline, announcement_due(lane), lanes_[static_cast<size_t>(lane)].due});
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
