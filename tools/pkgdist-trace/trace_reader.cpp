#include "trace_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "printable.h"

namespace pkgdist::trace {

namespace {

using tools::ObjectFile;

constexpr size_t kBatch = 256;  // slots that are read at once
constexpr uint64_t kLargestCatalogue = 16 * 1024 * 1024;
constexpr uint32_t kMostRings = 1024;

template <class Value>
Value read_value(const ObjectFile& file, uint64_t offset) {
  Value value;
  file.read(offset, &value, sizeof value);
  return value;
}

template <size_t Size>
std::string text_of(const char (&text)[Size]) {
  return cli::printable(std::string(text, strnlen(text, Size)));
}

void check_header(const ObjectFile& file, const qtrace_layout_header& header) {
  if (header.magic == 0) file.refuse("not ready, or not a trace file");
  if (header.magic != QTRACE_LAYOUT_MAGIC) file.refuse("not a trace file");
  if (header.version != QTRACE_LAYOUT_VERSION)
    file.refuse("a trace file of version " + std::to_string(header.version) +
                "; this program reads version " + std::to_string(QTRACE_LAYOUT_VERSION));
  if (header.record_size != sizeof(qtrace_layout_record) ||
      header.ring_stride < sizeof(qtrace_layout_ring) || header.ring_count > header.ring_capacity ||
      header.ring_count > kMostRings)
    file.refuse("corrupt: its directory of rings is none");
}

Ring read_ring_entry(const ObjectFile& file, uint64_t offset) {
  const auto entry = read_value<qtrace_layout_ring>(file, offset);
  Ring ring;
  ring.name = text_of(entry.name);
  ring.catalogue_id = text_of(entry.catalogue_id);
  ring.slots = entry.records;
  ring.records_offset = entry.records_offset;
  ring.catalogue_offset = entry.catalogue_offset;
  ring.catalogue_size = entry.catalogue_size;
  const uint64_t size = uint64_t{ring.slots} * sizeof(qtrace_layout_record);
  if (ring.slots == 0 || ring.records_offset > file.size() ||
      size > file.size() - ring.records_offset)
    file.refuse("truncated or corrupt: ring '" + ring.name + "' does not lie within the file");
  return ring;
}

// The texts of one point of a catalogue, of which `at` is the first byte and `size` all there is.
bool read_point(const char* at, size_t size, qtrace_layout_point& fixed, Point& point) {
  if (size < sizeof fixed) return false;
  std::memcpy(&fixed, at, sizeof fixed);
  if (fixed.size < sizeof fixed || fixed.size > size) return false;
  point.line = fixed.line;
  point.first = fixed.first;
  point.second = fixed.second;
  const char* end = at + fixed.size;
  at += sizeof fixed;
  for (std::string* text : {&point.file, &point.function, &point.format, &point.signature}) {
    const char* zero = std::find(at, end, '\0');
    if (zero == end) return false;
    text->assign(at, zero);
    at = zero + 1;
  }
  return true;
}

bool read_argument(const char*& at, const char* end, Argument& argument) {
  argument.type = *at++;
  const auto left = static_cast<size_t>(end - at);
  uint32_t narrow = 0;
  uint16_t length = 0;
  size_t size = 0;
  if (argument.type == 's' && left >= sizeof length) {
    std::memcpy(&length, at, sizeof length);
    size = sizeof length + length;
    if (left < size) return false;
    argument.text.assign(at + sizeof length, length);
  } else if (argument.type == 'd' && left >= sizeof narrow) {
    size = sizeof narrow;
    std::memcpy(&narrow, at, size);
    argument.value = narrow;
  } else if (argument.type == 'D' && left >= sizeof argument.value) {
    size = sizeof argument.value;
    std::memcpy(&argument.value, at, size);
  } else {
    return false;
  }
  at += size;
  return true;
}

}  // namespace

TraceReader::TraceReader(const std::string& path) : file_(path) {
  if (file_.size() < sizeof(qtrace_layout_header))
    file_.refuse("truncated: " + std::to_string(file_.size()) + " bytes are no trace file");
  const auto header = read_value<qtrace_layout_header>(file_, 0);
  check_header(file_, header);
  pid_ = static_cast<pid_t>(header.pid);
  created_realtime_ns_ = header.created_realtime_ns;
  created_monotonic_ns_ = header.created_monotonic_ns;
  for (uint64_t i = 0; i < header.ring_count; ++i) {
    ring_offsets_.push_back(header.ring_offset + i * header.ring_stride);
    rings_.push_back(read_ring_entry(file_, ring_offsets_.back()));
  }
  positions_.resize(rings_.size());
}

std::optional<Catalogue> TraceReader::catalogue(size_t index) const {
  const Ring& ring = rings_[index];
  if (ring.catalogue_size == 0) return {};
  qtrace_layout_catalogue header{};
  if (ring.catalogue_size < sizeof header || ring.catalogue_size > kLargestCatalogue)
    file_.refuse("corrupt: the catalogue of ring '" + ring.name + "' has no possible size");
  std::vector<char> bytes(ring.catalogue_size);
  file_.read(ring.catalogue_offset, bytes.data(), bytes.size());
  std::memcpy(&header, bytes.data(), sizeof header);
  Catalogue catalogue;
  catalogue.id = text_of(header.id);
  require_same_build(file_, ring, catalogue);
  size_t at = sizeof header;
  for (uint32_t i = 0; i < header.points; ++i) {
    qtrace_layout_point fixed{};
    Point point;
    if (!read_point(bytes.data() + at, bytes.size() - at, fixed, point))
      file_.refuse("corrupt: point " + std::to_string(i) + " of the catalogue is none");
    catalogue.points.push_back(std::move(point));
    at += fixed.size;
  }
  return catalogue;
}

std::optional<Catalogue> TraceReader::any_catalogue() const {
  for (size_t i = 0; i < rings_.size(); ++i)
    if (auto found = catalogue(i)) return found;
  return {};
}

std::vector<Record> TraceReader::next(int patience) {
  std::vector<Record> records;
  for (size_t i = 0; i < rings_.size(); ++i) read_ring(i, patience, records);
  std::stable_sort(records.begin(), records.end(),
                   [](const Record& a, const Record& b) { return a.realtime_ns < b.realtime_ns; });
  return records;
}

uint64_t TraceReader::written(size_t ring) const {
  return read_value<uint64_t>(file_, ring_offsets_[ring] + offsetof(qtrace_layout_ring, next));
}

void TraceReader::read_ring(size_t index, int patience, std::vector<Record>& records) {
  const Ring& ring = rings_[index];
  Position& position = positions_[index];
  const uint64_t end = written(index);
  const uint64_t oldest = end > ring.slots ? end - ring.slots : 0;
  if (position.number < oldest) {
    missed_ += oldest - position.number;
    position = {oldest, 0};
  }
  std::vector<qtrace_layout_record> slots;
  std::vector<bool> whole;
  while (position.number < end) {
    const uint64_t first = position.number;
    const auto count = static_cast<size_t>(
        std::min<uint64_t>({end - first, kBatch, ring.slots - first % ring.slots}));
    read_slots(ring, first, count, slots, whole);
    for (size_t i = 0; i < count; ++i) {
      if (!whole[i] && position.waited < patience) {
        ++position.waited;
        return;
      }
      position.number = first + i + 1;
      if (whole[i]) {
        position.waited = 0;
        records.push_back(decode(index, first + i, slots[i]));
      } else {
        ++missed_;  // and no waiting for the next one either: without space they all are left out
      }
    }
  }
  position.waited = 0;
}

void TraceReader::read_slots(const Ring& ring, uint64_t first, size_t count,
                             std::vector<qtrace_layout_record>& slots,
                             std::vector<bool>& whole) const {
  const uint64_t offset = ring.records_offset + first % ring.slots * sizeof(qtrace_layout_record);
  const uint64_t size = count * sizeof(qtrace_layout_record);
  std::vector<qtrace_layout_record> before(count), after(count);
  slots.resize(count);
  // Each copy is a system call of its own, begun when the one before has ended.
  for (auto* copy : {&before, &slots, &after}) file_.read(offset, copy->data(), size);
  whole.assign(count, false);
  for (size_t i = 0; i < count; ++i) {
    const uint64_t wanted = first + i + 1;
    whole[i] = before[i].commit == wanted && after[i].commit == wanted;
  }
}

Record TraceReader::decode(size_t ring, uint64_t number, const qtrace_layout_record& slot) const {
  Record record;
  record.ring = ring;
  record.number = number;
  record.realtime_ns = created_realtime_ns_ + (slot.stamp_ns - created_monotonic_ns_);
  record.thread = slot.thread;
  record.point = slot.point;
  record.cut = slot.flags != 0;
  const char* at = slot.payload;
  const char* end = at + std::min<size_t>(slot.payload_size, sizeof slot.payload);
  while (at < end) {
    Argument argument;
    if (!read_argument(at, end, argument)) {
      record.cut = true;
      break;
    }
    record.arguments.push_back(std::move(argument));
  }
  return record;
}

void require_same_build(const ObjectFile& file, const Ring& ring, const Catalogue& catalogue) {
  if (catalogue.id == ring.catalogue_id) return;
  file.refuse("the records of ring '" + ring.name + "' were made by build " + ring.catalogue_id +
              ", but the catalogue is that of build " + catalogue.id);
}

}  // namespace pkgdist::trace
