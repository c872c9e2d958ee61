#include "selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace pkgdist::trace {

namespace {

constexpr double kLatestSecond = 1e10;  // of the epoch; far enough and still exact in nanoseconds

bool matches(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

double unit_seconds(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return 60;
    case 'h':
      return 3600;
    case 'd':
      return 86400;
    default:
      return 0;
  }
}

std::optional<uint64_t> from_seconds(double seconds) {
  if (!(seconds >= 0 && seconds < kLatestSecond)) return {};
  return static_cast<uint64_t>(seconds * kNsPerSecond);
}

std::optional<uint64_t> from_clock(tm day, int hour, int minute, double second) {
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !(second >= 0 && second < 61))
    return {};
  day.tm_hour = hour;
  day.tm_min = minute;
  day.tm_sec = 0;
  day.tm_isdst = -1;
  const time_t whole = mktime(&day);
  if (whole == static_cast<time_t>(-1)) return {};
  return from_seconds(static_cast<double>(whole) + second);
}

}  // namespace

Level level_of(const Point& point) {
  if (point.second == 0) return Level::kError;
  return point.first <= 1 ? Level::kWarning : Level::kInfo;
}

const char* level_name(Level level) {
  if (level == Level::kError) return "error";
  return level == Level::kWarning ? "warning" : "info";
}

bool Selection::wants(const Point& point, const Record& record) const {
  if (record.realtime_ns < since_ns || record.realtime_ns > until_ns) return false;
  if (level_of(point) > level) return false;
  if (!function.empty() && !matches(function, point.function)) return false;
  if (file.empty() || matches(file, point.file)) return true;
  return matches(file, point.file.substr(point.file.rfind('/') + 1));
}

std::optional<uint64_t> parse_time(const std::string& text, uint64_t now_ns) {
  double seconds = 0;
  char unit = 0, rest = 0;
  if (std::sscanf(text.c_str(), "%lf%c%c", &seconds, &unit, &rest) == 2 && unit_seconds(unit) > 0) {
    if (!(seconds >= 0)) return {};
    const double ago = seconds * unit_seconds(unit);
    return from_seconds(std::max(0.0, static_cast<double>(now_ns) / kNsPerSecond - ago));
  }
  if (std::sscanf(text.c_str(), "@%lf%c", &seconds, &rest) == 1) return from_seconds(seconds);

  tm day{};
  int hour = 0, minute = 0, used = 0;
  const char* at = text.c_str();
  if (std::sscanf(at, "%4d-%2d-%2d%*1[ T]%n", &day.tm_year, &day.tm_mon, &day.tm_mday, &used) ==
          3 &&
      used > 0) {
    day.tm_year -= 1900;
    day.tm_mon -= 1;
    at += used;
  } else {
    const auto now = static_cast<time_t>(static_cast<double>(now_ns) / kNsPerSecond);
    localtime_r(&now, &day);
  }
  const int fields = std::sscanf(at, "%2d:%2d:%lf%c", &hour, &minute, &seconds, &rest);
  if (fields == 3) return from_clock(day, hour, minute, seconds);
  if (std::sscanf(at, "%2d:%2d%c", &hour, &minute, &rest) == 2)
    return from_clock(day, hour, minute, 0);
  return {};
}

}  // namespace pkgdist::trace
