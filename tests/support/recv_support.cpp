#include "recv_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>

#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_log.h"
#include "platform/inst_common.h"

namespace support {
namespace {

std::atomic<uint64_t> now_ns{0};
std::atomic<bool> real_time{false};

struct Fault {
  std::atomic<unsigned> calls{0};
  std::atomic<unsigned> nth{0};  // 0: none
  std::atomic<bool> always{false};
  std::atomic<int> error{0};
};
Fault fault_table[static_cast<size_t>(Call::kCount)];
std::atomic<unsigned> sleep_count{0};
std::atomic<unsigned> short_write_nth{0};
std::atomic<size_t> short_write_bytes{0};
std::atomic<unsigned> short_send_nth{0};
std::atomic<size_t> short_send_bytes{0};
std::atomic<uint64_t> last_select_wait{0};
std::function<void(const pthread_mutex_t*)> lock_hook;

// The error number with which this call is to fail, or 0.
int failing(Call call) {
  Fault& fault = fault_table[static_cast<size_t>(call)];
  const unsigned number = ++fault.calls;
  return fault.always || number == fault.nth ? fault.error.load() : 0;
}

std::mutex guard;  // of the two below
std::vector<Sent> sent_datagrams;
std::vector<Record> log_records;
std::atomic<bool> capturing{false};

std::vector<Registration> registrations;
std::vector<TraceOpen> opened_traces;
std::vector<TraceEnable> enabled_traces;
std::vector<nodeid_handle_t> identities;  // made by nodeid_create() since the last reset

// Value blocks, as the statistics library would hand them out.
alignas(8) uint8_t crt_counters[29 * 20], crs_counters[13 * 20], drt_counters[24 * 20],
    drs_counters[15 * 20];
uint32_t crt_histograms[4 * 8], crs_histograms[3 * 8], drt_histograms[5 * 8], drs_histograms[7 * 8];
alignas(8) uint8_t drt_watermarks[24];

uint32_t counter_at(const uint8_t* block, uint32_t index) {
  return __atomic_load_n(reinterpret_cast<const uint32_t*>(block + 20 * index), __ATOMIC_RELAXED);
}
uint32_t samples_at(const uint32_t* block, uint32_t index) {
  uint32_t sum = 0;
  for (uint32_t bucket = 0; bucket < 8; ++bucket) sum += block[8 * index + bucket];
  return sum;
}

// printf() of one record, argument by argument, so that the signature is exercised as well.
std::string render(const char* signature, const char* format, va_list arguments) {
  std::string text;
  for (const char* at = format; *at != '\0';) {
    if (*at != '%' || at[1] == '%') {
      text += *at;
      at += *at == '%' ? 2 : 1;
      continue;
    }
    const size_t length = std::strcspn(at + 1, "diuxXpsc") + 2;
    const std::string directive(at, length);
    at += length;
    char piece[4096];
    switch (*signature++) {
      case 's':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, const char*));
        break;
      case 'd':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, int));
        break;
      case 'D':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, long));
        break;
      default:
        ADD_FAILURE() << "signature shorter than the format: " << format;
        return text;
    }
    text += piece;
  }
  EXPECT_EQ(*signature, '\0') << "signature longer than the format: " << format;
  return text;
}

constexpr CtrlTimeouts kCtrlTimeouts = {125'000,       250'000'000, 500'000'000, 250'000'000,
                                        7'500'000'000, 5,           524'288};
constexpr DataTimeouts kDataTimeouts = {
    5'000'000,      500'000'000, 1'000'000'000, 2'000'000'000, 2'000'000'000,
    30'000'000'000, 5,           3'145'728};

void empty_databases() {
  while (G_ctrl_recv_rx_msg_db.head != nullptr) pkgdist::rx_msg_delete(G_ctrl_recv_rx_msg_db.head);
  while (LeadMessage* message = G_ctrl_recv_msg_db.head) {
    G_ctrl_recv_msg_db.remove(message);
    pkgdist_ctrl_recv_msg_db_free(message);
  }
  while (pkgdist_file_recv_entry* entry = G_file_recv_db.head) {
    pkgdist::file_recv_take(entry);
    pkgdist_file_recv_db_free(entry);
  }
  const uint64_t stat_age = std::exchange(G_data_rto.stat_age, 0);
  pkgdist::file_stat_expire(~uint64_t{0});
  G_data_rto.stat_age = stat_age;
  while (G_ctrl_recv_ctx_db.head != nullptr)
    pkgdist_ctrl_recv_free_ctx(G_ctrl_recv_ctx_db.head->recv_id);
  while (G_data_recv_ctx_db.head != nullptr)
    pkgdist_data_recv_free_ctx(G_data_recv_ctx_db.head->recv_id);
}

void register_blocks() {
  std::memset(crt_counters, 0, sizeof crt_counters);
  std::memset(crs_counters, 0, sizeof crs_counters);
  std::memset(drt_counters, 0, sizeof drt_counters);
  std::memset(drs_counters, 0, sizeof drs_counters);
  std::memset(crt_histograms, 0, sizeof crt_histograms);
  std::memset(crs_histograms, 0, sizeof crs_histograms);
  std::memset(drt_histograms, 0, sizeof drt_histograms);
  std::memset(drs_histograms, 0, sizeof drs_histograms);
  std::memset(drt_watermarks, 0, sizeof drt_watermarks);
  drt_watermarks[8] = 1;  // high mark
  pkgdist_crt_ship_counter_hdl = crt_counters;
  pkgdist_crt_ship_histogram_hdl = crt_histograms;
  pkgdist_crs_ship_counter_hdl = crs_counters;
  pkgdist_crs_ship_histogram_hdl = crs_histograms;
  pkgdist_drt_ship_counter_hdl = drt_counters;
  pkgdist_drt_ship_watermark_hdl = drt_watermarks;
  pkgdist_drt_ship_histogram_hdl = drt_histograms;
  pkgdist_drs_ship_counter_hdl = drs_counters;
  pkgdist_drs_ship_histogram_hdl = drs_histograms;
}

// The block that belongs to a table's handle.
void* block_of(void** handle) {
  const std::pair<void**, void*> blocks[] = {{&pkgdist_crt_ship_counter_hdl, crt_counters},
                                             {&pkgdist_crt_ship_histogram_hdl, crt_histograms},
                                             {&pkgdist_crs_ship_counter_hdl, crs_counters},
                                             {&pkgdist_crs_ship_histogram_hdl, crs_histograms},
                                             {&pkgdist_drt_ship_counter_hdl, drt_counters},
                                             {&pkgdist_drt_ship_watermark_hdl, drt_watermarks},
                                             {&pkgdist_drt_ship_histogram_hdl, drt_histograms},
                                             {&pkgdist_drs_ship_counter_hdl, drs_counters},
                                             {&pkgdist_drs_ship_histogram_hdl, drs_histograms}};
  for (const auto& [table_handle, block] : blocks)
    if (table_handle == handle) return block;
  ADD_FAILURE() << "a handle of no table";
  return nullptr;
}

}  // namespace

uint64_t clock::now() {
  if (!real_time) return now_ns;
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec);
}
void clock::advance(uint64_t nanoseconds) {
  now_ns += nanoseconds;
}
void clock::follow_real_time() {
  real_time = true;
}

void faults::fail(Call call, unsigned nth, int error_number) {
  Fault& fault = fault_table[static_cast<size_t>(call)];
  fault.calls = 0;
  fault.nth = nth;
  fault.error = error_number;
}
void faults::fail_always(Call call, int error_number) {
  fail(call, 0, error_number);
  fault_table[static_cast<size_t>(call)].always = true;
}
void faults::clear() {
  for (Fault& fault : fault_table) {
    fault.calls = 0;
    fault.nth = 0;
    fault.always = false;
  }
  sleep_count = 0;
  short_write_nth = 0;
  short_send_nth = 0;
  lock_hook = nullptr;
}
unsigned faults::calls(Call call) {
  return fault_table[static_cast<size_t>(call)].calls;
}
unsigned faults::sleeps() {
  return sleep_count;
}
void faults::short_write(unsigned nth, size_t bytes) {
  fault_table[static_cast<size_t>(Call::kWrite)].calls = 0;
  short_write_nth = nth;
  short_write_bytes = bytes;
}

std::vector<Registration>& registry::registrations() {
  return support::registrations;
}
std::vector<TraceOpen>& registry::opened_traces() {
  return support::opened_traces;
}
std::vector<TraceEnable>& registry::enabled_traces() {
  return support::enabled_traces;
}
void faults::short_send(unsigned nth, size_t bytes) {
  fault_table[static_cast<size_t>(Call::kSendto)].calls = 0;
  short_send_nth = nth;
  short_send_bytes = bytes;
}
uint64_t faults::select_wait() {
  return last_select_wait;
}
void faults::on_lock(std::function<void(const pthread_mutex_t* mutex)> hook) {
  lock_hook = std::move(hook);
}

std::vector<Sent>& wire::sent() {
  return sent_datagrams;
}
std::vector<Sent> wire::take() {
  const std::lock_guard lock(guard);
  return std::exchange(sent_datagrams, {});
}
void wire::capture(bool on) {
  capturing = on;
}

pkgdist_ctrl_msg_hdr ctrl_header(const Bytes& datagram) {
  pkgdist_ctrl_msg_hdr header{};
  EXPECT_EQ(pkgdist::decode(datagram.data() + 4, pkgdist::header_length(datagram.data()), header),
            0);
  return header;
}
pkgdist_data_msg_hdr data_header(const Bytes& datagram) {
  pkgdist_data_msg_hdr header{};
  EXPECT_EQ(pkgdist::decode(datagram.data() + 4, pkgdist::header_length(datagram.data()), header),
            0);
  return header;
}

Bytes framed(const Bytes& header, const Bytes& body) {
  Bytes datagram(4);
  const uint32_t length = htonl(static_cast<uint32_t>(header.size()));
  std::memcpy(datagram.data(), &length, sizeof length);
  datagram.insert(datagram.end(), header.begin(), header.end());
  datagram.insert(datagram.end(), body.begin(), body.end());
  return datagram;
}

std::vector<Record>& logs::records() {
  return log_records;
}
bool logs::contains(const std::string& text) {
  const std::lock_guard lock(guard);
  return std::any_of(log_records.begin(), log_records.end(),
                     [&](const Record& record) { return record.text == text; });
}
unsigned logs::count(const std::string& part) {
  const std::lock_guard lock(guard);
  return static_cast<unsigned>(std::count_if(
      log_records.begin(), log_records.end(),
      [&](const Record& record) { return record.text.find(part) != std::string::npos; }));
}

uint32_t value(CrtCounter counter) {
  return counter_at(crt_counters, static_cast<uint32_t>(counter));
}
uint32_t value(CrsCounter counter) {
  return counter_at(crs_counters, static_cast<uint32_t>(counter));
}
uint32_t value(DrtCounter counter) {
  return counter_at(drt_counters, static_cast<uint32_t>(counter));
}
uint32_t value(DrsCounter counter) {
  return counter_at(drs_counters, static_cast<uint32_t>(counter));
}
uint32_t samples(CrtHistogram histogram) {
  return samples_at(crt_histograms, static_cast<uint32_t>(histogram));
}
uint32_t samples(CrsHistogram histogram) {
  return samples_at(crs_histograms, static_cast<uint32_t>(histogram));
}
uint32_t samples(DrtHistogram histogram) {
  return samples_at(drt_histograms, static_cast<uint32_t>(histogram));
}
uint32_t samples(DrsHistogram histogram) {
  return samples_at(drs_histograms, static_cast<uint32_t>(histogram));
}

void reset_library() {
  faults::clear();
  empty_databases();
  G_ctrl_recv_ctx_db.next_id = G_ctrl_recv_qitc_db.next_id = pkgdist::kFirstAllocatedId;
  G_data_recv_ctx_db.next_id = G_data_recv_qitc_db.next_id = pkgdist::kFirstAllocatedId;
  G_ctrl_rto = kCtrlTimeouts;
  G_data_rto = kDataTimeouts;
  G_my_card_class = 3;
  G_my_node_ip = kMyAddress;
  G_my_msg_nodeid = 0x010203;
  G_lead_uc_addr = kLeadAddress;
  G_lead_pid = 100;
  G_lead_msg_nodeid = 0;
  G_lead_nodeid = nullptr;
  pkgdist::set_lead_node_text("9/8/7");
  G_ctrl_last_lead_msg = now_ns;
  G_ctrl_lead_cb_registered = false;
  G_ctrl_rx_uc_port = 7102;
  G_ctrl_tx_uc_port = 7103;
  G_ctrl_uc_sequence = 1;
  G_ctrl_mc_last_sequence = G_ctrl_uc_last_sequence = G_ctrl_mc_last_ack_sequence = 0;
  G_data_req_uc_port = 7104;
  G_data_recv_file_last_msg = now_ns;
  G_data_rx_thread_running = G_data_recv_file_thread_running = true;
  G_data_rx_exit_thread = G_data_recv_file_exit_thread = false;
  std::memset(G_data_recv_repository, 0, sizeof G_data_recv_repository);
  std::memset(G_data_recv_memory, 0, sizeof G_data_recv_memory);
  register_blocks();
  for (nodeid_handle_t identity : identities) nodeid_destroy(identity);
  identities.clear();
  registrations.clear();
  opened_traces.clear();
  enabled_traces.clear();
  G_pkgdist_qtrace_err_hdl = G_pkgdist_qtrace_lib_hdl = 0;
  sent_datagrams.clear();
  log_records.clear();
}

void RecvTest::SetUp() {
  now_ns = 3600 * kSecond;
  reset_library();
  char pattern[] = "/tmp/pkgdist-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  directory_ = std::string(pattern) + "/";
  memory_prefix_ = "/" + std::filesystem::path(pattern).filename().string() + "-";
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository(directory_.c_str(), 1, false), 0u);
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository(memory_prefix_.c_str(), 2, true), 0u);
  wire::capture(true);
  log_records.clear();
}

bool all_locks_are_free() {
  pthread_mutex_t* const mutexes[] = {&G_ctrl_recv_rx_msg_db.mutex,
                                      &G_ctrl_recv_msg_db.mutex,
                                      &G_ctrl_recv_ctx_db.mutex,
                                      &G_ctrl_recv_qitc_db.mutex,
                                      &G_file_stat_db.mutex,
                                      &G_file_recv_db.mutex,
                                      &G_data_recv_ctx_db.mutex,
                                      &G_data_recv_qitc_db.mutex,
                                      &G_data_rx_mutex,
                                      &G_pkgdist_file_recv_mutex,
                                      &atomic_mutex};
  return std::all_of(std::begin(mutexes), std::end(mutexes), [](pthread_mutex_t* mutex) {
    if (pthread_mutex_trylock(mutex) != 0) return false;
    faults::clear();  // the unlock is not one of the calls under test
    return pthread_mutex_unlock(mutex) == 0;
  });
}

void RecvTest::TearDown() {
  if (!all_locks_are_free()) {
    ADD_FAILURE() << "a lock is still held";
    std::abort();  // every later test would wait for it
  }
  reset_library();
  wire::capture(false);
  std::filesystem::remove_all(directory_);
  for (const auto& object : std::filesystem::directory_iterator("/dev/shm"))
    if (object.path().filename().string().rfind(memory_prefix_.substr(1), 0) == 0)
      std::filesystem::remove(object.path());
}

}  // namespace support

using support::Call;
using support::failing;

// --- Interposed platform functions ---

extern "C" uint64_t fts_get_stamp_fast(void) {
  return support::clock::now();
}

extern "C" void qtrace_internal(qtrace_handle_t handle, uint32_t point, int, int ring,
                                const char* signature, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = support::render(signature, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(support::guard);
  support::log_records.push_back({ring == 0, point, std::move(text), signature, handle});
}

extern "C" int ship_register(const char* application, const char* table, const char* process,
                             uint32_t kind, const uint32_t* parameter, ship_entry* entries,
                             uint32_t count, void** handle) {
  support::Registration made{application, table, process, kind, *parameter, {}, {}};
  for (uint32_t i = 0; i < count; ++i) {
    made.labels.emplace_back(entries[i].name, sizeof entries[i].name);
    made.words.push_back(entries[i].word);
  }
  support::registrations.push_back(std::move(made));
  if (int error = failing(Call::kShipRegister); error != 0) return error;
  *handle = support::block_of(handle);
  return 0;
}

extern "C" int qtrace_open_internal(const char* name, uint32_t records, uint32_t points,
                                    const char* path, const char* catalogue_id, int reserved,
                                    qtrace_handle_t* out) {
  support::opened_traces.push_back({name, records, points, path, catalogue_id, reserved});
  if (int error = failing(Call::kTraceOpen); error != 0) return error;
  *out = support::opened_traces.size();
  return 0;
}

extern "C" int qtrace_enable_configuration(qtrace_handle_t trace, uint64_t configuration) {
  support::enabled_traces.push_back({trace, configuration});
  return failing(Call::kTraceEnable);
}

// --- Wrapped system calls ---

#define PKGDIST_WRAP_ERRNO(call, type, name, parameters, arguments, failure) \
  extern "C" type __real_##name parameters;                                  \
  extern "C" type __wrap_##name parameters;                                  \
  extern "C" type __wrap_##name parameters {                                 \
    if (int error = failing(call); error != 0) {                             \
      errno = error;                                                         \
      return failure;                                                        \
    }                                                                        \
    return __real_##name arguments;                                          \
  }
#define PKGDIST_WRAP_RESULT(call, name, parameters, arguments) \
  extern "C" int __real_##name parameters;                     \
  extern "C" int __wrap_##name parameters;                     \
  extern "C" int __wrap_##name parameters {                    \
    if (int error = failing(call); error != 0) return error;   \
    return __real_##name arguments;                            \
  }

PKGDIST_WRAP_ERRNO(Call::kMalloc, void*, malloc, (size_t size), (size), nullptr)
PKGDIST_WRAP_ERRNO(Call::kCalloc, void*, calloc, (size_t n, size_t size), (n, size), nullptr)
PKGDIST_WRAP_ERRNO(Call::kRealloc, void*, realloc, (void* old, size_t size), (old, size), nullptr)
PKGDIST_WRAP_ERRNO(Call::kStrdup, char*, strdup, (const char* text), (text), nullptr)
PKGDIST_WRAP_ERRNO(Call::kSocket, int, socket, (int domain, int type, int protocol),
                   (domain, type, protocol), -1)
PKGDIST_WRAP_ERRNO(Call::kSetsockopt, int, setsockopt,
                   (int fd, int level, int option, const void* value, socklen_t size),
                   (fd, level, option, value, size), -1)
PKGDIST_WRAP_ERRNO(Call::kBind, int, bind, (int fd, const sockaddr* address, socklen_t size),
                   (fd, address, size), -1)
PKGDIST_WRAP_ERRNO(Call::kRecvfrom, ssize_t, recvfrom,
                   (int fd, void* buffer, size_t size, int flags, sockaddr* from,
                    socklen_t* length),
                   (fd, buffer, size, flags, from, length), -1)
PKGDIST_WRAP_ERRNO(Call::kLseek, off_t, lseek, (int fd, off_t offset, int whence),
                   (fd, offset, whence), -1)
PKGDIST_WRAP_ERRNO(Call::kRename, int, rename, (const char* from, const char* to), (from, to), -1)
PKGDIST_WRAP_ERRNO(Call::kUnlink, int, unlink, (const char* path), (path), -1)
PKGDIST_WRAP_ERRNO(Call::kUtime, int, utime, (const char* path, const utimbuf* times),
                   (path, times), -1)
PKGDIST_WRAP_ERRNO(Call::kShmOpen, int, shm_open, (const char* name, int flags, mode_t mode),
                   (name, flags, mode), -1)
PKGDIST_WRAP_ERRNO(Call::kFtruncate, int, ftruncate, (int fd, off_t size), (fd, size), -1)
PKGDIST_WRAP_ERRNO(Call::kMmap, void*, mmap,
                   (void* at, size_t size, int protection, int flags, int fd, off_t offset),
                   (at, size, protection, flags, fd, offset), MAP_FAILED)
PKGDIST_WRAP_ERRNO(Call::kClockGettime, int, clock_gettime, (clockid_t id, timespec* now),
                   (id, now), -1)
PKGDIST_WRAP_RESULT(Call::kPthreadCreate, pthread_create,
                    (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
                     void* argument),
                    (thread, attributes, body, argument))
#define PKGDIST_WRAP_ENCODE(call, type)                                                            \
  extern "C" ssize_t __real_qidl_##type##_encode_ext(const type* message, uint8_t* to, size_t n);  \
  extern "C" ssize_t __wrap_qidl_##type##_encode_ext(const type* message, uint8_t* to, size_t n);  \
  extern "C" ssize_t __wrap_qidl_##type##_encode_ext(const type* message, uint8_t* to, size_t n) { \
    if (int result = failing(call); result != 0) return result;                                    \
    return __real_qidl_##type##_encode_ext(message, to, n);                                        \
  }
PKGDIST_WRAP_ENCODE(Call::kEncodeCtrlHeader, pkgdist_ctrl_msg_hdr)
PKGDIST_WRAP_ENCODE(Call::kEncodeDataHeader, pkgdist_data_msg_hdr)
PKGDIST_WRAP_RESULT(Call::kQitcCreate, qitc_handle_create,
                    (uint32_t size, int a, int b, int c, qitc_handle_t* out), (size, a, b, c, out))
PKGDIST_WRAP_RESULT(Call::kQitcPut, qitc_put, (qitc_handle_t channel, void* entry),
                    (channel, entry))
PKGDIST_WRAP_RESULT(Call::kQitcGet, qitc_get, (qitc_handle_t channel, void** entry),
                    (channel, entry))
PKGDIST_WRAP_RESULT(Call::kLevmAttach, levm_attach_qitc_handle,
                    (levm_handle_t levm, qitc_handle_t channel, qitc_handler_t handler,
                     int priority, int a, int b, int c),
                    (levm, channel, handler, priority, a, b, c))
PKGDIST_WRAP_RESULT(Call::kNodeidToStr, nodeid_to_str_external,
                    (nodeid_handle_t nodeid, char* buffer, size_t size), (nodeid, buffer, size))
PKGDIST_WRAP_RESULT(Call::kMutexUnlock, pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
PKGDIST_WRAP_RESULT(Call::kCondSignal, pthread_cond_signal, (pthread_cond_t * condition),
                    (condition))
PKGDIST_WRAP_RESULT(Call::kCondattrInit, pthread_condattr_init, (pthread_condattr_t * attributes),
                    (attributes))
PKGDIST_WRAP_RESULT(Call::kCondattrSetclock, pthread_condattr_setclock,
                    (pthread_condattr_t * attributes, clockid_t id), (attributes, id))
PKGDIST_WRAP_RESULT(Call::kCondInit, pthread_cond_init,
                    (pthread_cond_t * condition, const pthread_condattr_t* attributes),
                    (condition, attributes))
PKGDIST_WRAP_RESULT(Call::kCondTimedwait, pthread_cond_timedwait,
                    (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* until),
                    (condition, mutex, until))
PKGDIST_WRAP_ERRNO(Call::kCreateDirs, int, instcomm_create_filepath_dirs, (const char* path),
                   (path), -1)

extern "C" int __real_nodeid_create(uint32_t, uint32_t, uint32_t, nodeid_handle_t*);
extern "C" int __wrap_nodeid_create(uint32_t, uint32_t, uint32_t, nodeid_handle_t*);
extern "C" int __wrap_nodeid_create(uint32_t first, uint32_t second, uint32_t third,
                                    nodeid_handle_t* out) {
  if (int error = failing(Call::kNodeidCreate); error != 0) return error;
  const int result = __real_nodeid_create(first, second, third, out);
  if (result == 0) support::identities.push_back(*out);
  return result;
}

extern "C" ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
extern "C" ssize_t __wrap_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
extern "C" ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags,
                                 const sockaddr* to, socklen_t length) {
  if (int error = failing(Call::kSendto); error != 0) {
    errno = error;
    return -1;
  }
  if (!support::capturing) return __real_sendto(fd, data, size, flags, to, length);
  sockaddr_in address{};
  std::memcpy(&address, to, sizeof address);
  const auto* bytes = static_cast<const uint8_t*>(data);
  const std::lock_guard lock(support::guard);
  support::sent_datagrams.push_back({fd, ntohl(address.sin_addr.s_addr), ntohs(address.sin_port),
                                     support::Bytes(bytes, bytes + size)});
  const bool cut = support::faults::calls(Call::kSendto) == support::short_send_nth;
  return static_cast<ssize_t>(cut ? std::min(size, support::short_send_bytes.load()) : size);
}

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (support::lock_hook) {
    auto hook = std::exchange(support::lock_hook, nullptr);
    hook(mutex);
    support::lock_hook = std::move(hook);
  }
  if (int error = failing(Call::kMutexLock); error != 0) return error;
  return __real_pthread_mutex_lock(mutex);
}

extern "C" int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
extern "C" int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*);
extern "C" int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* bad, timeval* wait) {
  support::last_select_wait =
      static_cast<uint64_t>(wait->tv_sec) * 1'000'000 + static_cast<uint64_t>(wait->tv_usec);
  if (int error = failing(Call::kSelect); error != 0) {
    errno = error;
    return -1;
  }
  return __real_select(count, in, out, bad, wait);
}

extern "C" int __real_open(const char*, int, ...);
extern "C" int __wrap_open(const char*, int, ...);
extern "C" int __wrap_open(const char* path, int flags, ...) {
  if (int error = failing(Call::kOpen); error != 0) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return __real_open(path, flags, mode);
}

extern "C" ssize_t __real_write(int, const void*, size_t);
extern "C" ssize_t __wrap_write(int, const void*, size_t);
extern "C" ssize_t __wrap_write(int fd, const void* data, size_t size) {
  if (int error = failing(Call::kWrite); error != 0) {
    errno = error;
    return -1;
  }
  const bool cut = support::faults::calls(Call::kWrite) == support::short_write_nth;
  return __real_write(fd, data, cut ? std::min(size, support::short_write_bytes.load()) : size);
}

extern "C" unsigned __wrap_sleep(unsigned);
extern "C" unsigned __wrap_sleep(unsigned) {
  ++support::sleep_count;
  return 0;
}
