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

#include "fault_wrap.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_log.h"
#include "platform/inst_common.h"
#include "trace_text.h"

namespace support {
namespace {

std::atomic<uint64_t> now_ns{0};
std::atomic<bool> real_time{false};
std::atomic<bool> codec_leaves_residue{false};

std::mutex guard;  // of the two below
std::vector<Sent> sent_datagrams;
std::vector<Record> log_records;
std::atomic<bool> capturing{false};
std::atomic<bool> keeping_logs{true};

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

// One record as text, so that the signature is exercised as well.
std::string render(const char* signature, const char* format, va_list arguments) {
  std::string problem;
  std::string text = pkgdist::test::trace_text(signature, format, arguments, &problem);
  EXPECT_EQ(problem, "");
  return text;
}

constexpr pkgdist_ctrl_timeouts kCtrlTimeouts = {
    125'000, 250'000'000, 500'000'000, 250'000'000, 7'500'000'000, 5, 524'288};
constexpr pkgdist_data_timeouts kDataTimeouts = {
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

CodecResidue::CodecResidue() {
  codec_leaves_residue = true;
}
CodecResidue::~CodecResidue() {
  codec_leaves_residue = false;
}

uint64_t clock::now() {
  if (!real_time) return now_ns;
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec);
}
void clock::set(uint64_t nanoseconds) {
  now_ns = nanoseconds;
}
void clock::advance(uint64_t nanoseconds) {
  now_ns += nanoseconds;
}
void clock::follow_real_time() {
  real_time = true;
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
  const faults::Paused paused;
  pkgdist_ctrl_msg_hdr header{};
  EXPECT_EQ(pkgdist::decode(datagram.data() + 4, pkgdist::header_length(datagram.data()), header),
            0);
  return header;
}
pkgdist_data_msg_hdr data_header(const Bytes& datagram) {
  const faults::Paused paused;
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

void logs::keep(bool on) {
  keeping_logs = on;
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
  // Later each time: what the library remembers of an earlier test is long ago.
  static uint64_t resets = 0;
  now_ns = (3600 + ++resets * 100) * kSecond;
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

std::vector<pthread_mutex_t*> library_mutexes() {
  return {&G_ctrl_recv_rx_msg_db.mutex,
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
}

bool all_locks_are_free() {
  const faults::Paused paused;
  const auto mutexes = library_mutexes();
  return std::all_of(mutexes.begin(), mutexes.end(), [](pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0;
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
using support::faults::failing;

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
  if (!support::keeping_logs) return;
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

// --- Wrapped functions of the platform and the codec ---

#define PKGDIST_WRAP_ENCODE(call, type)                                                       \
  extern "C" ssize_t __real_qidl_##type##_encode_ext(const struct type* message, uint8_t* to, \
                                                     size_t n);                               \
  extern "C" ssize_t __wrap_qidl_##type##_encode_ext(const struct type* message, uint8_t* to, \
                                                     size_t n);                               \
  extern "C" ssize_t __wrap_qidl_##type##_encode_ext(const struct type* message, uint8_t* to, \
                                                     size_t n) {                              \
    if (int result = failing(call); result != 0) return result;                               \
    return __real_qidl_##type##_encode_ext(message, to, n);                                   \
  }
PKGDIST_WRAP_ENCODE(Call::kEncodeCtrlHeader, pkgdist_ctrl_msg_hdr)
PKGDIST_WRAP_ENCODE(Call::kEncodeDataHeader, pkgdist_data_msg_hdr)
PKGDIST_WRAP_ENCODE(Call::kEncodeBody, pkgdist_ctrl_msg)
PKGDIST_WRAP_ENCODE(Call::kEncodeBody, pkgdist_data_send_req)
PKGDIST_WRAP_ENCODE(Call::kEncodeBody, pkgdist_data_send_req_done)
PKGDIST_WRAP_ENCODE(Call::kEncodeBody, pkgdist_data_send_req_single)

namespace support {

template <auto Field>
void leave_in(auto& message) {
  if (!qidl::has<Field>(message)) message.*Field = 1;
}
void leave_residue_in(const auto& /*message*/) {}
void leave_residue_in(pkgdist_ctrl_msg_hdr& header) {
  leave_in<&pkgdist_ctrl_msg_hdr::segment>(header);
  leave_in<&pkgdist_ctrl_msg_hdr::status>(header);
  leave_in<&pkgdist_ctrl_msg_hdr::node_id>(header);
}
void leave_residue_in(pkgdist_ctrl_msg& body) {
  leave_in<&pkgdist_ctrl_msg::rxmt>(body);
}
void leave_residue_in(pkgdist_data_send_segment& segment) {
  leave_in<&pkgdist_data_send_segment::repair>(segment);
}

}  // namespace support

#define PKGDIST_WRAP_DECODE(type)                                                                  \
  extern "C" int __real_qidl_##type##_decode_ext(const uint8_t*, size_t, type*,                    \
                                                 const qidl_allocator*);                           \
  extern "C" int __wrap_qidl_##type##_decode_ext(const uint8_t*, size_t, type*,                    \
                                                 const qidl_allocator*);                           \
  extern "C" int __wrap_qidl_##type##_decode_ext(const uint8_t* data, size_t length,               \
                                                 type* message, const qidl_allocator* allocator) { \
    if (int error = failing(Call::kDecode); error != 0) return error;                              \
    const int result = __real_qidl_##type##_decode_ext(data, length, message, allocator);          \
    if (result == 0 && support::codec_leaves_residue) support::leave_residue_in(*message);         \
    return result;                                                                                 \
  }
PKGDIST_WRAP_DECODE(pkgdist_ctrl_msg_hdr)
PKGDIST_WRAP_DECODE(pkgdist_ctrl_msg)
PKGDIST_WRAP_DECODE(pkgdist_data_msg_hdr)
PKGDIST_WRAP_DECODE(pkgdist_data_send_file_info)
PKGDIST_WRAP_DECODE(pkgdist_data_send_segment)
PKGDIST_WRAP_DECODE(pkgdist_data_send_miss_done)
PKGDIST_WRAP_DECODE(pkgdist_file_send_ctrl)
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
extern "C" int __real_qitc_handle_destroy(qitc_handle_t);
extern "C" int __wrap_qitc_handle_destroy(qitc_handle_t);
extern "C" int __wrap_qitc_handle_destroy(qitc_handle_t channel) {
  const int error = failing(Call::kQitcDestroy);
  const int result = __real_qitc_handle_destroy(channel);
  return error != 0 ? error : result;
}

// Two helpers that fail with errno.
extern "C" int __real_instcomm_create_filepath_dirs(const char*);
extern "C" int __wrap_instcomm_create_filepath_dirs(const char*);
extern "C" int __wrap_instcomm_create_filepath_dirs(const char* path) {
  support::faults::note_path(Call::kCreateDirs, path);
  const int error = failing(Call::kCreateDirs);
  if (error == 0) return __real_instcomm_create_filepath_dirs(path);
  errno = error;
  return -1;
}
extern "C" int __real_inst_symlink(const char*, const char*);
extern "C" int __wrap_inst_symlink(const char*, const char*);
extern "C" int __wrap_inst_symlink(const char* target, const char* path) {
  support::faults::note_path(Call::kInstSymlink, path);
  int error = failing(Call::kInstSymlink);
  if (error == 0 && !support::faults::allows_link(target, path)) error = EPERM;
  if (error == 0) return __real_inst_symlink(target, path);
  errno = error;
  return -1;
}

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
  return static_cast<ssize_t>(support::faults::cut_send(size));
}
