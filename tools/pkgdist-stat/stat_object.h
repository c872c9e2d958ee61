// Reads the statistics of a process from its shared-memory object (platform/ship_layout.h), or says
// why it is none. Nothing that stands in the object is trusted: every offset and size is checked
// against the object before it is used.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "process_object.h"

namespace pkgdist::stat {

inline constexpr double kNsPerSecond = 1e9;

inline constexpr size_t kBuckets = 8;
// Bucket i of a histogram holds times below kBucketEndsNs[i]; the last has no end.
inline constexpr std::array<uint64_t, kBuckets - 1> kBucketEndsNs = {
    10'000, 100'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000, 10'000'000'000};

inline constexpr std::array<const char*, kBuckets> kBucketNames = {
    "< 10 us", "< 100 us", "< 1 ms", "< 10 ms", "< 100 ms", "< 1 s", "< 10 s", ">= 10 s"};

enum class Kind { kCounters, kHistograms, kWatermarks };

struct Entry {
  std::string label;                            // without the blanks behind it
  uint32_t count = 0;                           // counters
  std::array<uint32_t, kBuckets> buckets = {};  // histograms
  uint32_t current = 0, mark = 0;               // watermarks
  uint64_t mark_realtime_ns = 0;                // when the mark moved last; 0: never

  uint64_t total() const;  // of the buckets
  bool unused() const;     // everything is 0
};

struct Table {
  std::string application;
  std::string name;
  Kind kind = Kind::kCounters;
  std::vector<Entry> entries;
};

struct Statistics {
  pid_t pid = 0;
  std::string process;  // its name
  uint64_t created_ns = 0;
  bool running = false;  // now; an object stays behind when its process is killed
  std::vector<Table> tables;
};

// `created_ns`, pid and the tables. Throws tools::BadObject with a text for people.
// `stamp_offset_ns` is what the wall clock is ahead of the monotonic clock.
Statistics read_statistics(const tools::ObjectFile& file, uint64_t stamp_offset_ns);

// The same for the object of a process, with whether it runs.
Statistics read_statistics_of(const tools::FoundObject& found);

// What the wall clock is ahead of the monotonic clock now.
uint64_t stamp_offset_ns();

}  // namespace pkgdist::stat
