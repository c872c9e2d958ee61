// A loop with channels whose handlers are closures, for the tests of the event loop.
#ifndef TESTS_UNIT_PLATFORM_LOOP_FIXTURE_H
#define TESTS_UNIT_PLATFORM_LOOP_FIXTURE_H

#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "platform/levm.h"
#include "platform/qitc.h"

class LoopFixture : public testing::Test {
 protected:
  using Handler = std::function<void(qitc_handle_t)>;

  LoopFixture() : loop_(levm_create()) { EXPECT_NE(nullptr, loop_); }
  ~LoopFixture() override {
    levm_destroy(loop_);
    for (const auto& [channel, handler] : handlers()) qitc_handle_destroy(channel);
    handlers().clear();
  }

  // A channel that the fixture destroys at the end.
  static qitc_handle_t make_channel(Handler handler = drain) {
    qitc_handle_t made = nullptr;
    EXPECT_EQ(0, qitc_handle_create(4, 0, 0, 0, &made));
    const std::scoped_lock guard(lock());
    handlers()[made] = std::move(handler);
    return made;
  }

  qitc_handle_t make_attached(Handler handler = drain, int priority = 0) {
    qitc_handle_t made = make_channel(std::move(handler));
    EXPECT_EQ(0, attach(made, priority));
    return made;
  }

  int attach(qitc_handle_t channel, int priority = 0) {
    return levm_attach_qitc_handle(loop_, channel, run_handler, priority, 0, 0, 0);
  }
  int detach(qitc_handle_t channel) {
    return levm_attach_qitc_handle(loop_, channel, nullptr, 0, 0, 0, 0);
  }

  // Destroys a channel before the end of the test.
  static void destroy(qitc_handle_t channel) {
    EXPECT_EQ(0, qitc_handle_destroy(channel));
    const std::scoped_lock guard(lock());
    handlers().erase(channel);
  }

  // Takes every entry; a channel that was destroyed in the meantime has none.
  static void drain(qitc_handle_t channel) {
    void* got = nullptr;
    while (qitc_get(channel, &got) == 0) {
    }
  }

  static void put(qitc_handle_t channel, uintptr_t entry = 1) {
    EXPECT_EQ(0, qitc_put(channel, reinterpret_cast<void*>(entry)));
  }

  static bool is_readable(int fd) {
    pollfd waiting = {fd, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN) != 0;
  }

  levm_handle_t loop_;

 private:
  static void run_handler(qitc_handle_t channel) {
    Handler handler;
    {
      const std::scoped_lock guard(lock());
      const auto found = handlers().find(channel);
      ASSERT_NE(handlers().end(), found) << "handler of a destroyed channel";
      handler = found->second;
    }
    handler(channel);
  }

  static std::mutex& lock() {
    static std::mutex only;
    return only;
  }
  static std::map<qitc_handle_t, Handler>& handlers() {
    static std::map<qitc_handle_t, Handler> all;
    return all;
  }
};

#endif
