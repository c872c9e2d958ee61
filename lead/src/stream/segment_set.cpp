#include "stream/segment_set.h"

#include <algorithm>
#include <bit>

namespace pkgdist::lead {

namespace {

constexpr uint32_t kBits = 64;

uint64_t bit(uint32_t segment) {
  return uint64_t{1} << (segment % kBits);
}

// The bits of word `index` that lie in [first, end).
uint64_t mask_of(size_t index, uint64_t first, uint64_t end) {
  const uint64_t base = uint64_t{index} * kBits;
  uint64_t mask = ~uint64_t{0};
  if (first > base) mask &= ~uint64_t{0} << (first - base);
  if (end < base + kBits) mask &= ~(~uint64_t{0} << (end - base));
  return mask;
}

}  // namespace

void SegmentSet::allocate() {
  if (words_.empty()) words_.resize((uint64_t{size_} + kBits - 1) / kBits);
}

bool SegmentSet::contains(uint32_t segment) const {
  return segment < size_ && (word(segment / kBits) & bit(segment)) != 0;
}

void SegmentSet::insert(uint32_t segment) {
  if (segment >= size_ || contains(segment)) return;
  allocate();
  words_[segment / kBits] |= bit(segment);
  ++count_;
}

void SegmentSet::erase(uint32_t segment) {
  if (!contains(segment)) return;
  words_[segment / kBits] &= ~bit(segment);
  --count_;
}

void SegmentSet::clear() {
  if (count_ != 0) std::fill(words_.begin(), words_.end(), 0);
  count_ = 0;
}

uint32_t SegmentSet::insert_run(uint32_t first, uint32_t num,
                                std::initializer_list<const SegmentSet*> except) {
  if (num == 0 || first >= size_) return 0;
  allocate();
  const uint64_t end = std::min(uint64_t{first} + num, uint64_t{size_});
  uint32_t added = 0;
  for (size_t i = first / kBits; uint64_t{i} * kBits < end; ++i) {
    uint64_t fresh = mask_of(i, first, end) & ~words_[i];
    for (const SegmentSet* other : except) fresh &= ~other->word(i);
    words_[i] |= fresh;
    added += static_cast<uint32_t>(std::popcount(fresh));
  }
  count_ += added;
  return added;
}

uint32_t SegmentSet::find_between(uint32_t from, uint32_t end) const {
  for (size_t i = from / kBits; uint64_t{i} * kBits < end; ++i) {
    const uint64_t found = words_[i] & mask_of(i, from, end);
    if (found != 0)
      return static_cast<uint32_t>(i * kBits + static_cast<unsigned>(std::countr_zero(found)));
  }
  return size_;
}

uint32_t SegmentSet::next(uint32_t from) const {
  if (count_ == 0) return size_;
  if (from >= size_) from = 0;
  const uint32_t ahead = find_between(from, size_);
  return ahead < size_ ? ahead : find_between(0, from);
}

}  // namespace pkgdist::lead
