#include "pkgdist_log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "pkgdist_export.h"
#include "platform/quendrel.h"

#if __has_include("platform/qtrace_catalogue.h")
#include "platform/qtrace_catalogue.h"
#pragma weak qtrace_describe  // not every platform has it
#define PKGDIST_HAS_DESCRIBE
#endif

extern "C" {
PKGDIST_EXPORT qtrace_handle_t G_pkgdist_qtrace_err_hdl = 0;
PKGDIST_EXPORT qtrace_handle_t G_pkgdist_qtrace_lib_hdl = 0;
PKGDIST_EXPORT uint32_t G_pkgdist_debug_lvl = 0;

// The linker's bounds of the section that holds the points.
extern pkgdist::log::TracePoint __start_pkgdist_points[] __attribute__((visibility("hidden")));
extern pkgdist::log::TracePoint __stop_pkgdist_points[] __attribute__((visibility("hidden")));
}

namespace pkgdist::log {

namespace {

constexpr size_t kTimeTextSize = 24;
const char* const kUnknownTime = "<Unknown Time>       : ";
constexpr long kNanosecondsPerMillisecond = 1'000'000;

struct WallClock {
  char text[kTimeTextSize];
  ssize_t milliseconds;
};

WallClock read_wall_clock() {
  WallClock result{};
  (void)quendrel_sstrncpy(result.text, kUnknownTime, sizeof result.text);
  timespec now{};
  tm local{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0 || localtime_r(&now.tv_sec, &local) == nullptr)
    return result;
  (void)std::strftime(result.text, sizeof result.text, "%b %d %H:%M:%S", &local);
  result.milliseconds = now.tv_nsec / kNanosecondsPerMillisecond;
  return result;
}

void print_prefix(const TracePoint& point) {
  const WallClock now = read_wall_clock();
  switch (g_inst_common_debug_prefix) {
    case 0:
      (void)std::fprintf(stderr, "DEBUG %s.%03zd : ", now.text, now.milliseconds);
      return;
    case 1:
      (void)std::fprintf(stderr, "DEBUG %s.%03zd pid %d, tid %ld : ", now.text, now.milliseconds,
                         getpid(), static_cast<long>(gettid()));
      return;
    default:
      (void)std::fprintf(stderr, "DEBUG %s.%03zd pid %d, tid %ld, %s, %d : ", now.text,
                         now.milliseconds, getpid(), static_cast<long>(gettid()), point.function,
                         point.line);
  }
}

struct Character {
  uint32_t code;
  size_t bytes;  // 0: no UTF-8
};

Character first_of(const char* text, size_t size) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t bytes = lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
  if (bytes == 0 || bytes > size) return {0, 0};
  uint32_t code = lead & (0x7Fu >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    if (byte(i) >> 6 != 2) return {0, 0};
    code = code << 6 | (byte(i) & 0x3Fu);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  return {code, code < kSmallest[bytes] ? 0 : bytes};
}

// A terminal obeys it: control characters, and marks that end lines or turn the direction of text.
bool acts(uint32_t code) {
  if (code < ' ' || (code >= 0x7F && code < 0xA0)) return true;
  if (code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E)) return true;
  return code >= 0x2066 && code <= 0x2069;
}

// Names come from the network and may hold anything: a character that a terminal would obey becomes
// '?', and so does a byte that is no UTF-8, which a terminal of another character set may obey.
// Line ends at the end are the statement's own.
void make_printable(char* text) {
  size_t size = std::strlen(text);
  const size_t end = size;
  while (size > 0 && text[size - 1] == '\n') --size;
  char* to = text;
  for (size_t i = 0; i < size;) {
    const auto [code, bytes] = first_of(text + i, size - i);
    const size_t taken = bytes == 0 ? 1 : bytes;
    if (bytes == 0 || acts(code)) {
      *to++ = '?';
    } else {
      std::memmove(to, text + i, taken);
      to += taken;
    }
    i += taken;
  }
  std::memmove(to, text + size, end - size + 1);
}

// FNV-1a, 64 bits, from a given start.
uint64_t fold(uint64_t hash, const char* text) {
  constexpr uint64_t kPrime = 0x100000001b3;
  do {
    hash = (hash ^ static_cast<uint8_t>(*text)) * kPrime;
  } while (*text++ != '\0');
  return hash;
}

}  // namespace

std::span<const TracePoint> catalogue() {
  return {__start_pkgdist_points,
          static_cast<size_t>(__stop_pkgdist_points - __start_pkgdist_points)};
}

uint32_t number_of(const TracePoint& point) {
  return static_cast<uint32_t>(&point - __start_pkgdist_points);
}

const char* catalogue_id() {
  static char digits[33];
  uint64_t formats = 0xcbf29ce484222325;
  uint64_t places = 0x84222325cbf29ce4;
  for (const TracePoint& point : catalogue()) {
    formats = fold(fold(formats, point.format), point.signature);
    places = fold(fold(places, point.function), point.file) + static_cast<uint64_t>(point.line);
  }
  (void)std::snprintf(digits, sizeof digits, "%016lx%016lx", formats, places);
  return digits;
}

void describe([[maybe_unused]] qtrace_handle_t trace) {
#ifdef PKGDIST_HAS_DESCRIBE
  if (qtrace_describe == nullptr) return;
  qtrace_point points[kTracePointLimit];
  uint32_t count = 0;
  for (const TracePoint& point : catalogue())
    points[count++] = {point.file,
                       point.function,
                       point.format,
                       point.signature,
                       point.line,
                       point.threshold,
                       static_cast<int>(point.ring)};
  (void)qtrace_describe(trace, points, count);
#endif
}

// A text that is longer than the buffer, and for which there is no memory, is cut.
void copy_to_stderr(const TracePoint& point, const char* format, ...) {
  constexpr size_t kUsualSize = 1024;
  char usual[kUsualSize];
  std::unique_ptr<char[]> longer;
  char* text = usual;
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  const int size = std::vsnprintf(usual, sizeof usual, format, arguments);
  if (size >= static_cast<int>(sizeof usual)) {
    longer.reset(new (std::nothrow) char[static_cast<size_t>(size) + 1]);
    if (longer != nullptr) {
      text = longer.get();
      (void)std::vsnprintf(text, static_cast<size_t>(size) + 1, format, again);
    }
  }
  va_end(again);
  va_end(arguments);
  if (size < 0) usual[0] = '\0';
  make_printable(text);
  flockfile(stderr);
  print_prefix(point);
  (void)std::fprintf(stderr, "%s\n", text);
  funlockfile(stderr);
}

}  // namespace pkgdist::log
