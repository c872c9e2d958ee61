// Reads a trace file back by its layout alone, the way a program outside the process does.
#ifndef TESTS_UNIT_PLATFORM_TRACE_READER_H
#define TESTS_UNIT_PLATFORM_TRACE_READER_H

#include <atomic>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "mapping.h"
#include "platform/qtrace_layout.h"

// One argument as text: "s:abc", "d:5", "D:6".
inline std::vector<std::string> arguments_of(const qtrace_layout_record& record) {
  std::vector<std::string> arguments;
  const char* at = record.payload;
  const char* end = record.payload + record.payload_size;
  while (at < end) {
    const char type = *at++;
    uint16_t length = 0;
    uint32_t narrow = 0;
    uint64_t wide = 0;
    std::string value = "?";
    if (type == 's') {
      std::memcpy(&length, at, sizeof length);
      value.assign(at + sizeof length, length);
      at += sizeof length + length;
    } else if (type == 'd') {
      std::memcpy(&narrow, at, sizeof narrow);
      value = std::to_string(narrow);
      at += sizeof narrow;
    } else if (type == 'D') {
      std::memcpy(&wide, at, sizeof wide);
      value = std::to_string(wide);
      at += sizeof wide;
    } else {
      return {"broken payload"};
    }
    arguments.push_back(std::string(1, type) + ":" + value);
  }
  return arguments;
}

class TraceReader {
 public:
  TraceReader(const std::string& directory, pid_t pid)
      : file_(Mapping::of_file(directory + "/" QTRACE_LAYOUT_FILE_PREFIX + std::to_string(pid))) {}

  explicit operator bool() const { return static_cast<bool>(file_); }
  const qtrace_layout_header& header() const { return *file_.at<qtrace_layout_header>(0); }
  const Mapping& file() const { return file_; }

  const qtrace_layout_ring* ring(const std::string& name) const {
    for (uint32_t i = 0; i < header().ring_count; ++i) {
      const auto* ring =
          file_.at<qtrace_layout_ring>(header().ring_offset + uint64_t{i} * header().ring_stride);
      if (name == ring->name) return ring;
    }
    return nullptr;
  }

  const qtrace_layout_record* slot(const qtrace_layout_ring& ring, uint64_t number) const {
    return file_.at<qtrace_layout_record>(ring.records_offset +
                                          number % ring.records * header().record_size);
  }

  // Record `number`, unless it is not there or not whole.
  std::optional<qtrace_layout_record> record(const qtrace_layout_ring& ring,
                                             uint64_t number) const {
    // The mapping is read-only; atomic_ref only asks for a type without const.
    auto* words =
        reinterpret_cast<uint64_t*>(const_cast<qtrace_layout_record*>(slot(ring, number)));
    uint64_t copy[sizeof(qtrace_layout_record) / sizeof(uint64_t)];
    const std::atomic_ref<uint64_t> commit(words[0]);
    if (commit.load(std::memory_order_acquire) != number + 1) return std::nullopt;
    copy[0] = number + 1;
    for (size_t i = 1; i < std::size(copy); ++i) {
      copy[i] = std::atomic_ref<uint64_t>(words[i]).load(std::memory_order_acquire);
    }
    if (commit.load(std::memory_order_relaxed) != number + 1) return std::nullopt;
    qtrace_layout_record whole;
    std::memcpy(&whole, copy, sizeof whole);
    return whole;
  }

 private:
  Mapping file_;
};

#endif
