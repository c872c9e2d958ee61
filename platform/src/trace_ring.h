// One trace ring: claims slots and publishes records in them (see qtrace_layout.h).
//
// Rule: a record belongs to the thread that put its number and the busy bit into the commit word.
// Each word of the record is stored after that with release order, the commit word last. A reader
// that copied any new word therefore also sees that the commit word has changed.
//
// Threads: any number, without a lock. A writer never waits: it leaves its record out, and counts
// that, when the slot is busy (it was lapped by a whole ring, or a process died in the middle of a
// record) or when a younger record stands there already.
//
// Bad case: the file system is full. A store into a page without space would kill the process, so
// space is taken chunk by chunk before the first store; where it cannot be had, records are left
// out.
#ifndef PLATFORM_SRC_TRACE_RING_H
#define PLATFORM_SRC_TRACE_RING_H

#include <atomic>
#include <cstdint>
#include <cstring>

#include "mapped_file.h"
#include "platform/qtrace_layout.h"

namespace platform {

static_assert(sizeof(qtrace_layout_record) == QTRACE_LAYOUT_RECORD_SIZE);

class TraceRing {
 public:
  static constexpr uint32_t kChunkRecords = 256;  // 64 KiB: one system call per that many records

  static constexpr uint64_t chunks_of(uint32_t records) noexcept {
    return (uint64_t{records} + kChunkRecords - 1) / kChunkRecords;
  }

  TraceRing() = default;
  // `chunk_has_space`: a zeroed byte per chunk.
  TraceRing(qtrace_layout_ring* entry, void* records, uint8_t* chunk_has_space, int fd) noexcept
      : entry_(entry),
        words_(static_cast<uint64_t*>(records)),
        chunk_has_space_(chunk_has_space),
        fd_(fd) {}

  const qtrace_layout_ring& entry() const noexcept { return *entry_; }

  void configure(uint64_t configuration) const noexcept {
    std::atomic_ref<uint64_t>(entry_->configuration)
        .store(configuration, std::memory_order_relaxed);
  }

  // For readers; the bytes are there already.
  void show_catalogue(uint64_t offset, uint64_t size) const noexcept {
    entry_->catalogue_offset = offset;
    std::atomic_ref<uint64_t>(entry_->catalogue_size).store(size, std::memory_order_release);
  }

  bool is_on() const noexcept {
    return (std::atomic_ref<uint64_t>(entry_->configuration).load(std::memory_order_relaxed) &
            kSwitchedOff) == 0;
  }

  // Puts the record, all but its commit word, into the ring.
  void publish(const qtrace_layout_record& record) const noexcept {
    const uint64_t number =
        std::atomic_ref<uint64_t>(entry_->next).fetch_add(1, std::memory_order_relaxed);
    const uint64_t slot = number % entry_->records;
    uint64_t* to = words_ + slot * kRecordWords;
    if (!has_space(slot / kChunkRecords) || !claim(*to, number)) {
      std::atomic_ref<uint64_t>(entry_->lost).fetch_add(1, std::memory_order_relaxed);
      return;
    }
    copy_in(record, to);
    std::atomic_ref<uint64_t>(*to).store(number + 1, std::memory_order_release);
  }

 private:
  static constexpr uint64_t kSwitchedOff = 1;  // in the configuration
  static constexpr uint64_t kRecordWords = sizeof(qtrace_layout_record) / sizeof(uint64_t);

  bool has_space(uint64_t chunk) const noexcept {
    const std::atomic_ref<uint8_t> known(chunk_has_space_[chunk]);
    if (known.load(std::memory_order_acquire) != 0) return true;
    constexpr uint64_t kChunkSize = kChunkRecords * sizeof(qtrace_layout_record);
    if (take_space(fd_, entry_->records_offset + chunk * kChunkSize, kChunkSize) != 0) return false;
    known.store(1, std::memory_order_release);
    return true;
  }

  static bool claim(uint64_t& commit_word, uint64_t number) noexcept {
    const std::atomic_ref<uint64_t> commit(commit_word);
    uint64_t seen = commit.load(std::memory_order_relaxed);
    do {
      if (seen > number) return false;  // a younger record, or busy: the top bit is above them all
    } while (!commit.compare_exchange_weak(seen, QTRACE_LAYOUT_BUSY | (number + 1),
                                           std::memory_order_acquire, std::memory_order_relaxed));
    return true;
  }

  // Copies every word but the first.
  static void copy_in(const qtrace_layout_record& record, uint64_t* to) noexcept {
    uint64_t words[kRecordWords];
    std::memcpy(words, &record, sizeof words);
    for (uint64_t i = 1; i < kRecordWords; ++i) {
      std::atomic_ref<uint64_t>(to[i]).store(words[i], std::memory_order_release);
    }
  }

  qtrace_layout_ring* entry_ = nullptr;
  uint64_t* words_ = nullptr;
  uint8_t* chunk_has_space_ = nullptr;
  int fd_ = -1;
};

}  // namespace platform

#endif
