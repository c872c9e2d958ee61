// Statistics registry: tables in one shared-memory object per process (see ship_layout.h).
//
// Rule: the object has its full size, and the memory for it, from the start. Value blocks never
// move and a counter can never fault because the memory file system filled up in the meantime.
// Space is only handed out, never taken back. A table is complete before `table_count` makes it
// visible.
//
// Threads: registrations are serialised by a lock. Values are the callers' to write.
//
// Bad cases: the process forks (the child's first registration makes an object of its own; blocks
// handed out before the fork stay the parent's), it is killed (the object stays, on purpose), its
// pid was used before by a process that was killed (the leftover is replaced).
#include "platform/ship.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "environment.h"
#include "mapped_file.h"
#include "platform/quendrel.h"
#include "platform/ship_layout.h"
#include "unique_fd.h"

namespace {

// Room for 64 tables of 64 histograms each, and twice as many small ones.
constexpr uint64_t kObjectSize = 256 * 1024;
constexpr uint32_t kTableCapacity = 128;
constexpr uint64_t kAlignment = 8;

static_assert(sizeof(ship_layout_header) == 56);
static_assert(sizeof(ship_layout_table) == 168);
static_assert(sizeof(ship_layout_entry) == sizeof(ship_entry));
static_assert(sizeof(ship_layout_header) % kAlignment == 0);
static_assert(sizeof(ship_layout_table) % kAlignment == 0);

// A watermark's words, as ship.h lays them out.
constexpr uint64_t kWatermarkFlagsOffset = 8;
constexpr uint32_t kHighWatermark = 1;

struct Object {
  pid_t pid = 0;  // whose object this is; another pid than ours: the parent's
  std::byte* base = nullptr;
  uint64_t used = 0;  // bytes handed out
  bool removal_registered = false;

  ship_layout_header& header() const { return *reinterpret_cast<ship_layout_header*>(base); }
  ship_layout_table* tables() const {
    return reinterpret_cast<ship_layout_table*>(base + sizeof(ship_layout_header));
  }
};

std::mutex g_object_lock;
Object g_object;  // guarded by g_object_lock

struct ObjectName {
  char text[sizeof SHIP_LAYOUT_OBJECT_PREFIX + 16];
  explicit ObjectName(pid_t pid) {
    std::snprintf(text, sizeof text, SHIP_LAYOUT_OBJECT_PREFIX "%d", static_cast<int>(pid));
  }
};

void remove_object_at_exit() {
  const std::scoped_lock guard(g_object_lock);
  if (g_object.pid != getpid() || platform::environment_switch("PKGDIST_KEEP_STATS")) return;
  shm_unlink(ObjectName(g_object.pid).text);
}

int size_and_map(int fd, void** base) {
  if (ftruncate(fd, static_cast<off_t>(kObjectSize)) != 0) return errno;
  const int error = platform::take_space(fd, 0, kObjectSize);
  return error != 0 ? error : platform::map_shared(fd, 0, kObjectSize, base);
}

// Makes the object under this pid's name, in place of a leftover. 0 or an error number.
int make_object(pid_t pid, void** base) {
  const ObjectName name(pid);
  shm_unlink(name.text);
  const platform::UniqueFd fd(
      shm_open(name.text, O_RDWR | O_CREAT | O_EXCL, platform::kSharedFileMode));
  if (!fd) return errno;
  const int error = size_and_map(fd.get(), base);
  if (error != 0) shm_unlink(name.text);
  return error;
}

void write_header(const Object& object) {
  ship_layout_header& header = object.header();
  header.version = SHIP_LAYOUT_VERSION;
  header.pid = static_cast<uint32_t>(object.pid);
  header.object_size = kObjectSize;
  header.created_ns = platform::realtime_ns();
  header.table_offset = sizeof(ship_layout_header);
  header.table_stride = sizeof(ship_layout_table);
  header.table_capacity = kTableCapacity;
  std::atomic_ref<uint64_t>(header.magic).store(SHIP_LAYOUT_MAGIC, std::memory_order_release);
}

// Makes g_object this process's own. 0 or an error number.
int own_object() {
  const pid_t pid = getpid();
  if (g_object.pid == pid) return 0;
  void* base = nullptr;
  const int error = make_object(pid, &base);
  if (error != 0) return error;
  g_object.pid = pid;
  g_object.base = static_cast<std::byte*>(base);
  g_object.used = sizeof(ship_layout_header) + kTableCapacity * sizeof(ship_layout_table);
  write_header(g_object);
  if (!g_object.removal_registered)
    g_object.removal_registered = std::atexit(remove_object_at_exit) == 0;
  return 0;
}

// Bytes of the value block per entry; 0 for a kind that does not exist.
uint32_t value_stride(uint32_t kind) {
  switch (kind) {
    case SHIP_KIND_TRANSPORT_COUNTERS:
    case SHIP_KIND_SERVER_COUNTERS:
      return 20;
    case SHIP_KIND_HISTOGRAMS:
      return 8 * sizeof(uint32_t);
    case SHIP_KIND_WATERMARKS:
      return 24;
    default:
      return 0;
  }
}

// The directory entry of a registration, still without its offsets.
ship_layout_table describe(const char* application, const char* table, const char* process,
                           uint32_t kind, uint32_t parameter, uint32_t count) {
  ship_layout_table made{};
  quendrel_sstrncpy(made.application, application, sizeof made.application);
  quendrel_sstrncpy(made.table, table, sizeof made.table);
  quendrel_sstrncpy(made.process, process, sizeof made.process);
  made.kind = kind;
  made.parameter = parameter;
  made.count = count;
  made.value_stride = value_stride(kind);
  made.values_size = uint64_t{count} * made.value_stride;
  return made;
}

const ship_layout_table* find_table(const ship_layout_table& wanted) {
  const ship_layout_table* first = g_object.tables();
  const ship_layout_table* last = first + g_object.header().table_count;
  const auto* found = std::find_if(first, last, [&](const ship_layout_table& table) {
    return std::strcmp(table.application, wanted.application) == 0 &&
           std::strcmp(table.table, wanted.table) == 0 &&
           std::strcmp(table.process, wanted.process) == 0;
  });
  return found == last ? nullptr : found;
}

void write_entries(const ship_layout_table& table, const ship_entry* entries) {
  auto* to = reinterpret_cast<ship_layout_entry*>(g_object.base + table.entries_offset);
  std::byte* value = g_object.base + table.values_offset;
  for (uint32_t i = 0; i < table.count; ++i, value += table.value_stride) {
    std::memcpy(to[i].name, entries[i].name, sizeof to[i].name - 1);
    to[i].word = entries[i].word;
    if (table.kind != SHIP_KIND_WATERMARKS || entries[i].word != 1) continue;
    std::memcpy(value + kWatermarkFlagsOffset, &kHighWatermark, sizeof kHighWatermark);
  }
}

// Adds the table behind the others; fills in its offsets. 0 or ENOSPC.
int add_table(ship_layout_table& table, const ship_entry* entries) {
  ship_layout_header& header = g_object.header();
  const uint64_t labels_size = uint64_t{table.count} * sizeof(ship_layout_entry);
  const uint64_t values_size = (table.values_size + kAlignment - 1) / kAlignment * kAlignment;
  if (header.table_count == kTableCapacity) return ENOSPC;
  if (labels_size + values_size > kObjectSize - g_object.used) return ENOSPC;

  table.entries_offset = g_object.used;
  table.values_offset = g_object.used + labels_size;
  g_object.used = table.values_offset + values_size;
  write_entries(table, entries);
  g_object.tables()[header.table_count] = table;
  std::atomic_ref<uint32_t>(header.table_count).fetch_add(1, std::memory_order_release);
  return 0;
}

// Other threads may count through a handle already while it is given out.
void publish(void** handle, void* block) {
  std::atomic_ref<void*>(*handle).store(block, std::memory_order_release);
}

bool is_name(const char* text) {
  return text != nullptr && text[0] != '\0' && std::strlen(text) < SHIP_LAYOUT_NAME_SIZE;
}

// Finds or adds the table and stores the address of its value block. 0 or an error number.
int register_table(ship_layout_table& wanted, const ship_entry* entries, void** handle) {
  const std::scoped_lock guard(g_object_lock);
  int error = own_object();
  if (error != 0) return error;
  const ship_layout_table* table = find_table(wanted);
  if (table == nullptr) {
    error = add_table(wanted, entries);
    if (error != 0) return error;
    table = &wanted;
  }
  if (table->kind != wanted.kind || table->count != wanted.count) return EINVAL;
  publish(handle, g_object.base + table->values_offset);
  return 0;
}

}  // namespace

int ship_register(const char* application, const char* table, const char* process, uint32_t kind,
                  const uint32_t* parameter, ship_entry* entries, uint32_t count, void** handle) {
  if (handle == nullptr) return EINVAL;
  publish(handle, nullptr);
  if (!is_name(application) || !is_name(table) || process == nullptr) return EINVAL;
  if (parameter == nullptr || entries == nullptr || count == 0) return EINVAL;
  if (value_stride(kind) == 0) return EINVAL;
  ship_layout_table wanted = describe(application, table, process, kind, *parameter, count);
  return register_table(wanted, entries, handle);
}
