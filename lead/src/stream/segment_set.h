// A set of segment numbers of one file: a bitmap that is only allocated once it holds something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace pkgdist::lead {

class SegmentSet {
 public:
  explicit SegmentSet(uint32_t size = 0) : size_(size) {}

  uint32_t size() const { return size_; }
  uint32_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool contains(uint32_t segment) const;

  void insert(uint32_t segment);
  void erase(uint32_t segment);
  void clear();

  // Adds first .. first+num-1 (which must lie inside the file) but for the members of other sets;
  // returns how many were new. Word by word: cheap for runs of any length.
  uint32_t insert_run(uint32_t first, uint32_t num,
                      std::initializer_list<const SegmentSet*> except = {});

  // The first member at or after `from`, going round; size() when the set is empty.
  uint32_t next(uint32_t from) const;

 private:
  uint64_t word(size_t index) const { return words_.empty() ? 0 : words_[index]; }
  void allocate();
  uint32_t find_between(uint32_t from, uint32_t end) const;

  uint32_t size_;
  uint32_t count_ = 0;
  std::vector<uint64_t> words_;
};

}  // namespace pkgdist::lead
