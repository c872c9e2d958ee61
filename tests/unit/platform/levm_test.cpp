// The event loop on one thread: what runs, in which order, and what a handler may do.
#include "platform/levm.h"

#include <sys/resource.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "child.h"
#include "loop_fixture.h"
#include "platform/fts.h"

namespace {

class Levm : public LoopFixture {};

TEST_F(Levm, runs_the_handler_of_a_channel_with_entries) {
  std::vector<uintptr_t> got;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    void* entry = nullptr;
    while (qitc_get(mine, &entry) == 0) got.push_back(reinterpret_cast<uintptr_t>(entry));
  });
  put(channel, 5);
  put(channel, 6);
  EXPECT_EQ(1, levm_run_once(loop_, -1));
  EXPECT_EQ((std::vector<uintptr_t>{5, 6}), got);
  EXPECT_EQ(0, levm_run_once(loop_, 0));
}

TEST_F(Levm, sees_entries_that_were_put_before_the_attach) {
  qitc_handle_t channel = make_channel();
  put(channel);
  EXPECT_EQ(0, levm_run_once(loop_, 0));
  EXPECT_EQ(0, attach(channel));
  EXPECT_EQ(1, levm_run_once(loop_, 0));
}

TEST_F(Levm, times_out_without_work_and_not_before_the_time) {
  make_attached();
  const uint64_t start = fts_get_stamp_fast();
  EXPECT_EQ(0, levm_run_once(loop_, 20));
  EXPECT_GE(fts_get_stamp_fast() - start, 20000000u);
}

TEST_F(Levm, runs_again_while_entries_are_left) {
  int runs = 0;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    void* entry = nullptr;
    EXPECT_EQ(0, qitc_get(mine, &entry));
    ++runs;
  });
  put(channel);
  put(channel);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(1, runs);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(2, runs);
  EXPECT_EQ(0, levm_run_once(loop_, 0));
}

TEST_F(Levm, runs_the_most_urgent_first_and_equals_by_age) {
  std::string order;
  const auto recorder = [&](char letter) {
    return [&order, letter](qitc_handle_t mine) {
      order += letter;
      drain(mine);
    };
  };
  qitc_handle_t channels[] = {make_attached(recorder('e'), 9), make_attached(recorder('c'), 2),
                              make_attached(recorder('a'), -1), make_attached(recorder('d'), 2),
                              make_attached(recorder('b'), 0)};
  for (qitc_handle_t channel : channels) put(channel);
  EXPECT_EQ(5, levm_run_once(loop_, 0));
  EXPECT_EQ("abcde", order);
}

TEST_F(Levm, keeps_the_order_over_many_channels) {
  constexpr int kChannels = 300;
  std::vector<int> order;
  std::vector<qitc_handle_t> channels;
  for (int i = 0; i < kChannels; ++i) {
    const int priority = (i * 7) % kChannels;
    channels.push_back(make_attached(
        [&order, priority](qitc_handle_t mine) {
          order.push_back(priority);
          drain(mine);
        },
        priority));
  }
  for (qitc_handle_t channel : channels) put(channel);
  EXPECT_EQ(kChannels, levm_run_once(loop_, 0));
  for (int i = 0; i < kChannels; ++i) ASSERT_EQ(i, order[static_cast<size_t>(i)]);
}

TEST_F(Levm, skips_a_channel_that_an_earlier_handler_emptied) {
  bool ran = false;
  qitc_handle_t later = make_attached([&](qitc_handle_t) { ran = true; }, 2);
  qitc_handle_t earlier = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        drain(later);
      },
      1);
  put(earlier);
  put(later);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_FALSE(ran);
}

TEST_F(Levm, handler_may_destroy_its_own_channel) {
  int runs = 0;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    ++runs;
    destroy(mine);
  });
  put(channel);
  put(channel);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(0, levm_run_once(loop_, 0));
  EXPECT_EQ(1, runs);
  EXPECT_FALSE(is_readable(levm_fd(loop_)));
}

TEST_F(Levm, channel_destroyed_by_its_own_handler_refuses_use_until_the_handler_returns) {
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    destroy(mine);
    void* entry = nullptr;
    EXPECT_EQ(EINVAL, qitc_get(mine, &entry));
    EXPECT_EQ(EINVAL, qitc_put(mine, &entry));
    EXPECT_EQ(-1, qitc_handle_fd(mine));
    EXPECT_EQ(EINVAL, qitc_handle_destroy(mine));
    EXPECT_EQ(EINVAL, attach(mine));
  });
  put(channel);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
}

TEST_F(Levm, handler_may_destroy_another_pending_channel) {
  bool ran = false;
  qitc_handle_t victim = make_attached([&](qitc_handle_t) { ran = true; }, 2);
  qitc_handle_t after = make_attached(drain, 3);
  qitc_handle_t killer = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        destroy(victim);
      },
      1);
  for (qitc_handle_t channel : {killer, victim, after}) put(channel);
  EXPECT_EQ(2, levm_run_once(loop_, 0));
  EXPECT_FALSE(ran);
}

TEST_F(Levm, handler_may_destroy_all_other_channels) {
  std::vector<qitc_handle_t> others;
  others.reserve(5);
  for (int i = 0; i < 5; ++i) others.push_back(make_attached(drain, 2));
  qitc_handle_t killer = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        for (qitc_handle_t other : others) destroy(other);
      },
      1);
  for (qitc_handle_t other : others) put(other);
  put(killer);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(0, levm_run_once(loop_, 0));
}

TEST_F(Levm, handler_may_destroy_a_channel_that_ran_before_it) {
  qitc_handle_t before = make_attached(drain, 1);
  qitc_handle_t killer = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        destroy(before);
      },
      2);
  qitc_handle_t after = make_attached(drain, 3);
  for (qitc_handle_t channel : {before, killer, after}) put(channel);
  EXPECT_EQ(3, levm_run_once(loop_, 0));
}

TEST_F(Levm, handler_may_detach_itself_and_others) {
  bool ran = false;
  qitc_handle_t victim = make_attached([&](qitc_handle_t) { ran = true; }, 2);
  qitc_handle_t first = make_attached(
      [&](qitc_handle_t mine) {
        EXPECT_EQ(0, detach(mine));
        EXPECT_EQ(0, detach(victim));
      },
      1);
  put(first);
  put(victim);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(0, levm_run_once(loop_, 0));
  EXPECT_FALSE(ran);
}

TEST_F(Levm, channel_attached_by_a_handler_runs_in_the_next_pass) {
  qitc_handle_t fresh = make_channel();
  put(fresh);
  make_attached(drain, 5);  // idle, but the pass still comes past it on its way to 9
  qitc_handle_t first = make_attached([&](qitc_handle_t mine) {
    drain(mine);
    EXPECT_EQ(0, attach(fresh, 9));
  });
  put(first);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(1, levm_run_once(loop_, 0));
}

TEST_F(Levm, handler_that_attaches_itself_anew_runs_once_per_pass) {
  int runs = 0;
  make_attached(drain, 5);
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    ++runs;
    EXPECT_EQ(0, detach(mine));
    EXPECT_EQ(0, attach(mine, runs == 1 ? 9 : 0));
  });
  put(channel);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(2, runs);
}

TEST_F(Levm, handler_may_put_into_its_own_and_other_channels) {
  int runs = 0;
  qitc_handle_t urgent = make_attached(drain, 0);
  qitc_handle_t later = make_attached(drain, 9);
  qitc_handle_t channel = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        if (++runs > 1) return;
        for (qitc_handle_t to : {mine, urgent, later}) put(to);
      },
      5);
  put(channel);
  EXPECT_EQ(2, levm_run_once(loop_, 0));  // itself, then the less urgent one
  EXPECT_EQ(2, levm_run_once(loop_, 0));  // what was put behind the pass: urgent, itself
  EXPECT_EQ(0, levm_run_once(loop_, 0));
}

TEST_F(Levm, handler_may_run_the_loop_itself) {
  std::string order;
  qitc_handle_t inner = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        order += "inner ";
      },
      2);
  qitc_handle_t outer = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        EXPECT_EQ(1, levm_run_once(loop_, 0));
        order += "outer";
      },
      1);
  put(outer);
  put(inner);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ("inner outer", order);
}

TEST_F(Levm, stop_before_the_run_ends_it_at_once) {
  bool ran = false;
  qitc_handle_t channel = make_attached([&](qitc_handle_t) { ran = true; });
  put(channel);
  levm_stop(loop_);
  EXPECT_EQ(0, levm_run(loop_));
  EXPECT_FALSE(ran);
}

TEST_F(Levm, several_stops_before_the_run_are_one) {
  levm_stop(loop_);
  levm_stop(loop_);
  EXPECT_EQ(0, levm_run(loop_));
  EXPECT_FALSE(is_readable(levm_fd(loop_)));
  qitc_handle_t channel = make_attached();
  put(channel);
  EXPECT_EQ(1, levm_run_once(loop_, 0));
}

TEST_F(Levm, stop_wakes_run_once_which_returns_0) {
  levm_stop(loop_);
  EXPECT_EQ(0, levm_run_once(loop_, -1));
}

TEST_F(Levm, stop_inside_a_handler_leaves_the_rest_for_the_next_run) {
  std::string order;
  qitc_handle_t first = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        order += "first ";
        levm_stop(loop_);
      },
      1);
  qitc_handle_t second = make_attached(
      [&](qitc_handle_t mine) {
        drain(mine);
        order += "second";
        levm_stop(loop_);
      },
      2);
  put(first);
  put(second);
  EXPECT_EQ(0, levm_run(loop_));
  EXPECT_EQ("first ", order);
  EXPECT_EQ(0, levm_run(loop_));
  EXPECT_EQ("first second", order);
}

TEST_F(Levm, run_goes_on_until_the_stop) {
  int runs = 0;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    drain(mine);
    if (++runs == 10) levm_stop(loop_);
    put(mine);
  });
  put(channel);
  EXPECT_EQ(0, levm_run(loop_));
  EXPECT_EQ(10, runs);
}

levm_handle_t g_signalled_loop = nullptr;
volatile sig_atomic_t g_signals = 0;

// The third signal stops the loop; the ones before only interrupt it.
void on_alarm(int) {
  g_signals = g_signals + 1;
  if (g_signals == 3) levm_stop(g_signalled_loop);
}

TEST_F(Levm, signals_interrupt_no_wait_and_may_stop_the_loop) {
  g_signalled_loop = loop_;
  g_signals = 0;
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = on_alarm;  // without SA_RESTART: the wait does get EINTR
  ASSERT_EQ(0, sigaction(SIGALRM, &action, &before));
  const itimerval every_ms = {{0, 1000}, {0, 1000}};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &every_ms, nullptr));
  EXPECT_EQ(0, levm_run_once(loop_, -1));
  EXPECT_GE(g_signals, 3);
  const itimerval off = {};
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Levm, stop_leaves_errno_alone) {
  errno = ENOENT;
  levm_stop(loop_);
  EXPECT_EQ(ENOENT, errno);
  levm_stop(nullptr);
}

TEST_F(Levm, descriptor_is_readable_exactly_when_there_is_work) {
  const int fd = levm_fd(loop_);
  qitc_handle_t channel = make_channel();
  put(channel);
  EXPECT_FALSE(is_readable(fd)) << "not attached";
  attach(channel);
  EXPECT_TRUE(is_readable(fd));
  detach(channel);
  EXPECT_FALSE(is_readable(fd)) << "detached";
  attach(channel);
  levm_run_once(loop_, 0);
  EXPECT_FALSE(is_readable(fd)) << "handled";
  put(channel);
  EXPECT_TRUE(is_readable(fd));
  destroy(channel);
  EXPECT_FALSE(is_readable(fd)) << "destroyed";
  levm_stop(loop_);
  EXPECT_TRUE(is_readable(fd)) << "stop";
  levm_run_once(loop_, 0);
  EXPECT_FALSE(is_readable(fd)) << "stop taken";
}

TEST_F(Levm, embeds_in_a_poll_loop) {
  int sum = 0;
  qitc_handle_t channel = make_attached([&](qitc_handle_t mine) {
    void* entry = nullptr;
    EXPECT_EQ(0, qitc_get(mine, &entry));  // one per run: level-triggered through both loops
    sum += static_cast<int>(reinterpret_cast<uintptr_t>(entry));
  });
  for (uintptr_t i = 1; i <= 10; ++i) put(channel, i);
  pollfd embedded = {levm_fd(loop_), POLLIN, 0};
  int turns = 0;
  for (; poll(&embedded, 1, 0) == 1; ++turns) EXPECT_EQ(1, levm_run_once(loop_, 0));
  EXPECT_EQ(10, turns);
  EXPECT_EQ(55, sum);
}

TEST_F(Levm, attach_reports_misuse) {
  qitc_handle_t channel = make_channel();
  levm_handle_t other = levm_create();
  EXPECT_EQ(EINVAL, levm_attach_qitc_handle(nullptr, channel, drain, 0, 0, 0, 0));
  EXPECT_EQ(EINVAL, levm_attach_qitc_handle(loop_, nullptr, drain, 0, 0, 0, 0));
  EXPECT_EQ(ENOENT, detach(channel));
  EXPECT_EQ(0, attach(channel));
  EXPECT_EQ(EEXIST, attach(channel));
  EXPECT_EQ(EEXIST, levm_attach_qitc_handle(other, channel, drain, 0, 0, 0, 0));
  EXPECT_EQ(ENOENT, levm_attach_qitc_handle(other, channel, nullptr, 0, 0, 0, 0));
  EXPECT_EQ(0, detach(channel));
  EXPECT_EQ(ENOENT, detach(channel));
  EXPECT_EQ(0, levm_attach_qitc_handle(other, channel, drain, 0, 0, 0, 0));
  levm_destroy(other);
}

TEST_F(Levm, null_loop_is_refused) {
  errno = 0;
  EXPECT_EQ(-1, levm_run_once(nullptr, 0));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, levm_run(nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, levm_fd(nullptr));
  levm_destroy(nullptr);
}

TEST_F(Levm, destroy_detaches_channels_and_leaves_them_usable) {
  levm_handle_t other = levm_create();
  qitc_handle_t channels[] = {make_channel(), make_channel()};
  for (qitc_handle_t channel : channels) {
    EXPECT_EQ(0, levm_attach_qitc_handle(other, channel, drain, 0, 0, 0, 0));
    put(channel);
  }
  levm_destroy(other);
  for (qitc_handle_t channel : channels) EXPECT_EQ(0, attach(channel));
  EXPECT_EQ(2, levm_run_once(loop_, 0));
}

TEST_F(Levm, create_without_descriptors_reports_it) {
  Child child([] {
    for (const rlim_t left : {3u, 4u}) {  // room for none of the loop's descriptors, then for one
      const rlimit few = {left, 4};
      if (setrlimit(RLIMIT_NOFILE, &few) != 0) return 1;
      for (int fd = 3; fd < 256; ++fd) close(fd);
      errno = 0;
      if (levm_create() != nullptr) return 2;
      if (errno != EMFILE) return 3;
    }
    return 0;
  });
  EXPECT_EQ(0, child.wait());
}

}  // namespace
