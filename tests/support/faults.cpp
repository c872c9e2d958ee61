#include "faults.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "fault_wrap.h"

namespace support {
namespace {

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
std::atomic<unsigned> short_pwritev_nth{0};
std::atomic<size_t> short_pwritev_bytes{0};
std::atomic<unsigned> short_send_nth{0};
std::atomic<size_t> short_send_bytes{0};
std::atomic<uint64_t> last_select_wait{0};
std::atomic<bool> threads_are_faked{false};
std::function<void(const pthread_mutex_t*)> lock_hook;
faults::Injector injector;
std::function<void()> assertion_hook;
std::function<void(Call, const char*)> path_hook;
std::function<bool(const char*, const char*)> link_filter;
std::atomic<uint64_t> allocations_left{UINT64_MAX};
std::atomic<size_t> largest_allocation{SIZE_MAX};
std::atomic<bool> memory_was_refused{false};
thread_local int pauses = 0;

// Whether the small machine has these bytes.
bool has_memory(size_t size) {
  if (allocations_left == UINT64_MAX || pauses != 0) return true;
  if (allocations_left == 0 || size > largest_allocation) {
    memory_was_refused = true;
    return false;
  }
  --allocations_left;
  return true;
}

Fault& fault_of(Call call) {
  return fault_table[static_cast<size_t>(call)];
}

bool is_cut(Call call, const std::atomic<unsigned>& nth) {
  return nth != 0 && faults::calls(call) == nth;
}

}  // namespace

const char* name_of(Call call) {
  static const char* const names[] = {
#define PKGDIST_TEST_CALL(name) #name,
      PKGDIST_TEST_CALLS(PKGDIST_TEST_CALL)
#undef PKGDIST_TEST_CALL
  };
  return names[static_cast<size_t>(call)];
}

int faults::failing(Call call, const void* object) {
  if (pauses != 0) return 0;
  if (object != nullptr && injector) return injector(call, object);
  Fault& fault = fault_of(call);
  const unsigned number = ++fault.calls;
  return fault.always || number == fault.nth ? fault.error.load() : 0;
}
void faults::fail(Call call, unsigned nth, int error_number) {
  Fault& fault = fault_of(call);
  fault.calls = 0;
  fault.nth = nth;
  fault.error = error_number;
}
void faults::fail_always(Call call, int error_number) {
  fail(call, 0, error_number);
  fault_of(call).always = true;
}
void faults::clear() {
  for (Fault& fault : fault_table) {
    fault.calls = 0;
    fault.nth = 0;
    fault.always = false;
  }
  sleep_count = 0;
  short_write_nth = 0;
  short_pwritev_nth = 0;
  short_send_nth = 0;
  threads_are_faked = false;
  lock_hook = nullptr;
  injector = nullptr;
  assertion_hook = nullptr;
}
unsigned faults::calls(Call call) {
  return fault_of(call).calls;
}
unsigned faults::sleeps() {
  return sleep_count;
}
void faults::short_write(unsigned nth, size_t bytes) {
  fault_of(Call::kWrite).calls = 0;
  short_write_nth = nth;
  short_write_bytes = bytes;
}
void faults::short_pwritev(unsigned nth, size_t bytes) {
  fault_of(Call::kPwritev).calls = 0;
  short_pwritev_nth = nth;
  short_pwritev_bytes = bytes;
}
void faults::short_send(unsigned nth, size_t bytes) {
  fault_of(Call::kSendto).calls = 0;
  short_send_nth = nth;
  short_send_bytes = bytes;
}
uint64_t faults::select_wait() {
  return last_select_wait;
}
void faults::on_lock(std::function<void(const pthread_mutex_t* mutex)> hook) {
  lock_hook = std::move(hook);
}
void faults::no_threads(bool on) {
  threads_are_faked = on;
}
void faults::inject(Injector with) {
  injector = std::move(with);
}
void faults::on_assertion(std::function<void()> hook) {
  assertion_hook = std::move(hook);
}
void faults::limit_memory(uint64_t allocations, size_t largest) {
  allocations_left = allocations;
  largest_allocation = largest;
  memory_was_refused = false;
}
bool faults::memory_ran_out() {
  return memory_was_refused;
}
void faults::unlimited_memory() {
  allocations_left = UINT64_MAX;
}
void faults::on_path(std::function<void(Call call, const char* path)> hook) {
  path_hook = std::move(hook);
}
void faults::on_link(std::function<bool(const char* target, const char* path)> filter) {
  link_filter = std::move(filter);
}
bool faults::allows_link(const char* target, const char* path) {
  return !link_filter || link_filter(target, path);
}
void faults::note_path(Call call, const char* path) {
  if (path_hook) path_hook(call, path);
}
size_t faults::cut_send(size_t size) {
  return is_cut(Call::kSendto, short_send_nth) ? std::min(size, short_send_bytes.load()) : size;
}
faults::Paused::Paused() {
  ++pauses;
}
faults::Paused::~Paused() {
  --pauses;
}

}  // namespace support

using support::Call;
using support::faults::failing;

// --- Calls that fail with errno, or by returning the error number, and do nothing then ---

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

#define PKGDIST_WRAP_ALLOCATION(call, type, name, parameters, arguments, bytes) \
  extern "C" type __real_##name parameters;                                     \
  extern "C" type __wrap_##name parameters;                                     \
  extern "C" type __wrap_##name parameters {                                    \
    int error = failing(call);                                                  \
    if (error == 0 && !support::has_memory(bytes)) error = ENOMEM;              \
    if (error == 0) return __real_##name arguments;                             \
    errno = error;                                                              \
    return nullptr;                                                             \
  }
#define PKGDIST_WRAP_PATH(call, name, parameters, arguments) \
  extern "C" int __real_##name parameters;                   \
  extern "C" int __wrap_##name parameters;                   \
  extern "C" int __wrap_##name parameters {                  \
    support::faults::note_path(call, path);                  \
    if (int error = failing(call); error != 0) {             \
      errno = error;                                         \
      return -1;                                             \
    }                                                        \
    return __real_##name arguments;                          \
  }

PKGDIST_WRAP_ALLOCATION(Call::kMalloc, void*, malloc, (size_t size), (size), size)
PKGDIST_WRAP_ALLOCATION(Call::kCalloc, void*, calloc, (size_t n, size_t size), (n, size), n* size)
PKGDIST_WRAP_ALLOCATION(Call::kRealloc, void*, realloc, (void* old, size_t size), (old, size), size)
PKGDIST_WRAP_ALLOCATION(Call::kStrdup, char*, strdup, (const char* text), (text),
                        std::strlen(text) + 1)
// operator new(size, nothrow), of one object and of an array.
PKGDIST_WRAP_ERRNO(Call::kNew, void*, _ZnwmRKSt9nothrow_t, (size_t size, const std::nothrow_t& tag),
                   (size, tag), nullptr)
PKGDIST_WRAP_ERRNO(Call::kNew, void*, _ZnamRKSt9nothrow_t, (size_t size, const std::nothrow_t& tag),
                   (size, tag), nullptr)
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
PKGDIST_WRAP_ERRNO(Call::kSendmmsg, int, sendmmsg,
                   (int fd, mmsghdr* messages, unsigned count, int flags),
                   (fd, messages, count, flags), -1)
PKGDIST_WRAP_ERRNO(Call::kRecvmmsg, int, recvmmsg,
                   (int fd, mmsghdr* messages, unsigned count, int flags, timespec* wait),
                   (fd, messages, count, flags, wait), -1)
PKGDIST_WRAP_ERRNO(Call::kPoll, int, poll, (pollfd * fds, nfds_t count, int wait),
                   (fds, count, wait), -1)
PKGDIST_WRAP_ERRNO(Call::kPpoll, int, ppoll,
                   (pollfd * fds, nfds_t count, const timespec* wait, const sigset_t* mask),
                   (fds, count, wait, mask), -1)
PKGDIST_WRAP_ERRNO(Call::kLseek, off_t, lseek, (int fd, off_t offset, int whence),
                   (fd, offset, whence), -1)
PKGDIST_WRAP_ERRNO(Call::kRead, ssize_t, read, (int fd, void* data, size_t size), (fd, data, size),
                   -1)
PKGDIST_WRAP_ERRNO(Call::kPread, ssize_t, pread, (int fd, void* data, size_t size, off_t offset),
                   (fd, data, size, offset), -1)
PKGDIST_WRAP_PATH(Call::kUnlink, unlink, (const char* path), (path))
PKGDIST_WRAP_PATH(Call::kUtime, utime, (const char* path, const utimbuf* times), (path, times))
PKGDIST_WRAP_ERRNO(Call::kStat, int, stat, (const char* path, struct stat* found), (path, found),
                   -1)
PKGDIST_WRAP_ERRNO(Call::kLstat, int, lstat, (const char* path, struct stat* found), (path, found),
                   -1)
PKGDIST_WRAP_ERRNO(Call::kFstat, int, fstat, (int fd, struct stat* found), (fd, found), -1)
PKGDIST_WRAP_ERRNO(Call::kReadlink, ssize_t, readlink, (const char* path, char* to, size_t size),
                   (path, to, size), -1)
PKGDIST_WRAP_ERRNO(Call::kMkdir, int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
PKGDIST_WRAP_ERRNO(Call::kSymlink, int, symlink, (const char* target, const char* path),
                   (target, path), -1)
PKGDIST_WRAP_PATH(Call::kShmOpen, shm_open, (const char* path, int flags, mode_t mode),
                  (path, flags, mode))
PKGDIST_WRAP_PATH(Call::kShmUnlink, shm_unlink, (const char* path), (path))
PKGDIST_WRAP_ERRNO(Call::kFtruncate, int, ftruncate, (int fd, off_t size), (fd, size), -1)
PKGDIST_WRAP_ERRNO(Call::kFallocate, int, fallocate, (int fd, int mode, off_t at, off_t size),
                   (fd, mode, at, size), -1)
PKGDIST_WRAP_ERRNO(Call::kMmap, void*, mmap,
                   (void* at, size_t size, int protection, int flags, int fd, off_t offset),
                   (at, size, protection, flags, fd, offset), MAP_FAILED)
PKGDIST_WRAP_ERRNO(Call::kEventfd, int, eventfd, (unsigned count, int flags), (count, flags), -1)
PKGDIST_WRAP_ERRNO(Call::kEpollCreate, int, epoll_create1, (int flags), (flags), -1)
PKGDIST_WRAP_ERRNO(Call::kEpollCtl, int, epoll_ctl,
                   (int epoll, int operation, int fd, epoll_event* event),
                   (epoll, operation, fd, event), -1)
PKGDIST_WRAP_ERRNO(Call::kEpollWait, int, epoll_wait,
                   (int epoll, epoll_event* events, int count, int wait),
                   (epoll, events, count, wait), -1)
PKGDIST_WRAP_ERRNO(Call::kClockGettime, int, clock_gettime, (clockid_t id, timespec* now),
                   (id, now), -1)
PKGDIST_WRAP_RESULT(Call::kAtexit, atexit, (void (*function)(void)), (function))
PKGDIST_WRAP_RESULT(Call::kAtfork, pthread_atfork,
                    (void (*prepare)(void), void (*parent)(void), void (*child)(void)),
                    (prepare, parent, child))
PKGDIST_WRAP_RESULT(Call::kAttrInit, pthread_attr_init, (pthread_attr_t * attributes), (attributes))
PKGDIST_WRAP_RESULT(Call::kAttrSetdetachstate, pthread_attr_setdetachstate,
                    (pthread_attr_t * attributes, int state), (attributes, state))
PKGDIST_WRAP_RESULT(Call::kCondSignal, pthread_cond_signal, (pthread_cond_t * condition),
                    (condition))
PKGDIST_WRAP_RESULT(Call::kCondattrInit, pthread_condattr_init, (pthread_condattr_t * attributes),
                    (attributes))
PKGDIST_WRAP_RESULT(Call::kCondattrSetclock, pthread_condattr_setclock,
                    (pthread_condattr_t * attributes, clockid_t id), (attributes, id))
PKGDIST_WRAP_RESULT(Call::kCondInit, pthread_cond_init,
                    (pthread_cond_t * condition, const pthread_condattr_t* attributes),
                    (condition, attributes))

// --- Calls that give something back: done, then reported as failed ---

#define PKGDIST_WRAP_RELEASE(call, name, parameters, arguments, failure) \
  extern "C" int __real_##name parameters;                               \
  extern "C" int __wrap_##name parameters;                               \
  extern "C" int __wrap_##name parameters {                              \
    const int error = failing(call);                                     \
    const int result = __real_##name arguments;                          \
    if (error == 0) return result;                                       \
    errno = error;                                                       \
    return failure;                                                      \
  }

PKGDIST_WRAP_RELEASE(Call::kClose, close, (int fd), (fd), -1)
PKGDIST_WRAP_RELEASE(Call::kMunmap, munmap, (void* at, size_t size), (at, size), -1)
PKGDIST_WRAP_RELEASE(Call::kAttrDestroy, pthread_attr_destroy, (pthread_attr_t * attributes),
                     (attributes), error)
PKGDIST_WRAP_RELEASE(Call::kCondDestroy, pthread_cond_destroy, (pthread_cond_t * condition),
                     (condition), error)

// --- Calls with a character of their own ---

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*body)(void*), void* argument) {
  if (int error = failing(Call::kPthreadCreate); error != 0) return error;
  if (support::threads_are_faked) return 0;
  return __real_pthread_create(thread, attributes, body, argument);
}

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (support::lock_hook) {
    auto hook = std::exchange(support::lock_hook, nullptr);
    hook(mutex);
    support::lock_hook = std::move(hook);
  }
  if (int error = failing(Call::kMutexLock, mutex); error != 0) return error;
  return __real_pthread_mutex_lock(mutex);
}

extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t*);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  if (int error = failing(Call::kMutexUnlock, mutex); error != 0) return error;
  return __real_pthread_mutex_unlock(mutex);
}

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             const timespec* until) {
  if (int error = failing(Call::kCondTimedwait, condition); error != 0) return error;
  return __real_pthread_cond_timedwait(condition, mutex, until);
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

// openat2(), which the C library has no function for; other calls pass.
extern "C" long __real_syscall(long, ...);
extern "C" long __wrap_syscall(long, ...);
extern "C" long __wrap_syscall(long number, ...) {
  if (number == SYS_openat2) {
    if (int error = failing(Call::kOpenat2); error != 0) {
      errno = error;
      return -1;
    }
  }
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                        arguments[4], arguments[5]);
}

extern "C" int __real_open(const char*, int, ...);
extern "C" int __wrap_open(const char*, int, ...);
extern "C" int __real_rename(const char*, const char*);
extern "C" int __wrap_rename(const char*, const char*);
extern "C" int __wrap_rename(const char* from, const char* to) {
  support::faults::note_path(Call::kRename, from);
  support::faults::note_path(Call::kRename, to);
  if (int error = failing(Call::kRename); error != 0) {
    errno = error;
    return -1;
  }
  return __real_rename(from, to);
}

extern "C" int __wrap_open(const char* path, int flags, ...) {
  support::faults::note_path(Call::kOpen, path);
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
  const bool cut = support::is_cut(Call::kWrite, support::short_write_nth);
  return __real_write(fd, data, cut ? std::min(size, support::short_write_bytes.load()) : size);
}

// A short one has written everything and says less: what is known of it is the same.
extern "C" ssize_t __real_pwritev(int, const iovec*, int, off_t);
extern "C" ssize_t __wrap_pwritev(int, const iovec*, int, off_t);
extern "C" ssize_t __wrap_pwritev(int fd, const iovec* parts, int count, off_t offset) {
  if (int error = failing(Call::kPwritev); error != 0) {
    errno = error;
    return -1;
  }
  const ssize_t written = __real_pwritev(fd, parts, count, offset);
  if (!support::is_cut(Call::kPwritev, support::short_pwritev_nth)) return written;
  return std::min(written, static_cast<ssize_t>(support::short_pwritev_bytes));
}

extern "C" int __wrap_prctl(int, ...);
extern "C" int __real_prctl(int, ...);
extern "C" int __wrap_prctl(int option, ...) {
  if (int error = failing(Call::kPrctl); error != 0) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, option);
  const unsigned long argument = va_arg(arguments, unsigned long);
  va_end(arguments);
  return __real_prctl(option, argument, 0, 0, 0);
}

extern "C" unsigned __wrap_sleep(unsigned);
extern "C" unsigned __wrap_sleep(unsigned) {
  ++support::sleep_count;
  return 0;
}

extern "C" [[noreturn]] void __real___assert_fail(const char*, const char*, unsigned, const char*);
extern "C" [[noreturn]] void __wrap___assert_fail(const char*, const char*, unsigned, const char*);
extern "C" [[noreturn]] void __wrap___assert_fail(const char* condition, const char* file,
                                                  unsigned line, const char* function) {
  if (support::assertion_hook) support::assertion_hook();
  __real___assert_fail(condition, file, line, function);
}
