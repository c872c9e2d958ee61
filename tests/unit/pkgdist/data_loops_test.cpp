// The loops of the data threads, each run on the test's own thread.
#include <chrono>

#include "data_threads_fixture.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

using FileLoop = DataThreadsTest;

// --- DATA_FILE's loop ---

TEST_F(FileLoop, the_file_thread_leaves_only_with_an_empty_queue) {
  for (uint8_t i = 1; i <= 3; ++i) queue(Bytes(i));
  run_file_loop();
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(logs::count("hdr msg too small"), 3u);
  EXPECT_FALSE(G_data_recv_file_thread_running);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
}

TEST_F(FileLoop, the_file_thread_takes_datagrams_in_order) {
  want("file");
  queue(data_datagram(PKGDIST_DATA_MSG_FILE_INFO, encoded_info({.size = 8})));
  for (uint32_t segment = 0; segment < 2; ++segment) {
    const Bytes whole = content(8);
    const auto from = whole.begin() + segment * 4;
    queue(data_datagram(PKGDIST_DATA_MSG_SEGMENT,
                        encoded_segment(7, segment, Bytes(from, from + 4))));
  }
  run_file_loop();
  EXPECT_EQ(bytes_of(path("file")), content(8));
  EXPECT_EQ(samples(DrtHistogram::kRxQueueTime), 3u);
}

TEST_F(FileLoop, the_file_thread_says_that_it_comes_and_goes) {
  run_file_loop();
  EXPECT_EQ(thread_name(), "DATA_FILE");
  EXPECT_TRUE(logs::contains("DATA Recv File Thread starting\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Thread exiting\n"));
  EXPECT_EQ(value(DrsCounter::kFileThreadStart), 1u);
  EXPECT_EQ(value(DrsCounter::kFileThreadStop), 1u);
}

TEST_F(FileLoop, every_datagram_moves_the_time_of_the_last_message) {
  queue({1});  // a bad one does too
  clock::advance(kSecond);
  run_file_loop();
  EXPECT_EQ(G_data_recv_file_last_msg, clock::now());
}

TEST_F(FileLoop, the_time_out_pass_waits_for_its_period) {
  want("file");
  find()->start_time = 0;  // long overdue
  G_data_rto.timer_period = kSecond;
  run_file_loop();
  EXPECT_TRUE(wire::sent().empty());
  G_data_rto.timer_period = 0;
  run_file_loop();
  EXPECT_EQ(take_traffic().requests.size(), 1u);
}

TEST_F(FileLoop, the_time_out_pass_runs_at_most_once_per_period_also_while_datagrams_come) {
  G_data_rto.timer_period = 10 * kSecond;
  for (int i = 0; i < 9; ++i) queue({1});
  int passes = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    // Each datagram is counted twice: the time it has waited, and that it is a bad one.
    if (mutex == &atomic_mutex) clock::advance(2 * kSecond);
    if (mutex == &G_file_stat_db.mutex) ++passes;
  });
  run_file_loop();  // taken together; each of them takes four seconds
  faults::clear();
  EXPECT_EQ(passes, 3);  // after 12, 24 and 36
}

TEST_F(FileLoop, an_idle_file_thread_sleeps_for_the_timer_period) {
  G_data_rto.timer_period = 20 * kMillisecond;
  G_data_recv_file_queue_inited = false;
  G_data_recv_file_thread_running = true;  // this thread
  ASSERT_EQ(pkgdist_file_recv_init(), 0u);
  int sleeps = 0;
  faults::inject([&](Call call, const void*) {
    if (call != Call::kCondTimedwait) return 0;
    ++sleeps;
    EXPECT_TRUE(G_pkgdist_file_recv_thread_waiting);
    G_data_recv_file_exit_thread = true;  // seen when it wakes
    return 0;
  });
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
  EXPECT_EQ(sleeps, 1);
  EXPECT_FALSE(G_pkgdist_file_recv_thread_waiting);
}

TEST_F(FileLoop, a_file_thread_with_datagrams_does_not_sleep) {
  for (int i = 0; i < 3; ++i) queue({1});
  unsigned left = 0;
  faults::inject([&](Call call, const void*) {
    if (call != Call::kCondTimedwait) return 0;
    left = queued();
    G_data_recv_file_exit_thread = true;
    return ETIMEDOUT;
  });
  G_data_recv_file_thread_running = true;
  EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
  EXPECT_EQ(left, 0u);
  EXPECT_EQ(logs::count("hdr msg too small"), 3u);
}

using FileLoopDeathTest = FileLoop;

TEST_F(FileLoopDeathTest, a_wait_that_fails_ends_the_process) {
  EXPECT_DEATH(
      {
        g_inst_common_debug_verbosity_level = 1;
        G_data_recv_file_exit_thread = false;
        faults::fail(Call::kCondTimedwait, 1, EINVAL);
        pkgdist_data_recv_file_thread(nullptr);
      },
      "ERR:pkgdist_data_recv_file_thread: pthread_cond_timedwait\\(\\) failed: Invalid "
      "argument(.|\n)*Assertion `0' failed");
}

// --- DATA_RX's loop ---

class RxLoop : public DataThreadsTest {
 protected:
  void SetUp() override {
    DataThreadsTest::SetUp();
    open_loopback();
  }
  void TearDown() override {
    close_sender();
    DataThreadsTest::TearDown();
  }
  static uint64_t first_length() {
    struct Queued {
      queue_link_t link;
      uint8_t* data;
      uint64_t length;
    };
    return reinterpret_cast<const Queued*>(G_pkgdist_file_recv_q.head)->length;
  }
};

TEST_F(RxLoop, a_datagram_is_counted_and_queued) {
  send_to_node(100);
  run_rx_loop();
  EXPECT_EQ(queued(), 1u);
  EXPECT_EQ(first_length(), 100u);
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 1u);
  EXPECT_EQ(samples(DrtHistogram::kMcRxTime), 1u);
}

TEST_F(RxLoop, the_largest_datagram_is_queued_whole) {
  send_to_node(1472);
  run_rx_loop();
  EXPECT_EQ(first_length(), 1472u);
}

TEST_F(RxLoop, a_longer_datagram_is_cut) {
  send_to_node(1600);
  run_rx_loop();
  EXPECT_EQ(first_length(), 1472u);
}

TEST_F(RxLoop, the_wait_is_in_microseconds) {
  send_to_node(1);
  run_rx_loop();
  EXPECT_EQ(faults::select_wait(), 5'000'000u);
}

TEST_F(RxLoop, a_wait_that_is_over_looks_at_the_stop) {
  G_data_rto.receive_wait = 1;
  run_rx_loop();
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 0u);
}

TEST_F(RxLoop, a_failed_wait_goes_on_without_looking_at_the_stop) {
  send_to_node(1);
  faults::fail(Call::kSelect, 1, EINTR);
  run_rx_loop();
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_rx_thread: data rx select failed, errno=4(Interrupted system call)\n"));
  EXPECT_EQ(value(DrtCounter::kMcSelectFail), 1u);
  EXPECT_EQ(queued(), 1u);
}

TEST_F(RxLoop, a_failed_receive_goes_on_without_looking_at_the_stop) {
  send_to_node(1);
  faults::fail(Call::kRecvfrom, 1, ECONNREFUSED);
  run_rx_loop();
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_rx_thread: data rx recvfrom failed, rc=-1, errno=111(Connection "
      "refused)\n"));
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 1u);
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 1u);
  EXPECT_EQ(samples(DrtHistogram::kMcRxTime), 1u);
}

TEST_F(RxLoop, an_empty_datagram_is_a_failed_receive) {
  send_to_node(0);
  send_to_node(1);
  run_rx_loop();
  EXPECT_EQ(logs::count("ERR:pkgdist_data_rx_thread: data rx recvfrom failed, rc=0, errno="), 1u);
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 1u);
  EXPECT_EQ(first_length(), 1u);
}

TEST_F(RxLoop, on_its_way_out_it_closes_the_socket_and_stops_the_file_thread) {
  send_to_node(1);
  run_rx_loop();
  EXPECT_EQ(thread_name(), "DATA_RX");
  EXPECT_EQ(G_data_rx_socket, -1);
  EXPECT_FALSE(G_data_rx_thread_running);
  EXPECT_FALSE(G_data_rx_exit_thread);
  EXPECT_TRUE(G_data_recv_file_exit_thread);
  EXPECT_TRUE(logs::contains("DATA Recv Rx Thread starting\n"));
  EXPECT_TRUE(logs::contains("DATA Recv Rx Thread exiting\n"));
  EXPECT_EQ(value(DrsCounter::kRxThreadStart), 1u);
  EXPECT_EQ(value(DrsCounter::kRxThreadStop), 1u);
}

TEST_F(RxLoop, a_stop_that_is_withdrawn_at_the_last_moment_does_not_hold) {
  send_to_node(1);
  int turn = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_data_rx_mutex && ++turn == 1) {
      G_data_rx_exit_thread = false;
      send_to_node(2);
    }
    // After the second datagram it stands again.
    if (mutex == &G_pkgdist_file_recv_mutex && turn == 1) G_data_rx_exit_thread = true;
  });
  run_rx_loop();
  faults::clear();
  EXPECT_EQ(queued(), 2u);
  EXPECT_EQ(turn, 3);  // looked twice, then left
  EXPECT_EQ(value(DrsCounter::kRxThreadStop), 1u);
}

TEST_F(RxLoop, files_that_came_while_it_left_keep_their_file_thread) {
  send_to_node(1);
  int turn = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    // It has confirmed its end and closed the socket: a new file starts both threads.
    if (mutex == &G_data_rx_mutex && ++turn == 2) G_data_rx_thread_running = true;
  });
  run_rx_loop();
  faults::clear();
  EXPECT_EQ(turn, 2);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
}

}  // namespace
