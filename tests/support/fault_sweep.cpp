#include "fault_sweep.h"

#include <execinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_socket.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#if defined(__SANITIZE_ADDRESS__)
// A process that remembers less is faster to fork.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=1";
}
#endif

namespace support {
namespace {

// From a mutex call up to the function of the library that wants it, with what counts statistics in
// between.
constexpr size_t kFramesThatTell = 10;

constexpr unsigned kMostCalls = 2'000;  // of one kind in one scenario: far beyond all of them

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all))) -
         1;  // without the iterator's own
}

template <class Db>
size_t length_of(const Db& db) {
  size_t length = 0;
  for (const auto* at = db.head; at != nullptr; at = at->next) ++length;
  EXPECT_EQ(length, db.count) << "the queue and its count differ";
  EXPECT_EQ(db.head == nullptr, db.tail == nullptr);
  return length;
}

// Descriptors that the library is entitled to at the moment.
size_t owned_descriptors() {
  size_t owned = 0;
  for (const int socket : {G_ctrl_mc_rx_socket, G_ctrl_uc_rx_socket, G_ctrl_uc_tx_socket,
                           G_data_req_socket, G_data_rx_socket})
    if (socket != -1) ++owned;
  for (const auto* at = G_file_recv_db.head; at != nullptr; at = at->next)
    if (at->fd != -1) ++owned;
  return owned + G_ctrl_recv_qitc_db.count + G_data_recv_qitc_db.count;
}

bool is_documented(PkgdistStatus status) {
  constexpr PkgdistStatus kErrnoBits = 0x7FF;
  const PkgdistStatus known[] = {
      PKGDIST_ERR_SYSTEM,    PKGDIST_ERR_NOMEM,        PKGDIST_ERR_INVALID,   PKGDIST_ERR_SEND,
      PKGDIST_ERR_NOT_FOUND, PKGDIST_ERR_ENCODE,       PKGDIST_ERR_TIMEOUT,   PKGDIST_ERR_DECODE,
      PKGDIST_ERR_WRITE,     PKGDIST_STATUS_CANCELLED, PKGDIST_STATUS_DELETED};
  if (std::find(std::begin(known), std::end(known), status) != std::end(known)) return true;
  return (status & ~kErrnoBits) == PKGDIST_STATUS_FROM_ERRNO(0) && (status & kErrnoBits) != 0;
}

// Everything in `some` that is not in `usual`, in the order of `some`.
template <class All>
std::vector<typename All::value_type> beyond(const All& some, const All& usual) {
  std::multiset<typename All::value_type> known(usual.begin(), usual.end());
  std::vector<typename All::value_type> more;
  for (const auto& one : some) {
    if (const auto found = known.find(one); found != known.end())
      known.erase(found);
    else
      more.push_back(one);
  }
  return more;
}

// Contexts and channels agree on who uses what.
template <class Contexts, class Channels>
void expect_counted(const Contexts& contexts, const Channels& channels) {
  length_of(contexts);
  length_of(channels);
  for (const auto* channel = channels.head; channel != nullptr; channel = channel->next) {
    uint32_t users = 0;
    for (const auto* at = contexts.head; at != nullptr; at = at->next)
      if (at->channel_id == channel->channel_id) ++users;
    EXPECT_EQ(channel->reference_count, users) << "channel " << channel->channel_id;
  }
  for (const auto* at = contexts.head; at != nullptr; at = at->next)
    EXPECT_NE(channels.find([&](const auto& one) { return one.channel_id == at->channel_id; }),
              nullptr)
        << "context " << at->recv_id << " without its channel";
}

int failures() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// The text without a part that differs from run to run.
std::string without(std::string text, const std::string& part) {
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part))
    text.erase(at, part.size());
  return text;
}

// Whether these words say that a callback could not be queued: nobody is told then, and the context
// that waits for it stays.
bool is_lost_callback(const std::string& words) {
  for (const char* part : {"QITC_ENTRY failed", "_QITC failed", "qitc put failed", "qitc_put()"})
    if (words.find(part) != std::string::npos) return true;
  return false;
}

// Contexts that serve one callback.
template <class Contexts>
size_t waiting_contexts(const Contexts& contexts) {
  size_t waiting = 0;
  for (const auto* at = contexts.head; at != nullptr; at = at->next)
    waiting += at->recv_id >= pkgdist::kFirstAllocatedId ? 1 : 0;
  return waiting;
}

bool is_fatal(Call call) {
  return call == Call::kMutexLock || call == Call::kMutexUnlock || call == Call::kCondTimedwait;
}

// Calls whose failure nobody hears of, wherever they are made:
//   kClose, kMunmap, kQitcDestroy, kAttrDestroy, kCondDestroy
//              give something back; it is gone either way, and nothing can be done about it
//   kPrctl     names a thread
//   kRead      clears the counter of a callback channel; the event loop clears it again
//   kEpollWait is the caller's own loop, which is told by levm_run_once()
bool is_silent(Call call) {
  switch (call) {
    case Call::kClose:
    case Call::kMunmap:
    case Call::kQitcDestroy:
    case Call::kAttrDestroy:
    case Call::kCondDestroy:
    case Call::kPrctl:
    case Call::kRead:
    case Call::kEpollWait:
      return true;
    default:
      return false;
  }
}

// With what a call fails unless the table says otherwise: the codec with a result below 0.
int usual_error(Call call) {
  const bool codec = call == Call::kEncodeCtrlHeader || call == Call::kEncodeDataHeader ||
                     call == Call::kEncodeBody || call == Call::kDecode;
  return codec ? QIDL_ERR_NOMEM : EIO;
}

// Names of statuses, as tables have them.
std::string status_text(PkgdistStatus status) {
#define PKGDIST_NAMED(name) \
  if (status == name) return #name;
  PKGDIST_NAMED(PKGDIST_ERR_SYSTEM)
  PKGDIST_NAMED(PKGDIST_ERR_NOMEM)
  PKGDIST_NAMED(PKGDIST_ERR_SEND)
  PKGDIST_NAMED(PKGDIST_ERR_NOT_FOUND)
  PKGDIST_NAMED(PKGDIST_ERR_ENCODE)
  PKGDIST_NAMED(PKGDIST_ERR_WRITE)
  PKGDIST_NAMED(PKGDIST_STATUS_CANCELLED)
#undef PKGDIST_NAMED
  char text[48];
  const bool from_errno = (status & ~PkgdistStatus{0x7FF}) == PKGDIST_STATUS_FROM_ERRNO(0);
  (void)std::snprintf(text, sizeof text, from_errno ? "PKGDIST_STATUS_FROM_ERRNO(%ld)" : "0x%lx",
                      from_errno ? status & 0x7FF : status);
  return text;
}

// A row as a table has it: the words without the function that reports.
std::string row_text(std::string words, PkgdistStatus told) {
  if (const size_t colon = words.find(": "); colon != std::string::npos) words.erase(0, colon + 2);
  while (!words.empty() && words.back() == '\n') words.pop_back();
  return "{\"" + words + "\"" + (told != 0 ? ", " + status_text(told) : "") + "}";
}

// The call stack, as a name for where a call is made.
// The frames nearest to it: beyond them two calls of the same place would look different.
std::vector<void*> call_stack() {
  std::vector<void*> frames(kFramesThatTell);
  frames.resize(static_cast<size_t>(backtrace(frames.data(), static_cast<int>(frames.size()))));
  return frames;
}

}  // namespace

void FaultSweep::SetUp() {
  CtrlTest::SetUp();
  client.files.clear();
  client.starts.clear();
  client.dones.clear();
  messages().clear();
  statuses().clear();
  lead_changes().clear();
  told_.clear();
}

void FaultSweep::TearDown() {
  const faults::Paused paused;
  CtrlTest::TearDown();
  DataTest::TearDown();
  for (int* socket : {&G_ctrl_mc_rx_socket, &G_ctrl_uc_rx_socket, &G_ctrl_uc_tx_socket})
    pkgdist::close_socket(*socket);
  G_data_recv_file_queue_inited = G_pkgdist_file_recv_thread_waiting = false;
  G_ctrl_recv_rx_thread_running = false;
  G_pkgdist_file_recv_cond = PTHREAD_COND_INITIALIZER;
}

void FaultSweep::start_anew() {
  TearDown();
  SetUp();
}

PkgdistStatus FaultSweep::tell(PkgdistStatus status) {
  if (status != 0) told_.insert(status);
  return status;
}

void FaultSweep::deliver() {
  while (run() > 0) {
  }
  client.deliver();
}

void FaultSweep::run_file_loop() {
  G_data_recv_file_thread_running = G_data_recv_file_exit_thread = true;
  EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
  G_data_recv_file_thread_running = true;
}

void FaultSweep::data_arrives(uint32_t msg_id, const Bytes& body) {
  const Bytes datagram = data_datagram(msg_id, body, G_lead_uc_addr);
  pkgdist_file_recv_queue_msg(datagram.data(), datagram.size());
  run_file_loop();
}

Bytes FaultSweep::segment_bytes(const Info& info, uint32_t segment) {
  const Bytes whole = content(info.size);
  const auto from = static_cast<ptrdiff_t>(segment * info.segment_size);
  const auto to = static_cast<ptrdiff_t>(std::min((segment + 1) * info.segment_size, info.size));
  return Bytes(whole.begin() + from, whole.begin() + to);
}

void FaultSweep::file_arrives(const Info& info, const std::vector<uint32_t>& segments) {
  data_arrives(PKGDIST_DATA_MSG_FILE_INFO, encoded_info(info));
  for (const uint32_t segment : segments)
    data_arrives(PKGDIST_DATA_MSG_SEGMENT,
                 encoded_segment(info.id, segment, segment_bytes(info, segment)));
}

Bytes FaultSweep::next_control(const std::string& data, uint32_t msg_class) {
  return control({.sequence = G_ctrl_mc_last_sequence + 1,
                  .data = data,
                  .msg_class = msg_class,
                  .from = {.address = G_lead_uc_addr, .pid = G_lead_pid}});
}

void FaultSweep::let_time_pass() {
  for (int i = 0; i < 40; ++i) {
    clock::advance(4 * kSecond);
    pkgdist_ctrl_recv_chk_timeout();
    (void)pkgdist_data_recv_timeout();
  }
  deliver();
}

FaultSweep::Outcome FaultSweep::outcome() {
  Outcome result;
  for (const Record& record : logs::records())
    if (record.error)
      result.errors.push_back(without(without(record.text, directory()), memory_prefix()));
  result.told = told_;
  for (const PkgdistStatus status : statuses())
    if (status != 0) result.told.insert(status);
  for (const FileEvent& event : client.files)
    if (event.status != 0) result.told.insert(event.status);
  for (const DoneEvent& event : client.dones)
    if (event.status != 0) result.told.insert(event.status);
  return result;
}

void FaultSweep::prepare(const Scenario& scenario) {
  const faults::Paused paused;
  if (scenario.prepare) scenario.prepare();
  descriptors_ = open_descriptors() - owned_descriptors();
  logs::records().clear();
}

void FaultSweep::run_without_failure(const Scenario& scenario) {
  start_anew();
  prepare(scenario);
  scenario.exercise();
  usual_ = outcome();
  callback_lost_ = false;
  if (scenario.recover) scenario.recover();
  expect_whole();
}

bool FaultSweep::run_with_failure(const Scenario& scenario, Call call, unsigned nth, int error) {
  start_anew();
  prepare(scenario);
  faults::fail(call, nth, error);
  scenario.exercise();
  const bool fired = faults::calls(call) >= nth;
  faults::fail(call, 0);
  return fired;
}

void FaultSweep::expect_row(const Failure* row, const std::string& where) {
  const Outcome now = outcome();
  std::string words;
  if (const auto errors = beyond(now.errors, usual_.errors); !errors.empty()) words = errors[0];
  const auto told = beyond(now.told, usual_.told);
  const PkgdistStatus status = told.empty() ? 0 : told[0];
  callback_lost_ = is_lost_callback(words);
  found_ += row_text(words, status) + ",\n";
  for (const PkgdistStatus one : told) {
    EXPECT_EQ(one, status) << where << ": told two different statuses: " << words;
    EXPECT_TRUE(is_documented(one)) << where << ": told " << std::hex << one;
  }
  if (row == nullptr) {
    ADD_FAILURE() << where << ": not in the table: " << row_text(words, status);
    return;
  }
  EXPECT_EQ(status, row->told) << where << ": " << row_text(words, status);
  if (*row->words == '\0')
    EXPECT_EQ(words, "") << where;
  else
    EXPECT_NE(words.find(row->words), std::string::npos)
        << where << ": expected " << row->words << ", is " << row_text(words, status);
}

void FaultSweep::sweep_call(const Scenario& scenario, const Failures& expected) {
  std::vector<Failure> rows;
  for (const Failure& row : expected.rows)
    for (unsigned i = 0; i < row.times; ++i) rows.push_back(row);
  found_.clear();
  const int failed_before = failures();
  unsigned nth = 1;
  for (; nth < kMostCalls; ++nth) {
    const int error = expected.error != 0 ? expected.error : usual_error(expected.call);
    if (!run_with_failure(scenario, expected.call, nth, error)) break;
    ++injected_;
    const std::string where = std::string(name_of(expected.call)) + " " + std::to_string(nth);
    const testing::ScopedTrace trace(__FILE__, __LINE__, where);
    static const Failure silence{""};
    const Failure* row = nth <= rows.size() ? &rows[nth - 1] : nullptr;
    expect_row(is_silent(expected.call) ? &silence : row, where);
    const faults::Paused paused;
    if (scenario.recover) scenario.recover();
    expect_whole();
  }
  const unsigned made = nth - 1;
  EXPECT_TRUE(made == rows.size() || is_silent(expected.call))
      << name_of(expected.call) << ": " << made << " calls, " << rows.size() << " rows";
  if (failures() != failed_before)
    std::printf("{Call::%s, {\n%s}},\n", name_of(expected.call), found_.c_str());
}

// Each place that takes, gives back or waits is tried once, in a child that must die of it.
void FaultSweep::sweep_fatal(const Scenario& scenario) {
  static std::set<std::vector<void*>> tried;
  start_anew();
  prepare(scenario);
  const auto mutexes = library_mutexes();
  faults::inject([&](Call call, const void* object) {
    const bool ours = object == &G_pkgdist_file_recv_cond ||
                      std::find(mutexes.begin(), mutexes.end(), object) != mutexes.end();
    if (!ours || !tried.insert(call_stack()).second) return 0;
    ++injected_;
    const pid_t child = fork();
    if (child == 0) {
      alarm(10);
      faults::inject(nullptr);
      logs::records().clear();
      faults::on_assertion([call] {
        const char* const function = call == Call::kMutexLock     ? "pthread_mutex_lock"
                                     : call == Call::kMutexUnlock ? "pthread_mutex_unlock"
                                                                  : "pthread_cond_timedwait()";
        const std::string end = std::string(function) + " failed: Invalid argument\n";
        const Record& last = logs::records().back();
        _exit(last.error && last.text.rfind("ERR:", 0) == 0 && last.text.ends_with(end) ? 0 : 1);
      });
      return EINVAL;
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << name_of(call) << " failed, and the process did not end as it should";
    return 0;
  });
  scenario.exercise();
  faults::inject(nullptr);
}

void FaultSweep::sweep(const Scenario& scenario, const std::vector<Failures>& expected) {
  run_without_failure(scenario);
  if (HasFailure()) return;
  std::set<Call> listed;
  for (const Failures& one : expected) {
    listed.insert(one.call);
    sweep_call(scenario, one);
  }
  for (int i = 0; i < static_cast<int>(Call::kCount); ++i) {
    const auto call = static_cast<Call>(i);
    if (!is_fatal(call) && listed.count(call) == 0) sweep_call(scenario, {call, {}});
  }
  sweep_fatal(scenario);
  start_anew();
  RecordProperty("injected_failures", static_cast<int>(injected_));
  std::printf("injected failures: %u\n", injected_);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "something was lost on the way";
#endif
}

// --- What holds after every failure ---

void FaultSweep::expect_database_counts() {
  const auto received = [](bool unicast) {
    size_t entries = 0;
    for (const auto* at = G_ctrl_recv_rx_msg_db.head; at != nullptr; at = at->next)
      entries += at->unicast == unicast ? 1 : 0;
    return entries;
  };
  length_of(G_ctrl_recv_rx_msg_db);
  if (pkgdist_crs_ship_counter_hdl != nullptr) {
    EXPECT_EQ(value(CrsCounter::kUcAddMsg) - value(CrsCounter::kUcDeleteMsg),
              length_of(G_ctrl_recv_msg_db));
    EXPECT_EQ(value(CrsCounter::kRxAddMcMsg) + value(CrsCounter::kRxOosAddMc) -
                  value(CrsCounter::kRxDeleteMcMsg),
              received(false));
    EXPECT_EQ(value(CrsCounter::kRxAddUcMsg) + value(CrsCounter::kRxOosAddUc) -
                  value(CrsCounter::kRxDeleteUcMsg),
              received(true));
  }
  if (pkgdist_drs_ship_counter_hdl == nullptr) return;
  EXPECT_EQ(value(DrsCounter::kFileAdd) - value(DrsCounter::kFileRemove),
            length_of(G_file_recv_db));
  EXPECT_EQ(value(DrsCounter::kStatAdd) - value(DrsCounter::kStatRemove),
            length_of(G_file_stat_db));
}

void FaultSweep::expect_references() {
  expect_counted(G_ctrl_recv_ctx_db, G_ctrl_recv_qitc_db);
  expect_counted(G_data_recv_ctx_db, G_data_recv_qitc_db);
}

void FaultSweep::expect_good_message() {
  constexpr uint32_t kClass = 5;
  attach(kClass);
  wire::take();
  const uint32_t sequence = G_ctrl_mc_last_sequence + 1;
  receive(next_control("a good message", kClass));
  messages().clear();
  deliver();
  EXPECT_EQ(messages(), Words{"a good message"});
  const Words sent = answers();
  const std::string acknowledgement = "MC ACK " + std::to_string(sequence) + " ";
  EXPECT_TRUE(sent.size() == 1 && sent[0].rfind(acknowledgement, 0) == 0);
  EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), kClass, nullptr, nullptr), 0u);
}

void FaultSweep::expect_good_file() {
  const Info info{.id = 4'711, .name = "good/file", .size = 11, .mtime = 1'000'000};
  EXPECT_EQ(instcomm_pkgdist_get_file(info.name.c_str(), 1, 1, 1, 4'711, client.loop(),
                                      Client::file_cb, &client),
            0u);
  file_arrives(info, {0, 1, 2});
  client.files.clear();
  deliver();
  const FileEvent good{0, info.name, 1, 1, 4'711};
  EXPECT_EQ(std::count(client.files.begin(), client.files.end(), good), 1);
  EXPECT_EQ(bytes_of(path(info.name)), content(info.size));
  EXPECT_FALSE(exists(path(info.name + ".tmp")));
}

void FaultSweep::expect_whole() {
  EXPECT_EQ(open_descriptors(), descriptors_ + owned_descriptors()) << "a descriptor is left over";
  if (!all_locks_are_free()) {
    ADD_FAILURE() << "a lock is still held";
    std::abort();  // every later call would wait for it
  }
  expect_database_counts();
  expect_references();
  deliver();
  expect_good_message();
  expect_good_file();
  let_time_pass();
  if (!callback_lost_) {
    const size_t waiting =
        waiting_contexts(G_ctrl_recv_ctx_db) + waiting_contexts(G_data_recv_ctx_db);
    EXPECT_EQ(waiting, 0u) << "a client waits for ever for a callback";
  }
  EXPECT_EQ(G_file_recv_db.count, 0u) << "a file waits for ever";
  EXPECT_EQ(G_file_stat_db.count, 0u) << "an outcome is remembered for ever";
  EXPECT_EQ(G_ctrl_recv_msg_db.count, 0u) << "a message to the lead waits for ever";
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u) << "a message of the lead waits for ever";
  expect_database_counts();
  expect_references();
}

}  // namespace support
