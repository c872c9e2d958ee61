// System calls of a simulated process, by the linker's --wrap. Before a process starts and after it
// ended they are the plain ones.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/nodeid.h"
#include "platform/qitc.h"
#include "process_system.h"

namespace pkgdist::sim {

System* process_system = nullptr;

System::~System() {
  for (const auto& [at, size] : mappings) munmap(at, size);
  for (int descriptor : descriptors) ::close(descriptor);
  for (const auto& [block, origin] : blocks) {
    if (origin == Origin::kMalloc)
      std::free(block);
    else
      ::operator delete(block);
  }
}

void System::callback_queued() {
  const uint64_t lag = settings.caller_lag != 0 ? threads.random(settings.caller_lag) : 0;
  callbacks_due = std::min(callbacks_due, threads.now() + lag);
  threads.wake(&callbacks_due);
}

}  // namespace pkgdist::sim

using pkgdist::sim::process_system;
using pkgdist::sim::Sockets;
using pkgdist::sim::System;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kMicrosecond = 1'000;
constexpr time_t kWallClockStart = 1'700'000'000;  // of CLOCK_REALTIME, seconds

uint64_t nanoseconds(const timespec& time) {
  return static_cast<uint64_t>(time.tv_sec) * kSecond + static_cast<uint64_t>(time.tv_nsec);
}

bool on_thread() {
  return process_system != nullptr && process_system->threads.on_thread();
}

bool is_socket(int descriptor) {
  return process_system != nullptr && process_system->sockets.is_open(descriptor);
}

// The record itself takes and gives back memory, which is not the process's.
bool at_the_record = false;

void* note_block(void* block, System::Origin origin) {
  if (process_system == nullptr || block == nullptr || at_the_record) return block;
  at_the_record = true;
  process_system->blocks.emplace(block, origin);
  at_the_record = false;
  return block;
}
void forget_block(void* block) {
  if (process_system == nullptr || block == nullptr || at_the_record) return;
  at_the_record = true;
  process_system->blocks.erase(block);
  at_the_record = false;
}

int note_descriptor(int descriptor) {
  if (process_system != nullptr && descriptor >= 0) process_system->descriptors.insert(descriptor);
  return descriptor;
}

void note_appearance(int result, const char* path) {
  if (process_system != nullptr && result >= 0) process_system->observer.appeared(path);
}

}  // namespace

// --- Memory ---

#define PKGDIST_REAL(type, name, parameters) \
  extern "C" type __real_##name parameters;  \
  extern "C" type __wrap_##name parameters;  \
  extern "C" type __wrap_##name parameters

PKGDIST_REAL(void*, malloc, (size_t size)) {
  return note_block(__real_malloc(size), System::Origin::kMalloc);
}
PKGDIST_REAL(void*, calloc, (size_t count, size_t size)) {
  return note_block(__real_calloc(count, size), System::Origin::kMalloc);
}
PKGDIST_REAL(void*, realloc, (void* old, size_t size)) {
  void* block = __real_realloc(old, size);
  if (block == nullptr) return nullptr;
  forget_block(old);
  return note_block(block, System::Origin::kMalloc);
}
PKGDIST_REAL(char*, strdup, (const char* text)) {
  return static_cast<char*>(note_block(__real_strdup(text), System::Origin::kMalloc));
}
PKGDIST_REAL(void, free, (void* block)) {
  forget_block(block);
  __real_free(block);
}
// new (std::nothrow) and delete, which the platform uses.
PKGDIST_REAL(void*, _ZnwmRKSt9nothrow_t, (size_t size, const std::nothrow_t& tag)) {
  return note_block(__real__ZnwmRKSt9nothrow_t(size, tag), System::Origin::kNew);
}
PKGDIST_REAL(void, _ZdlPv, (void* block)) {
  forget_block(block);
  __real__ZdlPv(block);
}
PKGDIST_REAL(void, _ZdlPvm, (void* block, size_t size)) {
  forget_block(block);
  __real__ZdlPvm(block, size);
}

// --- Threads and time ---

PKGDIST_REAL(int, pthread_create,
             (pthread_t*, const pthread_attr_t*, void* (*body)(void*), void* argument)) {
  process_system->threads.start([body, argument] { (void)body(argument); });
  return 0;
}
PKGDIST_REAL(int, pthread_mutex_lock, (pthread_mutex_t * mutex)) {
  if (!on_thread()) return __real_pthread_mutex_lock(mutex);
  process_system->threads.lock(mutex);
  return 0;
}
PKGDIST_REAL(int, pthread_cond_timedwait,
             (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* until)) {
  pthread_mutex_unlock(mutex);
  const bool woken = process_system->threads.wait(condition, nanoseconds(*until));
  process_system->threads.lock(mutex);
  return woken ? 0 : ETIMEDOUT;
}
PKGDIST_REAL(int, pthread_cond_signal, (pthread_cond_t * condition)) {
  process_system->threads.wake(condition);
  return 0;
}
PKGDIST_REAL(unsigned, sleep, (unsigned seconds)) {
  process_system->threads.wait(nullptr, process_system->threads.now() + seconds * kSecond);
  return 0;
}
extern "C" int __wrap_prctl(int option, ...);
extern "C" int __wrap_prctl(int, ...) {
  return 0;  // names of threads
}
PKGDIST_REAL(pid_t, getpid, ()) {
  return static_cast<pid_t>(process_system->settings.pid);
}
PKGDIST_REAL(int, clock_gettime, (clockid_t clock, timespec* now)) {
  if (process_system == nullptr) return __real_clock_gettime(clock, now);
  const uint64_t stamp = process_system->threads.now();
  *now = {static_cast<time_t>(stamp / kSecond), static_cast<long>(stamp % kSecond)};
  if (clock == CLOCK_REALTIME) now->tv_sec += kWallClockStart;
  return 0;
}

// --- Sockets ---

PKGDIST_REAL(int, socket, (int, int, int)) {
  const int descriptor = process_system->sockets.open();
  if (descriptor < 0) errno = EMFILE;
  return descriptor;
}
PKGDIST_REAL(int, setsockopt, (int socket, int level, int option, const void* value, socklen_t)) {
  if (!is_socket(socket)) {
    errno = EBADF;
    return -1;
  }
  if (level == IPPROTO_IP && option == IP_ADD_MEMBERSHIP) {
    ip_mreq membership{};
    std::memcpy(&membership, value, sizeof membership);
    process_system->sockets.join(socket, ntohl(membership.imr_multiaddr.s_addr));
  }
  return 0;
}
PKGDIST_REAL(int, bind, (int socket, const sockaddr* address, socklen_t)) {
  sockaddr_in local{};
  std::memcpy(&local, address, sizeof local);
  process_system->sockets.bind(socket, ntohl(local.sin_addr.s_addr), ntohs(local.sin_port));
  return 0;
}
PKGDIST_REAL(ssize_t, sendto,
             (int socket, const void* data, size_t size, int, const sockaddr* to, socklen_t)) {
  if (!is_socket(socket)) {
    errno = EBADF;
    return -1;
  }
  sockaddr_in address{};
  std::memcpy(&address, to, sizeof address);
  process_system->observer.sent(ntohl(address.sin_addr.s_addr), ntohs(address.sin_port),
                                {static_cast<const uint8_t*>(data), size});
  return static_cast<ssize_t>(size);
}
PKGDIST_REAL(ssize_t, recvfrom,
             (int socket, void* buffer, size_t size, int, sockaddr*, socklen_t*)) {
  const long length =
      process_system->sockets.receive(socket, {static_cast<uint8_t*>(buffer), size});
  if (length < 0) errno = EAGAIN;
  return length;
}
// One part for each datagram is all that the library asks for, and never to wait.
PKGDIST_REAL(int, recvmmsg, (int socket, mmsghdr* messages, unsigned count, int, timespec*)) {
  unsigned received = 0;
  for (; received < count; ++received) {
    const iovec& place = *messages[received].msg_hdr.msg_iov;
    const long length = process_system->sockets.receive(
        socket, {static_cast<uint8_t*>(place.iov_base), place.iov_len});
    if (length < 0) break;
    messages[received].msg_len = static_cast<unsigned>(length);
  }
  if (received != 0) return static_cast<int>(received);
  errno = EAGAIN;
  return -1;
}
PKGDIST_REAL(int, select, (int count, fd_set* in, fd_set*, fd_set*, timeval* wait)) {
  System& system = *process_system;
  const fd_set wanted = *in;
  const uint64_t end = system.threads.now() + static_cast<uint64_t>(wait->tv_sec) * kSecond +
                       static_cast<uint64_t>(wait->tv_usec) * kMicrosecond;
  for (;;) {
    int ready = 0;
    FD_ZERO(in);
    for (int socket = 0; socket < count; ++socket) {
      if (!FD_ISSET(socket, &wanted) || !system.sockets.readable(socket)) continue;
      FD_SET(socket, in);
      ++ready;
    }
    if (ready != 0 || system.threads.now() >= end) return ready;
    system.threads.wait_for_sockets(wanted, end);
  }
}

// --- Files ---

PKGDIST_REAL(int, close, (int descriptor)) {
  if (is_socket(descriptor)) {
    process_system->sockets.close(descriptor);
    return 0;
  }
  if (process_system != nullptr) process_system->descriptors.erase(descriptor);
  return __real_close(descriptor);
}
extern "C" int __real_open(const char*, int, ...);
extern "C" int __wrap_open(const char*, int, ...);
extern "C" int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const int descriptor = note_descriptor(__real_open(path, flags, mode));
  if ((flags & O_ACCMODE) != O_RDONLY) note_appearance(descriptor, path);
  return descriptor;
}
PKGDIST_REAL(int, shm_open, (const char* name, int flags, mode_t mode)) {
  return note_descriptor(__real_shm_open(name, flags, mode));
}
PKGDIST_REAL(int, eventfd, (unsigned value, int flags)) {
  return note_descriptor(__real_eventfd(value, flags));
}
PKGDIST_REAL(int, epoll_create1, (int flags)) {
  return note_descriptor(__real_epoll_create1(flags));
}
PKGDIST_REAL(void*, mmap,
             (void* at, size_t size, int protection, int flags, int fd, off_t offset)) {
  void* mapping = __real_mmap(at, size, protection, flags, fd, offset);
  if (process_system != nullptr && fd >= 0 && mapping != MAP_FAILED)
    process_system->mappings.emplace(mapping, size);
  return mapping;
}
PKGDIST_REAL(int, munmap, (void* at, size_t size)) {
  if (process_system != nullptr) process_system->mappings.erase(at);
  return __real_munmap(at, size);
}
PKGDIST_REAL(int, rename, (const char* from, const char* to)) {
  const int result = __real_rename(from, to);
  note_appearance(result, to);
  return result;
}
PKGDIST_REAL(int, symlink, (const char* target, const char* link_path)) {
  const int result = __real_symlink(target, link_path);
  note_appearance(result, link_path);
  return result;
}

// --- Platform ---

PKGDIST_REAL(int, qitc_put, (qitc_handle_t channel, void* entry)) {
  const int result = __real_qitc_put(channel, entry);
  if (result == 0) process_system->callback_queued();
  return result;
}
PKGDIST_REAL(int, nodeid_create,
             (uint32_t first, uint32_t second, uint32_t third, nodeid_handle_t* out)) {
  ++process_system->identities;
  return __real_nodeid_create(first, second, third, out);
}
