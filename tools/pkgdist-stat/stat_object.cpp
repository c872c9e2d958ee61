#include "stat_object.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <numeric>
#include <optional>

#include "platform/ship.h"
#include "platform/ship_layout.h"
#include "printable.h"

namespace pkgdist::stat {

namespace {

using tools::ObjectFile;

// Far above what any writer makes (256 KiB); what says more is no object of ours.
constexpr uint64_t kLargestObject = 64 * 1024 * 1024;
constexpr uint32_t kCounterStride = 20;
constexpr uint32_t kHistogramStride = kBuckets * sizeof(uint32_t);
constexpr uint32_t kWatermarkStride = 24;

// A copy of the object. The kernel copies in words, so that no value of 32 bits is half old.
class Bytes {
 public:
  explicit Bytes(const ObjectFile& file) : file_(file) {
    const uint64_t size = file.size();
    if (size < sizeof(ship_layout_header))
      file.refuse("truncated: " + std::to_string(size) + " bytes are no statistics object");
    if (size > kLargestObject) file.refuse("too large for a statistics object");
    bytes_.resize(size);
    file.read(0, bytes_.data(), size);
  }

  // The structure or number at an offset.
  template <class Value>
  Value at(uint64_t offset) const {
    require(offset, sizeof(Value));
    Value value;
    std::memcpy(&value, bytes_.data() + offset, sizeof value);
    return value;
  }

  void require(uint64_t offset, uint64_t size) const {
    if (offset > bytes_.size() || size > bytes_.size() - offset)
      file_.refuse("truncated or corrupt: something should stand at byte " +
                   std::to_string(offset) + " of " + std::to_string(bytes_.size()));
  }

  uint64_t size() const { return bytes_.size(); }
  const ObjectFile& file() const { return file_; }

 private:
  const ObjectFile& file_;
  std::vector<char> bytes_;
};

template <size_t Size>
std::string text_of(const char (&text)[Size]) {
  std::string result(text, strnlen(text, Size));
  result.erase(result.find_last_not_of(' ') + 1);
  return cli::printable(result);
}

struct Shape {
  Kind kind;
  uint32_t stride;
};

std::optional<Shape> shape_of(uint32_t kind) {
  switch (kind) {
    case SHIP_KIND_TRANSPORT_COUNTERS:
    case SHIP_KIND_SERVER_COUNTERS:
      return Shape{Kind::kCounters, kCounterStride};
    case SHIP_KIND_HISTOGRAMS:
      return Shape{Kind::kHistograms, kHistogramStride};
    case SHIP_KIND_WATERMARKS:
      return Shape{Kind::kWatermarks, kWatermarkStride};
    default:
      return {};
  }
}

Entry read_entry(const Bytes& bytes, Kind kind, uint64_t label_at, uint64_t value_at,
                 uint64_t stamp_offset) {
  Entry entry;
  entry.label = text_of(bytes.at<ship_layout_entry>(label_at).name);
  if (kind == Kind::kCounters) entry.count = bytes.at<uint32_t>(value_at);
  if (kind == Kind::kHistograms) entry.buckets = bytes.at<std::array<uint32_t, kBuckets>>(value_at);
  if (kind != Kind::kWatermarks) return entry;
  constexpr uint64_t kMarkAt = 4, kStampAt = 16;
  entry.current = bytes.at<uint32_t>(value_at);
  entry.mark = bytes.at<uint32_t>(value_at + kMarkAt);
  const auto stamp = bytes.at<uint64_t>(value_at + kStampAt);
  if (stamp != 0) entry.mark_realtime_ns = stamp + stamp_offset;
  return entry;
}

Table read_table(const Bytes& bytes, const ship_layout_table& found, uint64_t stamp_offset) {
  Table table;
  table.application = text_of(found.application);
  table.name = text_of(found.table);
  const auto shape = shape_of(found.kind);
  if (!shape || found.value_stride != shape->stride)
    bytes.file().refuse("corrupt: table '" + table.name + "' is of no known kind");
  table.kind = shape->kind;
  bytes.require(found.entries_offset, uint64_t{found.count} * sizeof(ship_layout_entry));
  bytes.require(found.values_offset, uint64_t{found.count} * shape->stride);
  for (uint64_t i = 0; i < found.count; ++i)
    table.entries.push_back(read_entry(bytes, table.kind,
                                       found.entries_offset + i * sizeof(ship_layout_entry),
                                       found.values_offset + i * shape->stride, stamp_offset));
  return table;
}

void check_header(const ObjectFile& file, const ship_layout_header& header) {
  if (header.magic == 0) file.refuse("not ready, or not a statistics object");
  if (header.magic != SHIP_LAYOUT_MAGIC) file.refuse("not a statistics object");
  if (header.version != SHIP_LAYOUT_VERSION)
    file.refuse("a statistics object of version " + std::to_string(header.version) +
                "; this program reads version " + std::to_string(SHIP_LAYOUT_VERSION));
  if (header.table_stride < sizeof(ship_layout_table) || header.table_count > header.table_capacity)
    file.refuse("corrupt: its directory of tables is none");
}

}  // namespace

uint64_t Entry::total() const {
  return std::accumulate(buckets.begin(), buckets.end(), uint64_t{0});
}

bool Entry::unused() const {
  return count == 0 && total() == 0 && current == 0 && mark == 0;
}

Statistics read_statistics(const ObjectFile& file, uint64_t stamp_offset) {
  const Bytes bytes(file);
  const auto header = bytes.at<ship_layout_header>(0);
  check_header(file, header);
  if (header.object_size > bytes.size())
    file.refuse("truncated: " + std::to_string(bytes.size()) + " of " +
                std::to_string(header.object_size) + " bytes are there");
  Statistics statistics;
  statistics.pid = static_cast<pid_t>(header.pid);
  statistics.created_ns = header.created_ns;
  // In one piece, so that the multiplication below cannot overflow.
  bytes.require(header.table_offset, uint64_t{header.table_count} * header.table_stride);
  uint64_t entries = 0;
  for (uint64_t i = 0; i < header.table_count; ++i) {
    const auto found = bytes.at<ship_layout_table>(header.table_offset + i * header.table_stride);
    entries += found.count;  // tables that lie on each other would be read again and again
    if (entries > bytes.size() / sizeof(ship_layout_entry))
      file.refuse("corrupt: too many entries");
    statistics.process = text_of(found.process);
    statistics.tables.push_back(read_table(bytes, found, stamp_offset));
  }
  return statistics;
}

Statistics read_statistics_of(const tools::FoundObject& found) {
  const ObjectFile file(found.path);
  Statistics statistics = read_statistics(file, stamp_offset_ns());
  if (statistics.pid != found.pid)
    file.refuse("corrupt: it says that it is of process " + std::to_string(statistics.pid));
  statistics.running =
      tools::owner_runs(found.pid, found.path, file.inode(), statistics.created_ns);
  return statistics;
}

uint64_t stamp_offset_ns() {
  constexpr int64_t kWholeNsPerSecond = 1'000'000'000;
  const auto now = [](clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * kWholeNsPerSecond + time.tv_nsec;
  };
  return static_cast<uint64_t>(now(CLOCK_REALTIME) - now(CLOCK_MONOTONIC));
}

}  // namespace pkgdist::stat
