#include "batch_log.h"

#include <algorithm>

namespace pkgdist::lead {

// Never the first of a batch, where a node might begin with it, and never the last of the file, by
// which nodes notice that something before it is lacking.
std::optional<uint32_t> BatchLog::forerunner(uint32_t place) const {
  const uint64_t segment = uint64_t{place} + kAhead;
  if (segment % kSpacing != 0 || segment + 1 >= segments_) return std::nullopt;
  return static_cast<uint32_t>(segment);
}

bool BatchLog::part_begins(const Batch& batch, uint32_t at) const {
  return at == batch.first || was_sent_ahead(at - 1);
}

bool BatchLog::part_ends(const Batch& batch, uint32_t end) const {
  return end == batch.end || was_sent_ahead(end);
}

std::vector<BatchLog::Batch> BatchLog::batches_in(uint32_t first, uint32_t end,
                                                  uint32_t sent) const {
  std::vector<Batch> result;
  auto start = std::upper_bound(starts_.begin(), starts_.end(), first);
  if (start != starts_.begin()) --start;
  for (; start != starts_.end() && *start < std::min(end, sent); ++start) {
    const auto next = start + 1;
    result.push_back({*start, next != starts_.end() ? *next : sent});
  }
  return result;
}

bool BatchLog::made_of_parts(uint32_t first, uint32_t num, uint32_t sent) const {
  if (num > kMaxGap) return false;
  const std::vector<Batch> batches = batches_in(first, first + num, sent);
  return !batches.empty() && first >= batches.front().first &&
         part_begins(batches.front(), first) && part_ends(batches.back(), first + num);
}

std::vector<BatchLog::Batch> BatchLog::lost(uint32_t first, uint32_t num, uint32_t sent) const {
  if (num > kMaxGap) return {};
  std::vector<Batch> batches = batches_in(first, first + num, sent);
  std::erase_if(batches, [&](const Batch& batch) {
    const uint32_t from = std::max(first, batch.first);
    const uint32_t end = std::min(first + num, batch.end);
    return !part_begins(batch, from) || !part_ends(batch, end);
  });
  return batches;
}

std::vector<uint32_t> BatchLog::segments_of(const Batch& batch) const {
  std::vector<uint32_t> result;
  for (uint32_t place = batch.first; place < batch.end; ++place) {
    if (!was_sent_ahead(place)) result.push_back(place);
    const std::optional<uint32_t> ahead = forerunner(place);
    if (ahead && was_sent_ahead(*ahead)) result.push_back(*ahead);
  }
  return result;
}

std::vector<uint32_t> BatchLog::ahead_of(const Batch& batch, uint32_t first, uint32_t num) const {
  std::vector<uint32_t> result;
  const uint32_t end = std::min(first + num, batch.end);
  for (uint32_t place = std::max(first, batch.first); place < end; ++place)
    if (was_sent_ahead(place)) result.push_back(place);
  return result;
}

}  // namespace pkgdist::lead
