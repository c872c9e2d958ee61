// Which records are shown, and how the options that say so are read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "trace_reader.h"

namespace pkgdist::trace {

inline constexpr double kNsPerSecond = 1e9;

enum class Level { kError, kWarning, kInfo };

// The severity of a statement: errors have a ring of their own; of the others those are warnings
// that are copied to standard error at the first level of verbosity.
Level level_of(const Point& point);
const char* level_name(Level level);

struct Selection {
  std::string function;        // a name or a pattern of the shell; empty: any
  std::string file;            // so, of the path or of the name behind the last slash
  Level level = Level::kInfo;  // this one and what is more severe
  uint64_t since_ns = 0;
  uint64_t until_ns = UINT64_MAX;

  bool wants(const Point& point, const Record& record) const;
};

// "30s", "5m", "2h", "1d": so long before now. "12:30" or "12:30:15.5": of today. With "2026-11-20
// " (or T) before it: of that day. "@1795195628.5": seconds since the epoch. Local time. Nothing
// when it is none of these.
std::optional<uint64_t> parse_time(const std::string& text, uint64_t now_ns);

}  // namespace pkgdist::trace
