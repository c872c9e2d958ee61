// Trace rings: opening them, switching them and recording into them.
//
// Rule: a handle is the ring's place in a table of this process, plus one. The table only grows, so
// recording looks a ring up without a lock, and any number that was never handed out does nothing.
//
// Threads: opening is serialised by a lock; recording is lock-free and leaves errno alone.
//
// Bad case: the process forks. What the child opens goes into a file of its own; rings opened
// before the fork stay the parent's, and records of the child in them carry the child's thread
// number.
#include "platform/qtrace.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "environment.h"
#include "platform/fts.h"
#include "platform/qtrace_catalogue.h"
#include "platform/quendrel.h"
#include "trace_catalogue.h"
#include "trace_file.h"
#include "trace_payload.h"
#include "trace_ring.h"

namespace {

constexpr uint32_t kMostRings = 64;  // in one process, those of its parents included

struct OpenRing {
  platform::TraceRing ring;
  pid_t owner = 0;
};

std::mutex g_trace_lock;     // opening and removing
platform::TraceFile g_file;  // guarded by g_trace_lock
OpenRing g_rings[kMostRings];
std::atomic<uint32_t> g_ring_count{0};  // stored under g_trace_lock; rings below it do not change
bool g_hooks_registered = false;        // guarded by g_trace_lock

thread_local pid_t t_thread_id = 0;  // 0: not asked for yet

class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_ = errno;
};

struct FreeBytes {
  void operator()(uint8_t* bytes) const noexcept { std::free(bytes); }
};

void remove_file_at_exit() {
  const std::scoped_lock guard(g_trace_lock);
  if (!g_file.is_ours() || platform::environment_switch("PKGDIST_KEEP_TRACE")) return;
  unlink(g_file.path());
}

void forget_thread_id() {
  t_thread_id = 0;
}

// Makes g_file this process's own. 0 or an error number.
int own_file() {
  if (g_file.is_ours()) return 0;
  const int error = g_file.make();
  if (error != 0 || g_hooks_registered) return error;
  std::atexit(remove_file_at_exit);
  pthread_atfork(nullptr, nullptr, forget_thread_id);
  g_hooks_registered = true;
  return 0;
}

qtrace_handle_t find_own(const char* name) {
  const uint32_t count = g_ring_count.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < count; ++i) {
    if (g_rings[i].owner != getpid()) continue;
    if (std::strcmp(g_rings[i].ring.entry().name, name) == 0) return i + 1;
  }
  return 0;
}

void describe(qtrace_layout_ring& entry, const char* name, uint32_t records, uint32_t points,
              const char* path, const char* catalogue_id) {
  quendrel_sstrncpy(entry.name, name, sizeof entry.name);
  quendrel_sstrncpy(entry.path, path, sizeof entry.path);
  quendrel_sstrncpy(entry.catalogue_id, catalogue_id, sizeof entry.catalogue_id);
  entry.records = records;
  entry.points = points;
}

int add_ring(const char* name, uint32_t records, uint32_t points, const char* path,
             const char* catalogue_id, qtrace_handle_t* out) {
  const uint32_t count = g_ring_count.load(std::memory_order_relaxed);
  if (count == kMostRings) return ENOSPC;
  const uint64_t chunks = platform::TraceRing::chunks_of(records);
  std::unique_ptr<uint8_t, FreeBytes> chunk_has_space(
      static_cast<uint8_t*>(std::calloc(chunks, 1)));
  if (!chunk_has_space) return ENOMEM;

  const uint64_t size = uint64_t{records} * sizeof(qtrace_layout_record);
  qtrace_layout_ring* entry = nullptr;
  void* mapped = nullptr;
  const int error = g_file.add_ring(size, &entry, &mapped);
  if (error != 0) return error;
  describe(*entry, name, records, points, path, catalogue_id);
  g_file.publish_ring(size);

  // The table keeps the bytes for the life of the process.
  g_rings[count].ring = platform::TraceRing(entry, mapped, chunk_has_space.release(), g_file.fd());
  g_rings[count].owner = getpid();
  g_ring_count.store(count + 1, std::memory_order_release);
  *out = count + 1;
  return 0;
}

// A ring of this process with this catalogue that has been described.
const platform::TraceRing* find_described(const char* catalogue_id) {
  const uint32_t count = g_ring_count.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < count; ++i) {
    if (g_rings[i].owner != getpid()) continue;
    const qtrace_layout_ring& entry = g_rings[i].ring.entry();
    if (entry.catalogue_size != 0 && std::strcmp(entry.catalogue_id, catalogue_id) == 0)
      return &g_rings[i].ring;
  }
  return nullptr;
}

int add_catalogue(const platform::TraceRing& ring, const platform::TraceCatalogue& catalogue) {
  const uint64_t size = catalogue.size();
  uint64_t offset = 0;
  void* bytes = nullptr;
  const int error = g_file.add_catalogue(size, &offset, &bytes);
  if (error != 0) return error;
  catalogue.write(bytes, ring.entry().catalogue_id);
  munmap(bytes, size);
  ring.show_catalogue(offset, size);
  return 0;
}

const platform::TraceRing* ring_of(qtrace_handle_t trace) {
  if (trace == 0 || trace > g_ring_count.load(std::memory_order_acquire)) return nullptr;
  return &g_rings[trace - 1].ring;
}

uint32_t thread_id() {
  if (t_thread_id == 0) t_thread_id = gettid();
  return static_cast<uint32_t>(t_thread_id);
}

}  // namespace

int qtrace_open_internal(const char* name, uint32_t records, uint32_t points, const char* path,
                         const char* catalogue_id, int, qtrace_handle_t* out) {
  if (name == nullptr || path == nullptr || catalogue_id == nullptr || out == nullptr)
    return EINVAL;
  if (name[0] == '\0' || std::strlen(name) >= QTRACE_LAYOUT_NAME_SIZE) return EINVAL;
  if (records == 0) return EINVAL;
  const std::scoped_lock guard(g_trace_lock);
  const int error = own_file();
  if (error != 0) return error;
  const qtrace_handle_t known = find_own(name);
  if (known == 0) return add_ring(name, records, points, path, catalogue_id, out);
  *out = known;
  return 0;
}

int qtrace_describe(qtrace_handle_t trace, const qtrace_point* points, uint32_t count) {
  if (points == nullptr || count == 0) return EINVAL;
  const platform::TraceCatalogue catalogue(points, count);
  if (!catalogue.is_complete()) return EINVAL;
  const std::scoped_lock guard(g_trace_lock);
  const platform::TraceRing* ring = ring_of(trace);
  if (ring == nullptr || g_rings[trace - 1].owner != getpid()) return EINVAL;
  if (count > ring->entry().points) return EINVAL;
  const platform::TraceRing* described = find_described(ring->entry().catalogue_id);
  if (described == nullptr) return add_catalogue(*ring, catalogue);
  if (described == ring || ring->entry().catalogue_size != 0) return 0;
  ring->show_catalogue(described->entry().catalogue_offset, described->entry().catalogue_size);
  return 0;
}

int qtrace_enable_configuration(qtrace_handle_t trace, uint64_t configuration) {
  const platform::TraceRing* ring = ring_of(trace);
  if (ring == nullptr) return EINVAL;
  ring->configure(configuration);
  return 0;
}

void qtrace_internal(qtrace_handle_t trace, uint32_t point, int first, int second,
                     const char* signature, const char* format, ...) {
  const platform::TraceRing* ring = ring_of(trace);
  if (ring == nullptr || signature == nullptr || !ring->is_on()) return;
  const ErrnoKeeper keeper;

  qtrace_layout_record record{};
  record.stamp_ns = fts_get_stamp_fast();
  record.thread = thread_id();
  record.point = point;
  record.first = first;
  record.second = second;
  va_list arguments;
  va_start(arguments, format);
  platform::TracePayload(record, signature).put_all(signature, &arguments);
  va_end(arguments);
  ring->publish(record);
}
