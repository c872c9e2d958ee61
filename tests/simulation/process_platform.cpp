// Traces and statistics of a simulated process: records go to the observer, value blocks are plain
// memory of the copy.
#include <cstdarg>
#include <cstring>
#include <string>

#include "platform/qtrace.h"
#include "platform/ship.h"
#include "process_system.h"
#include "trace_text.h"

namespace {

// Room for the largest of the nine tables in each; registrations repeat at every start.
constexpr size_t kTables = 9;
constexpr size_t kBlockBytes = 1024;
alignas(8) uint8_t value_blocks[kTables][kBlockBytes];
size_t tables_registered = 0;
uint64_t traces_opened = 0;

}  // namespace

extern "C" int ship_register(const char*, const char*, const char*, uint32_t, const uint32_t*,
                             ship_entry*, uint32_t, void** handle) {
  if (tables_registered == kTables) return -1;
  *handle = value_blocks[tables_registered++];
  return 0;
}

extern "C" int qtrace_open_internal(const char*, uint32_t, uint32_t, const char*, const char*, int,
                                    qtrace_handle_t* out) {
  *out = ++traces_opened;
  return 0;
}

extern "C" int qtrace_enable_configuration(qtrace_handle_t, uint64_t) {
  return 0;
}

extern "C" void qtrace_internal(qtrace_handle_t, uint32_t point, int, int, const char* signature,
                                const char* format, ...) {
  pkgdist::sim::System& system = *pkgdist::sim::process_system;
  if (!system.settings.texts) return system.observer.logged(point, nullptr);
  va_list arguments;
  va_start(arguments, format);
  const std::string text = pkgdist::test::trace_text(signature, format, arguments);
  va_end(arguments);
  system.observer.logged(point, text.c_str());
}
