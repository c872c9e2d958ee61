// The event loop with other threads that put, stop, detach and destroy.
#include <atomic>
#include <cerrno>
#include <future>
#include <thread>
#include <vector>

#include "loop_fixture.h"
#include "platform/levm.h"

namespace {

class LevmThreads : public LoopFixture {};

TEST_F(LevmThreads, stop_from_another_thread_ends_the_run) {
  std::promise<void> running;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    drain(mine);
    running.set_value();
  });
  put(channel);
  std::thread stopper([&] {
    running.get_future().wait();
    levm_stop(loop_);
  });
  EXPECT_EQ(0, levm_run(loop_));
  stopper.join();
}

TEST_F(LevmThreads, put_from_another_thread_wakes_the_loop) {
  qitc_handle_t channel = make_attached();
  std::thread putter([&] { put(channel); });
  EXPECT_EQ(1, levm_run_once(loop_, -1));
  putter.join();
}

// Runs `meanwhile` on another thread while the handler of a channel with two entries runs, then
// `rest` in the handler.
class WhileHandlerRuns : public LoopFixture {
 protected:
  template <typename Meanwhile, typename Rest>
  void pass(Meanwhile meanwhile, Rest rest) {
    std::promise<qitc_handle_t> running;
    std::promise<void> done;
    qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
      running.set_value(mine);
      done.get_future().wait();
      rest(mine);
    });
    put(channel);
    put(channel);
    std::thread other([&] {
      meanwhile(running.get_future().get());
      done.set_value();
    });
    EXPECT_EQ(1, levm_run_once(loop_, -1));
    other.join();
  }
};

TEST_F(WhileHandlerRuns, another_thread_may_destroy_the_channel) {
  pass([](qitc_handle_t channel) { destroy(channel); },
       [](qitc_handle_t mine) {
         void* entry = nullptr;
         EXPECT_EQ(EINVAL, qitc_get(mine, &entry));
       });
  EXPECT_EQ(0, levm_run_once(loop_, 0));
  EXPECT_FALSE(is_readable(levm_fd(loop_)));
}

TEST_F(WhileHandlerRuns, another_thread_may_detach_the_channel) {
  pass([this](qitc_handle_t channel) { EXPECT_EQ(0, detach(channel)); },
       [](qitc_handle_t mine) {
         void* entry = nullptr;
         EXPECT_EQ(0, qitc_get(mine, &entry));
       });
  EXPECT_EQ(0, levm_run_once(loop_, 0)) << "the second entry is no longer the loop's";
}

TEST_F(WhileHandlerRuns, another_thread_may_attach_and_put) {
  qitc_handle_t fresh = make_channel();
  pass(
      [&](qitc_handle_t) {
        EXPECT_EQ(0, attach(fresh, 7));
        put(fresh);
      },
      drain);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
}

std::atomic<uint64_t> g_taken{0};

void count_entries(qitc_handle_t channel) {
  void* entry = nullptr;
  while (qitc_get(channel, &entry) == 0) g_taken.fetch_add(1, std::memory_order_relaxed);
}

TEST_F(LevmThreads, every_entry_of_many_putters_arrives) {
  constexpr int kPutters = 3;
  constexpr uint64_t kEach = 3000;
  g_taken = 0;
  qitc_handle_t channels[2] = {make_channel(), make_channel()};
  for (qitc_handle_t channel : channels) {
    ASSERT_EQ(0, levm_attach_qitc_handle(loop_, channel, count_entries, 0, 0, 0, 0));
  }
  std::vector<std::thread> putters;
  putters.reserve(kPutters);
  for (int p = 0; p < kPutters; ++p) {
    putters.emplace_back([&] {
      for (uint64_t i = 0; i < kEach; ++i) put(channels[i % 2]);
    });
  }
  while (g_taken < kPutters * kEach) ASSERT_LT(0, levm_run_once(loop_, 60000));
  for (std::thread& putter : putters) putter.join();
  EXPECT_EQ(kPutters * kEach, g_taken);
  EXPECT_EQ(0, levm_run_once(loop_, 0));
}

TEST_F(LevmThreads, channels_may_come_and_go_under_a_running_loop) {
  constexpr int kRounds = 2000;
  std::atomic<int> failures{0};
  const auto come_and_go = [&](bool detach_first) {
    for (int i = 0; i < kRounds; ++i) {
      qitc_handle_t channel = nullptr;
      if (qitc_handle_create(1, 0, 0, 0, &channel) != 0) ++failures;
      if (levm_attach_qitc_handle(loop_, channel, count_entries, i % 3, 0, 0, 0) != 0) ++failures;
      if (qitc_put(channel, nullptr) != 0) ++failures;
      if (detach_first && detach(channel) != 0) ++failures;
      if (qitc_handle_destroy(channel) != 0) ++failures;
    }
  };
  std::thread loop([&] { EXPECT_EQ(0, levm_run(loop_)); });
  std::thread detacher(come_and_go, true);
  come_and_go(false);
  detacher.join();
  levm_stop(loop_);
  loop.join();
  EXPECT_EQ(0, failures);
  EXPECT_FALSE(is_readable(levm_fd(loop_)));
}

TEST_F(LevmThreads, a_channel_and_its_loop_may_be_destroyed_at_the_same_time) {
  for (int i = 0; i < 500; ++i) {
    levm_handle_t loop = levm_create();
    qitc_handle_t channel = nullptr;
    ASSERT_EQ(0, qitc_handle_create(1, 0, 0, 0, &channel));
    ASSERT_EQ(0, levm_attach_qitc_handle(loop, channel, count_entries, 0, 0, 0, 0));
    std::thread destroyer([&] { EXPECT_EQ(0, qitc_handle_destroy(channel)); });
    levm_destroy(loop);
    destroyer.join();
  }
}

}  // namespace
