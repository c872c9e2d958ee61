// Calls that fail on demand, for every test that wants to see what happens then.
//
// The linker's --wrap puts these functions between the product's objects and the C library, so the
// product has no hooks of its own. A test arms one kind of call; its n-th call fails, once. Calls
// that the test program itself makes count too: what must not is done under a Paused.
//
// Of what the product calls, these are not here:
//   free, memcpy, strlen, strcmp, snprintf and the like, getenv, getpid, gettid, strerror, the
//   queue functions, bounded copies, qitc_handle_fd, release of decoded messages: cannot fail
//   fprintf, vfprintf, fputc, flockfile, strftime, localtime_r: copies of log statements on
//   standard error; what cannot be written there is lost, and nobody could be told
//
// Functions whose failure only says that something was given back (close, munmap, the destroy
// functions) do their work and report the failure afterwards, as the system does.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace support {

// Memory, sockets, files, threads; then functions of the platform and the codec. Of the codec the
// "error number" is the result, of an encode also one that exceeds the buffer.
// clang-format off
#define PKGDIST_TEST_CALLS(X) \
  X(kMalloc) X(kCalloc) X(kRealloc) X(kStrdup) X(kNew) X(kSocket) X(kSetsockopt) X(kBind) \
  X(kSendto) X(kRecvfrom) X(kSelect) X(kSendmmsg) X(kRecvmmsg) X(kPoll) X(kPpoll) X(kOpen) \
  X(kLseek) X(kRead) X(kWrite) X(kPread) X(kPwritev) X(kClose) X(kRename) X(kUnlink) X(kUtime) \
  X(kStat) X(kLstat) X(kFstat) X(kReadlink) X(kMkdir) X(kSymlink) X(kShmOpen) X(kShmUnlink) \
  X(kFtruncate) X(kFallocate) X(kMmap) X(kMunmap) X(kEventfd) X(kEpollCreate) X(kEpollCtl) \
  X(kEpollWait) X(kAtexit) X(kAtfork) X(kPthreadCreate) X(kAttrInit) X(kAttrSetdetachstate) \
  X(kAttrDestroy) X(kMutexLock) X(kMutexUnlock) X(kCondSignal) X(kCondattrInit) \
  X(kCondattrSetclock) X(kCondInit) X(kCondDestroy) X(kCondTimedwait) X(kClockGettime) \
  X(kPrctl) X(kOpenat2) X(kShipRegister) X(kTraceOpen) X(kTraceEnable) X(kQitcCreate) X(kQitcDestroy) \
  X(kQitcPut) X(kQitcGet) X(kLevmAttach) X(kNodeidCreate) X(kNodeidToStr) X(kCreateDirs) \
  X(kInstSymlink) X(kEncodeCtrlHeader) X(kEncodeDataHeader) X(kEncodeBody) X(kDecode)
// clang-format on

enum class Call {
#define PKGDIST_TEST_CALL(name) name,
  PKGDIST_TEST_CALLS(PKGDIST_TEST_CALL)
#undef PKGDIST_TEST_CALL
      kCount
};
const char* name_of(Call call);

namespace faults {

void fail(Call call, unsigned nth = 1, int error_number = EIO);  // errno, or the returned number
void fail_always(Call call, int error_number = EIO);
void clear();
unsigned calls(Call call);                       // since the last reset
unsigned sleeps();                               // sleep() returns at once and is counted
void short_write(unsigned nth, size_t bytes);    // the n-th write() writes only so much
void short_pwritev(unsigned nth, size_t bytes);  // the n-th pwritev() reports only so much
void short_send(unsigned nth, size_t bytes);     // the n-th sendto() reports only so much
uint64_t select_wait();                          // the last select()'s time-out, microseconds
// Called before every lock of a mutex: what another thread does at that moment. Not while it runs.
void on_lock(std::function<void(const pthread_mutex_t* mutex)> hook);
// pthread_create() reports success and starts nothing while true: the test runs the loops itself.
void no_threads(bool on);
// Asked before every call on a mutex or condition, and its answer is the result unless 0.
using Injector = std::function<int(Call call, const void* object)>;
void inject(Injector injector);
// Called in place of the end of the process when an assertion fails; empty: the process ends.
void on_assertion(std::function<void()> hook);

// A small machine: so many allocations succeed from now on, none of them larger than `largest`.
void limit_memory(uint64_t allocations, size_t largest);
void unlimited_memory();
bool memory_ran_out();  // since it was limited

// Sees every path at which the library makes, changes or deletes something, before that happens.
// `call` says what for: shared-memory objects have a space of names of their own.
void on_path(std::function<void(Call call, const char* path)> hook);

// Asked before a symbolic link to `target` is made at `path`; with false that fails with EPERM.
void on_link(std::function<bool(const char* target, const char* path)> filter);

// While one exists, calls of this thread neither fail nor count.
class Paused {
 public:
  Paused();
  ~Paused();
  Paused(const Paused&) = delete;
  Paused& operator=(const Paused&) = delete;
};

// For wrappers: counts a call; the error number with which it is to fail, or 0.
int failing(Call call, const void* object = nullptr);
// For wrappers: tells the hook, asks the filter, if there is one.
void note_path(Call call, const char* path);
bool allows_link(const char* target, const char* path);
// For wrappers: what the call that was counted last reports in place of `size`.
size_t cut_send(size_t size);

}  // namespace faults
}  // namespace support
