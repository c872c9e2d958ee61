#include "platform/qitc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "child.h"

namespace {

struct Destroy {
  void operator()(qitc_channel* channel) const { qitc_handle_destroy(channel); }
};
using Channel = std::unique_ptr<qitc_channel, Destroy>;

Channel make(uint32_t size = 16) {
  qitc_handle_t made = nullptr;
  EXPECT_EQ(0, qitc_handle_create(size, 0, 0, 0, &made));
  return Channel(made);
}

void* entry(uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

bool is_readable(int fd) {
  pollfd waiting = {fd, POLLIN, 0};
  return poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN) != 0;
}

TEST(Qitc, gives_entries_in_the_order_they_were_put) {
  const Channel channel = make();
  for (uintptr_t i = 1; i <= 5; ++i) EXPECT_EQ(0, qitc_put(channel.get(), entry(i)));
  for (uintptr_t i = 1; i <= 5; ++i) {
    void* got = nullptr;
    EXPECT_EQ(0, qitc_get(channel.get(), &got));
    EXPECT_EQ(entry(i), got);
  }
}

TEST(Qitc, an_empty_channel_gives_minus_one_and_leaves_the_result_alone) {
  const Channel channel = make();
  void* got = entry(7);
  EXPECT_EQ(-1, qitc_get(channel.get(), &got));
  EXPECT_EQ(entry(7), got);
  qitc_put(channel.get(), entry(1));
  EXPECT_EQ(0, qitc_get(channel.get(), &got));
  EXPECT_EQ(-1, qitc_get(channel.get(), &got));
  EXPECT_EQ(entry(1), got);
}

TEST(Qitc, carries_null_entries) {
  const Channel channel = make();
  EXPECT_EQ(0, qitc_put(channel.get(), nullptr));
  void* got = entry(7);
  EXPECT_EQ(0, qitc_get(channel.get(), &got));
  EXPECT_EQ(nullptr, got);
}

TEST(Qitc, descriptor_is_readable_exactly_while_entries_wait) {
  const Channel channel = make();
  const int fd = qitc_handle_fd(channel.get());
  ASSERT_GE(fd, 0);
  void* got = nullptr;
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(is_readable(fd));
    qitc_put(channel.get(), entry(1));
    EXPECT_TRUE(is_readable(fd));
    qitc_put(channel.get(), entry(2));
    qitc_get(channel.get(), &got);
    EXPECT_TRUE(is_readable(fd));
    qitc_get(channel.get(), &got);
    EXPECT_FALSE(is_readable(fd));
    EXPECT_EQ(-1, qitc_get(channel.get(), &got));
  }
}

TEST(Qitc, size_is_a_hint_and_no_limit) {
  for (const uint32_t size : {0u, 1u, 3u, UINT32_MAX}) {
    const Channel channel = make(size);
    ASSERT_NE(nullptr, channel) << size;
    for (uintptr_t i = 0; i < 10000; ++i) ASSERT_EQ(0, qitc_put(channel.get(), entry(i)));
    void* got = nullptr;
    for (uintptr_t i = 0; i < 10000; ++i) {
      ASSERT_EQ(0, qitc_get(channel.get(), &got));
      ASSERT_EQ(entry(i), got);
    }
  }
}

TEST(Qitc, order_survives_growth_with_the_ring_wrapped) {
  const Channel channel = make(8);
  uintptr_t put = 0;
  uintptr_t taken = 0;
  void* got = nullptr;
  for (int round = 0; round < 200; ++round) {  // net growth of two per round, never aligned
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, qitc_put(channel.get(), entry(put++)));
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(0, qitc_get(channel.get(), &got));
      ASSERT_EQ(entry(taken++), got);
    }
  }
  while (qitc_get(channel.get(), &got) == 0) ASSERT_EQ(entry(taken++), got);
  EXPECT_EQ(put, taken);
}

TEST(Qitc, rejects_null_arguments) {
  const Channel channel = make();
  void* got = nullptr;
  EXPECT_EQ(EINVAL, qitc_handle_create(1, 0, 0, 0, nullptr));
  EXPECT_EQ(EINVAL, qitc_handle_destroy(nullptr));
  EXPECT_EQ(EINVAL, qitc_put(nullptr, entry(1)));
  EXPECT_EQ(EINVAL, qitc_get(nullptr, &got));
  EXPECT_EQ(EINVAL, qitc_get(channel.get(), nullptr));
  EXPECT_EQ(-1, qitc_handle_fd(nullptr));
}

TEST(Qitc, destroy_drops_entries_and_closes_the_descriptor) {
  qitc_handle_t channel = make().release();
  qitc_put(channel, entry(1));
  const int fd = qitc_handle_fd(channel);
  EXPECT_EQ(0, qitc_handle_destroy(channel));
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  EXPECT_EQ(EBADF, errno);
}

TEST(Qitc, create_without_descriptors_reports_it_and_leaves_the_result_alone) {
  Child child([] {
    const rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NOFILE, &none) != 0) return 1;
    auto* untouched = reinterpret_cast<qitc_handle_t>(entry(7));
    qitc_handle_t made = untouched;
    if (qitc_handle_create(1, 0, 0, 0, &made) != EMFILE) return 2;
    return made == untouched ? 0 : 3;
  });
  EXPECT_EQ(0, child.wait());
}

// The sanitizers' own memory makes a limit on address space meaningless. Each compiler has its own
// way to tell that they are there.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Fills the channel until memory runs out. What is in it by then must come out in order.
int fill_up_and_drain() {
  const Channel channel = make();
  unsigned long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + 4 * 1024 * 1024;
  const rlimit tight = {bytes, bytes};
  if (setrlimit(RLIMIT_AS, &tight) != 0) return 1;
  uintptr_t put = 0;
  int error = 0;
  while (put < 100000000 && (error = qitc_put(channel.get(), entry(put))) == 0) ++put;
  if (error != ENOMEM || put < 1000) return 2;
  if (qitc_put(channel.get(), entry(put)) != ENOMEM) return 3;
  void* got = nullptr;
  for (uintptr_t i = 0; i < put; ++i) {
    if (qitc_get(channel.get(), &got) != 0 || got != entry(i)) return 4;
  }
  if (qitc_get(channel.get(), &got) != -1) return 5;
  if (is_readable(qitc_handle_fd(channel.get()))) return 6;
  return qitc_put(channel.get(), entry(1)) == 0 ? 0 : 7;
}

TEST(Qitc, put_without_memory_fails_and_keeps_what_is_there) {
  Child child(fill_up_and_drain);
  EXPECT_EQ(0, child.wait());
}
#endif

TEST(Qitc, threads_may_put_and_get_at_the_same_time) {
  constexpr uintptr_t kPutters = 3;
  constexpr uintptr_t kEach = 5000;
  const Channel channel = make(4);
  std::vector<std::thread> putters;
  for (uintptr_t p = 0; p < kPutters; ++p) {
    putters.emplace_back([&, p] {
      for (uintptr_t i = 0; i < kEach; ++i) qitc_put(channel.get(), entry(p << 32 | i));
    });
  }
  uintptr_t expected[kPutters] = {};
  pollfd waiting = {qitc_handle_fd(channel.get()), POLLIN, 0};
  for (uintptr_t taken = 0; taken < kPutters * kEach; ++taken) {
    void* got = nullptr;
    ASSERT_EQ(1, poll(&waiting, 1, 60000));
    ASSERT_EQ(0, qitc_get(channel.get(), &got));
    const auto value = reinterpret_cast<uintptr_t>(got);
    ASSERT_EQ(expected[value >> 32]++, value & 0xffffffff);  // each putter's entries in its order
  }
  for (std::thread& putter : putters) putter.join();
  EXPECT_FALSE(is_readable(waiting.fd));
}

}  // namespace
