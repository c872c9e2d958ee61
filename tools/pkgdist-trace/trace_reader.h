// Reads a trace file (platform/qtrace_layout.h) while it is written or after its process ended,
// with the catalogue that stands in it. Nothing in the file is trusted: every offset and size is
// checked against the file before it is used.
//
// Rule: a record is taken when its commit word was the right one before and after the record was
// copied. The three reads are separate calls of the system, in this order.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/qtrace_layout.h"
#include "process_object.h"

namespace pkgdist::trace {

struct Point {
  std::string file;
  std::string function;
  std::string format;
  std::string signature;
  int32_t line = 0;
  int32_t first = 0;  // the two integers that its records carry
  int32_t second = 0;
};

struct Catalogue {
  std::string id;
  std::vector<Point> points;
};

struct Argument {
  char type = 0;  // 's', 'd' or 'D'
  std::string text;
  uint64_t value = 0;  // of 'd', 32 bits
};

struct Record {
  size_t ring = 0;      // in TraceFile::rings()
  uint64_t number = 0;  // in its ring
  uint64_t realtime_ns = 0;
  uint32_t thread = 0;
  uint32_t point = 0;
  bool cut = false;  // text or arguments are missing
  std::vector<Argument> arguments;
};

struct Ring {
  std::string name;
  std::string catalogue_id;
  uint32_t slots = 0;
  uint64_t records_offset = 0;
  uint64_t catalogue_offset = 0;
  uint64_t catalogue_size = 0;
};

class TraceReader {
 public:
  // Throws tools::BadObject with a text for people.
  explicit TraceReader(const std::string& path);

  pid_t pid() const { return pid_; }
  uint64_t created_ns() const { return created_realtime_ns_; }
  const tools::ObjectFile& file() const { return file_; }
  const std::vector<Ring>& rings() const { return rings_; }

  // The catalogue of a ring. Nothing when the file has none; throws when it is broken or of another
  // build than the ring's records.
  std::optional<Catalogue> catalogue(size_t ring) const;
  // The first that the file has, of whatever ring.
  std::optional<Catalogue> any_catalogue() const;

  // Records that were finished since the last call, all that are there at the first, by time. One
  // that is just being written is given at a later call; after `patience` calls without it, it is
  // left out: its writer died, or had no space.
  std::vector<Record> next(int patience);

  // Records that were left out or overwritten before they could be read. Known after next().
  uint64_t missed() const { return missed_; }

 private:
  struct Position {
    uint64_t number = 0;  // the next one to be read
    int waited = 0;       // calls without it
  };

  void read_ring(size_t ring, int patience, std::vector<Record>& records);
  uint64_t written(size_t ring) const;
  // Reads slots of consecutive numbers; true at those that are whole.
  void read_slots(const Ring& ring, uint64_t first, size_t count,
                  std::vector<qtrace_layout_record>& slots, std::vector<bool>& whole) const;
  Record decode(size_t ring, uint64_t number, const qtrace_layout_record& slot) const;

  tools::ObjectFile file_;
  pid_t pid_ = 0;
  uint64_t created_realtime_ns_ = 0;
  uint64_t created_monotonic_ns_ = 0;
  std::vector<Ring> rings_;
  std::vector<uint64_t> ring_offsets_;  // of their directory entries
  std::vector<Position> positions_;
  uint64_t missed_ = 0;
};

// Throws unless the catalogue has the id that the ring's records were made with.
void require_same_build(const tools::ObjectFile& file, const Ring& ring,
                        const Catalogue& catalogue);

// The record as text: the format of its point with the arguments in place. What does not fit
// together shows as <?>.
std::string render(const Point& point, const Record& record);

}  // namespace pkgdist::trace
