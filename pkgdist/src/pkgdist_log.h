// Log statements: one binary trace record each, and a copy on standard error when the installer
// asked for it.
//
// At the call site stands the text that is logged:
//
//   PKGDIST_ERR("msg class '%d' is invalid", msg_class);   error trace, stderr from level 1
//   PKGDIST_WARN("DATA File Not Done Timeout - Name %s - send request again\n", path);
//   PKGDIST_INFO("CTRL UC ACK - Sequence %d\n", sequence);  library trace, stderr from level 2
//
// PKGDIST_ERR puts "ERR:%s: " with the function's name before the words and a newline behind them.
// The compiler checks the format against the arguments; the argument signature of the record is
// derived from their types. Each statement owns a TracePoint in a section of its own, so that the
// points are numbered without gaps and the whole catalogue can be listed. For that the statements
// must stand in ordinary functions, not in templates or inline functions.
//
// Any thread may log. Before the traces are open a record goes nowhere and the copy still works.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <type_traits>

#include "pkgdist_atomic.h"
#include "platform/inst_common.h"
#include "platform/qtrace.h"

extern "C" {
// Stored by start-up while other threads may log.
extern qtrace_handle_t G_pkgdist_qtrace_err_hdl;
extern qtrace_handle_t G_pkgdist_qtrace_lib_hdl;
extern uint32_t G_pkgdist_debug_lvl;
}

namespace pkgdist::log {

// Points of a catalogue are numbered from 0; the trace library is told this many.
inline constexpr uint32_t kTracePointLimit = 361;

// Verbosity from which statements are copied to standard error.
inline constexpr int32_t kThresholdNotable = 1;  // errors and warnings of note
inline constexpr int32_t kThresholdRoutine = 2;

enum class Ring : int32_t { kErrors = 0, kLibrary = 1 };

// Size and alignment of a trace point: equal, so that the compiler's wish to align large objects
// leaves no gaps between the points of the section.
inline constexpr size_t kTracePointBytes = 64;

// What the catalogue knows of one statement.
struct alignas(kTracePointBytes) TracePoint {
  const char* file;
  const char* function;
  const char* format;
  const char* signature;
  int32_t line;
  int32_t threshold;
  Ring ring;
};
static_assert(sizeof(TracePoint) == kTracePointBytes);

std::span<const TracePoint> catalogue();
uint32_t number_of(const TracePoint& point);

// 32 hexadecimal digits that are the same for two builds only if their catalogues are.
const char* catalogue_id();

// Gives the catalogue to readers of the ring, where the platform keeps it for them. A catalogue
// that could not be kept costs them the texts, and the process nothing.
void describe(qtrace_handle_t trace);

// 's' for a string, 'd' for up to 32 bits, 'D' for 64 bits.
template <class Argument>
constexpr char letter() {
  using A = std::decay_t<Argument>;
  if constexpr (std::is_convertible_v<A, const char*>)
    return 's';
  else
    return sizeof(A) <= sizeof(int32_t) ? 'd' : 'D';
}

template <class... Arguments>
struct Signature {
  static constexpr char text[sizeof...(Arguments) + 1] = {letter<Arguments>()..., '\0'};
};

template <class... Arguments>
Signature<Arguments...> signature_of(const Arguments&...);

// The copy on standard error: prefix, the statement itself and one more newline.
void copy_to_stderr(const TracePoint& point, const char* format, ...);

inline qtrace_handle_t ring_handle(Ring ring) {
  return load(ring == Ring::kErrors ? G_pkgdist_qtrace_err_hdl : G_pkgdist_qtrace_lib_hdl);
}

template <class... Arguments>
void write(const TracePoint& point, const char* format, Arguments... arguments) {
  qtrace_internal(ring_handle(point.ring), number_of(point), point.threshold,
                  static_cast<int>(point.ring), point.signature, format, arguments...);
  if (g_inst_common_debug_verbosity_level >= point.threshold)
    copy_to_stderr(point, format, arguments...);
}

}  // namespace pkgdist::log

#define PKGDIST_LOG_STATEMENT(ring_, threshold_, format_, ...)                                    \
  do {                                                                                            \
    if (false) std::printf(format_ __VA_OPT__(, ) __VA_ARGS__); /* the compiler's format check */ \
    using PkgdistSignature =                                                                      \
        decltype(::pkgdist::log::signature_of(__VA_ARGS__)); /* of the arguments as passed */     \
    __attribute__((section("pkgdist_points"),                                                     \
                   used)) static constinit ::pkgdist::log::TracePoint pkgdist_point = {           \
        __FILE__, static_cast<const char*>(__func__),                                             \
        format_,  PkgdistSignature::text,                                                         \
        __LINE__, threshold_,                                                                     \
        ring_};                                                                                   \
    ::pkgdist::log::write(pkgdist_point, format_ __VA_OPT__(, ) __VA_ARGS__);                     \
  } while (false)

#ifdef __cppcheck__  // which knows no __VA_OPT__; formats are checked by the compiler
void pkgdist_statement(...);
#define PKGDIST_ERR_TEXT(...) pkgdist_statement(__VA_ARGS__)
#define PKGDIST_ERR_IN(...) pkgdist_statement(__VA_ARGS__)
#define PKGDIST_ERR(...) pkgdist_statement(__VA_ARGS__)
#define PKGDIST_WARN(...) pkgdist_statement(__VA_ARGS__)
#define PKGDIST_INFO(...) pkgdist_statement(__VA_ARGS__)
#else

// An error whose text is not of the usual shape; `format` is the whole of it.
#define PKGDIST_ERR_TEXT(format, ...)                                                     \
  PKGDIST_LOG_STATEMENT(::pkgdist::log::Ring::kErrors, ::pkgdist::log::kThresholdNotable, \
                        format __VA_OPT__(, ) __VA_ARGS__)

// An error that names another function than the one it stands in as its reporter.
#define PKGDIST_ERR_IN(function, words, ...) \
  PKGDIST_ERR_TEXT("ERR:%s: " words "\n", function __VA_OPT__(, ) __VA_ARGS__)

#define PKGDIST_ERR(words, ...) \
  PKGDIST_ERR_IN(static_cast<const char*>(__func__), words __VA_OPT__(, ) __VA_ARGS__)

#define PKGDIST_WARN(format, ...)                                                          \
  PKGDIST_LOG_STATEMENT(::pkgdist::log::Ring::kLibrary, ::pkgdist::log::kThresholdNotable, \
                        format __VA_OPT__(, ) __VA_ARGS__)

#define PKGDIST_INFO(format, ...)                                                          \
  PKGDIST_LOG_STATEMENT(::pkgdist::log::Ring::kLibrary, ::pkgdist::log::kThresholdRoutine, \
                        format __VA_OPT__(, ) __VA_ARGS__)

#endif  // __cppcheck__

// The four octets of an address in host byte order, most significant first: for "%d.%d.%d.%d".
#define PKGDIST_OCTETS(address)                                                       \
  static_cast<int>((address) >> 24 & 0xFF), static_cast<int>((address) >> 16 & 0xFF), \
      static_cast<int>((address) >> 8 & 0xFF), static_cast<int>((address)&0xFF)
