#include "lock_order.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_lead_msg.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "platform/inst_common.h"

namespace support::lock_order {
namespace {

struct Known {
  const char* name;
  pthread_mutex_t* mutex;
};
const Known kMutexes[] = {
    {"control receive db", &G_ctrl_recv_rx_msg_db.mutex},
    {"file stat db", &G_file_stat_db.mutex},
    {"file receive db", &G_file_recv_db.mutex},
    {"data contexts", &G_data_recv_ctx_db.mutex},
    {"data channels", &G_data_recv_qitc_db.mutex},
    {"DATA_RX mutex", &G_data_rx_mutex},
    {"DATA_FILE mutex", &G_pkgdist_file_recv_mutex},
    {"atomic_mutex", &atomic_mutex},
    {"lead messages", &G_ctrl_recv_msg_db.mutex},
    {"control contexts", &G_ctrl_recv_ctx_db.mutex},
    {"control channels", &G_ctrl_recv_qitc_db.mutex},
};
constexpr size_t kCount = std::size(kMutexes);

// Sets of mutexes are bits by their place in the list above.
using Set = uint32_t;

size_t index_of(std::string_view name) {
  const auto* at = std::find_if(std::begin(kMutexes), std::end(kMutexes),
                                [=](const Known& known) { return name == known.name; });
  if (at != std::end(kMutexes)) return static_cast<size_t>(at - std::begin(kMutexes));
  std::fprintf(stderr, "lock order: no mutex is named '%.*s'\n", static_cast<int>(name.size()),
               name.data());
  std::abort();
}

// Reads the order:  chain = item { "->" item };  item = name | "{" chain { "," chain } "}"
class OrderText {
 public:
  OrderText(std::string_view text, std::array<Set, kCount>& after) : text_(text), after_(after) {
    (void)chain();
  }

 private:
  Set chain() {
    Set before = 0;
    do {
      const Set next = item();
      for (size_t i = 0; i < kCount; ++i)
        if ((before >> i & 1) != 0) after_[i] |= next;
      before |= next;
    } while (take("->"));
    return before;
  }

  Set item() {
    if (!take("{")) return Set{1} << index_of(name());
    Set all = chain();
    while (take(",")) all |= chain();
    (void)take("}");
    return all;
  }

  std::string_view name() {
    skip_blanks();
    size_t end = std::min(text_.find(" ->"), text_.find_first_of(",}"));
    end = std::min(end, text_.size());
    const std::string_view found = text_.substr(0, end);
    text_.remove_prefix(end);
    return found.substr(0, found.find_last_not_of(' ') + 1);
  }

  bool take(std::string_view token) {
    skip_blanks();
    if (text_.substr(0, token.size()) != token) return false;
    text_.remove_prefix(token.size());
    return true;
  }

  void skip_blanks() { text_.remove_prefix(std::min(text_.find_first_not_of(' '), text_.size())); }

  std::string_view text_;
  std::array<Set, kCount>& after_;
};

std::array<Set, kCount> read_order() {
  std::array<Set, kCount> after{};
  for (const char* line : kOrder) OrderText(line, after);
  return after;
}

// For each mutex those that may be taken while it is held. Locks that are taken before main() made
// it are not watched.
std::atomic<bool> ready{false};
const std::array<Set, kCount> may_follow = [] {
  auto result = read_order();
  ready = true;
  return result;
}();

std::atomic<Set> pairs_seen[kCount];
thread_local Set held = 0;

// Neither allocates nor locks: it runs wherever the library locks.
void note_pair(size_t holder, size_t taken) {
  if ((pairs_seen[holder].fetch_or(Set{1} << taken) >> taken & 1) != 0) return;
  const char* file = std::getenv("PKGDIST_LOCK_ORDER");
  if (file == nullptr) return;
  char line[128];
  const int length =
      std::snprintf(line, sizeof line, "%s -> %s\n", kMutexes[holder].name, kMutexes[taken].name);
  const int fd = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  [[maybe_unused]] const ssize_t wrote = write(fd, line, static_cast<size_t>(length));
  close(fd);
}

[[noreturn]] void refuse(size_t holder, size_t taken) {
  char line[160];
  const int length = std::snprintf(line, sizeof line, "lock order: %s is taken while %s is held\n",
                                   kMutexes[taken].name, kMutexes[holder].name);
  [[maybe_unused]] const ssize_t wrote = write(STDERR_FILENO, line, static_cast<size_t>(length));
  std::abort();
}

// Which of the watched mutexes this is; kCount for any other.
size_t watched(const pthread_mutex_t* mutex) {
  if (!ready.load(std::memory_order_relaxed)) return kCount;
  size_t i = 0;
  while (i < kCount && kMutexes[i].mutex != mutex) ++i;
  return i;
}

void before_lock(size_t taken) {
  for (size_t holder = 0; holder < kCount; ++holder) {
    if ((held >> holder & 1) == 0) continue;
    note_pair(holder, taken);
    if ((may_follow[holder] >> taken & 1) == 0) refuse(holder, taken);
  }
}

using Operation = int (*)(pthread_mutex_t*);
int real(std::atomic<Operation>& operation, const char* name, pthread_mutex_t* mutex) {
  Operation call = operation.load(std::memory_order_relaxed);
  if (call == nullptr) {
    call = reinterpret_cast<Operation>(dlsym(RTLD_NEXT, name));
    operation.store(call, std::memory_order_relaxed);
  }
  return call(mutex);
}

}  // namespace

bool allows(const std::string& holder, const std::string& taken) {
  return (may_follow[index_of(holder)] >> index_of(taken) & 1) != 0;
}

std::vector<Pair> seen() {
  std::vector<Pair> pairs;
  for (size_t holder = 0; holder < kCount; ++holder)
    for (size_t taken = 0; taken < kCount; ++taken)
      if ((pairs_seen[holder] >> taken & 1) != 0)
        pairs.emplace_back(kMutexes[holder].name, kMutexes[taken].name);
  return pairs;
}

pthread_mutex_t& mutex_of(const std::string& name) {
  return *kMutexes[index_of(name)].mutex;
}

}  // namespace support::lock_order

using namespace support::lock_order;

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static std::atomic<Operation> operation{nullptr};
  const size_t which = watched(mutex);
  if (which != kCount) before_lock(which);
  const int result = real(operation, "pthread_mutex_lock", mutex);
  if (which != kCount && result == 0) held |= Set{1} << which;
  return result;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static std::atomic<Operation> operation{nullptr};
  const size_t which = watched(mutex);
  if (which != kCount) held &= ~(Set{1} << which);
  return real(operation, "pthread_mutex_unlock", mutex);
}
