// A tally: statistics that one thread gathers and adds as amounts.
//
// An addition to a counter holds a mutex that all threads share. Who counts the same thing for
// every datagram of a batch writes it down here, and flush() makes one addition of each word.
//
// Rule: flushed before others can notice that what was counted has happened: before the work goes
// to another thread, before a callback is queued, before anything is sent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "pkgdist_stats.h"

namespace pkgdist {

class Tally {
 public:
  Tally() = default;
  ~Tally() { flush(); }
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;

  // As the functions of the same names; nothing is counted while the table has no handle.
  template <class Counter>
  void count(Counter counter, uint32_t amount = 1) {
    if (void* block = block_of(counter); block != nullptr)
      add(counter_word(block, static_cast<uint32_t>(counter)), amount);
  }
  template <class Histogram>
  void record(Histogram histogram, uint64_t elapsed_ns, uint32_t amount = 1) {
    if (void* block = block_of(histogram); block != nullptr)
      add(bucket_word(block, static_cast<uint32_t>(histogram), elapsed_ns), amount);
  }

  void flush() {
    for (size_t i = 0; i < used_; ++i) counter_add(sums_[i].word, sums_[i].amount);
    used_ = 0;
  }

 private:
  // Different words between two flushes; one more flushes by itself.
  static constexpr size_t kWords = 8;

  struct Sum {
    uint32_t* word;
    uint32_t amount;
  };

  void add(uint32_t* word, uint32_t amount) {
    if (amount == 0) return;
    for (size_t i = 0; i < used_; ++i) {
      if (sums_[i].word != word) continue;
      sums_[i].amount += amount;
      return;
    }
    if (used_ == kWords) flush();
    sums_[used_++] = {word, amount};
  }

  std::array<Sum, kWords> sums_{};
  size_t used_ = 0;
};

}  // namespace pkgdist
