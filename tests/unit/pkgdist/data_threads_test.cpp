// The data threads' pieces, each run on the test's own thread: the socket, the queue, the two loops
// and their stops. The threads themselves run in data_threads_loopback_test.cpp.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "data_support.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_socket.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

class DataThreads : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    G_data_tx_mc_addr = 0xEFFF4D01;  // 239.255.77.1
    G_data_tx_mc_port = static_cast<uint16_t>(20'000 + getpid() % 20'000);
    prctl(PR_GET_NAME, name_);
  }
  void TearDown() override {
    prctl(PR_SET_NAME, name_);
    DataTest::TearDown();
    G_data_recv_file_queue_inited = false;
    G_pkgdist_file_recv_thread_waiting = false;
    G_pkgdist_file_recv_cond = PTHREAD_COND_INITIALIZER;
  }

  // A bound socket in place of the multicast one, and a sender connected to it.
  void open_loopback() {
    G_data_rx_socket = pkgdist::udp_socket();
    ASSERT_EQ(pkgdist::bind_socket(G_data_rx_socket, INADDR_LOOPBACK, 0), 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(G_data_rx_socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(connect(sender, reinterpret_cast<sockaddr*>(&address), size), 0);
    sender_ = sender;
  }
  void send_to_node(size_t bytes) {
    const Bytes data(bytes, 'd');
    ASSERT_EQ(send(sender_, data.data(), data.size(), 0), static_cast<ssize_t>(bytes));
  }
  void close_sender() { close(sender_); }

  static void queue(const Bytes& datagram) {
    pkgdist_file_recv_queue_msg(datagram.data(), datagram.size());
  }
  static std::string thread_name() {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    return name;
  }
  // Both loops end at their first chance.
  static void run_rx_loop() {
    G_data_rx_thread_running = G_data_rx_exit_thread = true;
    EXPECT_EQ(pkgdist_data_rx_thread(nullptr), nullptr);
  }
  static void run_file_loop() {
    G_data_recv_file_thread_running = G_data_recv_file_exit_thread = true;
    EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
  }
  static const uint32_t* watermark() {
    return static_cast<const uint32_t*>(pkgdist_drt_ship_watermark_hdl);
  }
  static uint32_t queued() { return G_pkgdist_file_recv_q.count; }

 private:
  char name_[16] = {};
  int sender_ = -1;
};

// --- The data socket ---

TEST_F(DataThreads, the_data_socket_is_bound_to_the_group_itself) {
  EXPECT_EQ(pkgdist_data_recv_rx_init(), 0u);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ASSERT_EQ(getsockname(G_data_rx_socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
  EXPECT_EQ(ntohl(address.sin_addr.s_addr), G_data_tx_mc_addr);
  EXPECT_EQ(ntohs(address.sin_port), G_data_tx_mc_port);
  int reuse = -1, reuse_port = -1, priority = 0;
  size = sizeof reuse;
  getsockopt(G_data_rx_socket, SOL_SOCKET, SO_REUSEADDR, &reuse, &size);
  getsockopt(G_data_rx_socket, SOL_SOCKET, SO_REUSEPORT, &reuse_port, &size);
  getsockopt(G_data_rx_socket, SOL_SOCKET, SO_PRIORITY, &priority, &size);
  EXPECT_EQ(reuse, 0);
  EXPECT_EQ(reuse_port, 0);
  EXPECT_EQ(priority, 4);
  EXPECT_EQ(faults::calls(Call::kSetsockopt), 3u);  // priority, buffer, membership
}

TEST_F(DataThreads, an_open_data_socket_is_closed_first) {
  EXPECT_EQ(pkgdist_data_recv_rx_init(), 0u);
  EXPECT_EQ(pkgdist_data_recv_rx_init(), 0u);  // else the second bind would fail
}

TEST_F(DataThreads, a_second_receiver_of_the_same_group_and_port_is_refused) {
  const int other = pkgdist::udp_socket();
  ASSERT_EQ(pkgdist::bind_socket(other, G_data_tx_mc_addr, G_data_tx_mc_port), 0);
  EXPECT_EQ(pkgdist_data_recv_rx_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_rx_init: data rx bind failed: 98(Address already in use)\n"));
  close(other);
}

struct SocketFailure {
  Call call;
  unsigned nth;
  const char* words;
  bool stays_open;
};
class DataSocketFailure : public DataThreads, public testing::WithParamInterface<SocketFailure> {};

TEST_P(DataSocketFailure, fails_the_start_and_no_thread_is_made) {
  G_data_rx_thread_running = false;
  faults::fail(GetParam().call, GetParam().nth, EPERM);
  EXPECT_EQ(pkgdist_data_recv_rx_start(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_data_recv_rx_init: data rx ") +
                             GetParam().words + " failed: 1(Operation not permitted)\n"));
  EXPECT_EQ(G_data_rx_socket != -1, GetParam().stays_open);
  EXPECT_FALSE(G_data_rx_thread_running);
  EXPECT_EQ(faults::calls(Call::kPthreadCreate), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, DataSocketFailure,
    testing::Values(SocketFailure{Call::kSocket, 1, "socket create", false},
                    SocketFailure{Call::kSetsockopt, 1, "setsockopt prio", true},
                    SocketFailure{Call::kSetsockopt, 2, "setsockopt", false},
                    SocketFailure{Call::kBind, 1, "bind", false},
                    SocketFailure{Call::kSetsockopt, 3, "setsockopt ip add", false}));

TEST_F(DataThreads, a_descriptor_that_select_cannot_take_is_refused) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t before = limit.rlim_cur;
  if (limit.rlim_max < FD_SETSIZE + 16) GTEST_SKIP() << "descriptors are limited to fewer";
  limit.rlim_cur = FD_SETSIZE + 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < FD_SETSIZE - 1) fillers.push_back(dup(0));
  EXPECT_EQ(pkgdist_data_recv_rx_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_data_rx_socket, -1);
  for (const int filler : fillers) close(filler);
  limit.rlim_cur = before;
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_rx_init: data rx socket create failed: 24(Too many open files)\n"));
}

// --- Start and stop ---

TEST_F(DataThreads, a_thread_that_cannot_be_created_fails_the_start) {
  G_data_rx_thread_running = false;
  faults::fail(Call::kPthreadCreate, 1, EAGAIN);
  EXPECT_EQ(pkgdist_data_recv_rx_start(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_rx_start: pthread_create() pkgdist_data_rx_thread failed: 11(Resource "
      "temporarily unavailable)\n"));
  EXPECT_FALSE(G_data_rx_thread_running);
}

TEST_F(DataThreads, a_start_withdraws_pending_stops_of_both_threads) {
  pkgdist_data_recv_rx_stop();
  pkgdist_data_recv_file_stop();
  ASSERT_TRUE(G_data_rx_exit_thread && G_data_recv_file_exit_thread);
  G_data_recv_file_queue_inited = true;
  EXPECT_EQ(pkgdist_data_recv_rx_start(), 0u);
  EXPECT_FALSE(G_data_rx_exit_thread);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
  EXPECT_EQ(faults::calls(Call::kPthreadCreate), 0u);  // both run already
  EXPECT_EQ(faults::calls(Call::kSocket), 0u);
}

TEST_F(DataThreads, a_datagram_does_not_withdraw_a_stop) {
  pkgdist_data_recv_file_stop();
  EXPECT_EQ(pkgdist_file_recv_init(), 0u);
  queue({1, 2, 3});
  EXPECT_TRUE(G_data_recv_file_exit_thread);
}

TEST_F(DataThreads, threads_that_do_not_run_are_not_stopped) {
  G_data_rx_thread_running = G_data_recv_file_thread_running = false;
  pkgdist_data_recv_rx_stop();
  pkgdist_data_recv_file_stop();
  EXPECT_FALSE(G_data_rx_exit_thread);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
}

struct QueueFailure {
  Call call;
  const char* words;
  bool queue_exists;
};
class FileThreadFailure : public DataThreads, public testing::WithParamInterface<QueueFailure> {};

TEST_P(FileThreadFailure, fails_the_start) {
  G_data_recv_file_queue_inited = G_data_recv_file_thread_running = false;
  faults::fail(GetParam().call, 1, ENOMEM);
  EXPECT_EQ(pkgdist_data_recv_rx_start(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_file_recv_init: ") + GetParam().words +
                             " failed: 12(Cannot allocate memory)\n"));
  EXPECT_FALSE(G_data_recv_file_thread_running);
  EXPECT_EQ(G_data_recv_file_queue_inited, GetParam().queue_exists);
}

TEST_P(FileThreadFailure, drops_a_datagram) {
  G_data_recv_file_queue_inited = G_data_recv_file_thread_running = false;
  faults::fail(GetParam().call, 1, ENOMEM);
  queue({1, 2, 3});
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(logs::count(GetParam().words), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, FileThreadFailure,
    testing::Values(QueueFailure{Call::kCondattrInit, "pthread_condattr_init()", false},
                    QueueFailure{Call::kCondattrSetclock, "pthread_condattr_setclock()", false},
                    QueueFailure{Call::kCondInit, "pthread_cond_init()", false},
                    QueueFailure{Call::kPthreadCreate,
                                 "pthread_create() pkgdist_data_recv_file_thread", true}));

TEST_F(DataThreads, the_queue_is_set_up_once) {
  G_data_recv_file_queue_inited = false;
  EXPECT_EQ(pkgdist_file_recv_init(), 0u);
  EXPECT_EQ(pkgdist_file_recv_init(), 0u);
  EXPECT_EQ(faults::calls(Call::kCondInit), 1u);
  clockid_t clock_id = CLOCK_REALTIME;
  EXPECT_EQ(pthread_condattr_getclock(&G_pkgdist_file_recv_condattr, &clock_id), 0);
  EXPECT_EQ(clock_id, CLOCK_MONOTONIC);
}

// --- The queue ---

TEST_F(DataThreads, a_queued_datagram_is_a_copy) {
  Bytes datagram = {1, 2, 3};
  queue(datagram);
  datagram = {9, 9, 9};
  ASSERT_EQ(queued(), 1u);
  run_file_loop();
  EXPECT_EQ(logs::count("data rx received 3 bytes, hdr msg too small"), 1u);
}

TEST_F(DataThreads, the_watermark_follows_the_queue) {
  for (int i = 0; i < 3; ++i) queue({1});
  EXPECT_EQ(watermark()[0], 3u);  // current
  EXPECT_EQ(watermark()[1], 3u);  // highest
  run_file_loop();
  EXPECT_EQ(watermark()[0], 0u);
  EXPECT_EQ(watermark()[1], 3u);
}

TEST_F(DataThreads, without_memory_a_datagram_is_dropped) {
  faults::fail(Call::kMalloc, 1);
  queue(Bytes(1472));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_file_recv_queue_msg: malloc() 1472 bytes for RECV_DATA_PKT failed\n"));
  faults::fail(Call::kCalloc, 1);
  queue(Bytes(1472));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_file_recv_queue_msg: malloc() 32 bytes for DATA_Q_ENTRY failed\n"));
  EXPECT_EQ(queued(), 0u);
}

TEST_F(DataThreads, only_a_waiting_thread_is_signalled) {
  queue({1});
  EXPECT_EQ(faults::calls(Call::kCondSignal), 0u);
  G_pkgdist_file_recv_thread_waiting = true;
  queue({2});
  EXPECT_EQ(faults::calls(Call::kCondSignal), 1u);
  EXPECT_EQ(queued(), 2u);
}

TEST_F(DataThreads, a_datagram_that_cannot_be_signalled_is_dropped) {
  G_pkgdist_file_recv_thread_waiting = true;
  faults::fail(Call::kCondSignal, 1, EINVAL);
  queue({1});
  EXPECT_EQ(queued(), 0u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_file_recv_queue_msg: pthread_cond_signal() failed: 22(Invalid argument)\n"));
}

// --- DATA_FILE's loop ---

TEST_F(DataThreads, the_file_thread_leaves_only_with_an_empty_queue) {
  for (uint8_t i = 1; i <= 3; ++i) queue(Bytes(i));
  run_file_loop();
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(logs::count("hdr msg too small"), 3u);
  EXPECT_FALSE(G_data_recv_file_thread_running);
  EXPECT_FALSE(G_data_recv_file_exit_thread);
}

TEST_F(DataThreads, the_file_thread_takes_datagrams_in_order) {
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

TEST_F(DataThreads, the_file_thread_says_that_it_comes_and_goes) {
  run_file_loop();
  EXPECT_EQ(thread_name(), "DATA_FILE");
  EXPECT_TRUE(logs::contains("DATA Recv File Thread starting\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Thread exiting\n"));
  EXPECT_EQ(value(DrsCounter::kFileThreadStart), 1u);
  EXPECT_EQ(value(DrsCounter::kFileThreadStop), 1u);
}

TEST_F(DataThreads, every_datagram_moves_the_time_of_the_last_message) {
  queue({1});  // a bad one does too
  clock::advance(kSecond);
  run_file_loop();
  EXPECT_EQ(G_data_recv_file_last_msg, clock::now());
}

TEST_F(DataThreads, the_time_out_pass_waits_for_its_period) {
  want("file");
  find()->start_time = 0;  // long overdue
  G_data_rto.timer_period = kSecond;
  run_file_loop();
  EXPECT_TRUE(wire::sent().empty());
  G_data_rto.timer_period = 0;
  run_file_loop();
  EXPECT_EQ(take_traffic().requests.size(), 1u);
}

TEST_F(DataThreads, the_time_out_pass_runs_at_most_once_per_period_also_while_datagrams_come) {
  want("file");
  G_data_rto.timer_period = 10 * kSecond;
  for (int i = 0; i < 9; ++i) queue({1});
  int passes = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_pkgdist_file_recv_mutex) clock::advance(4 * kSecond);
    if (mutex == &G_file_stat_db.mutex) ++passes;
  });
  run_file_loop();  // the clock is at 0, 4, 8 ... 36 seconds when a datagram has been processed
  faults::clear();
  EXPECT_EQ(passes, 3);  // at 12, 24 and 36
}

using DataThreadsDeathTest = DataThreads;

TEST_F(DataThreadsDeathTest, a_wait_that_fails_ends_the_process) {
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

TEST_F(DataThreadsDeathTest, a_lock_that_fails_ends_the_process) {
  EXPECT_DEATH(
      {
        g_inst_common_debug_verbosity_level = 1;
        faults::fail(Call::kMutexLock, 1, EINVAL);
        pkgdist_data_recv_rx_stop();
      },
      "ERR:pkgdist_data_recv_rx_stop pthread_mutex_lock failed: Invalid argument(.|\n)*Assertion");
  EXPECT_DEATH(
      {
        g_inst_common_debug_verbosity_level = 1;
        faults::fail(Call::kMutexUnlock, 1, EPERM);
        pkgdist_data_recv_file_stop();
      },
      "ERR:pkgdist_data_recv_file_stop pthread_mutex_unlock failed: Operation not permitted");
}

// --- DATA_RX's loop ---

class RxLoop : public DataThreads {
 protected:
  void SetUp() override {
    DataThreads::SetUp();
    open_loopback();
  }
  void TearDown() override {
    close_sender();
    DataThreads::TearDown();
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
  send_to_node(2);
  int turn = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_data_rx_mutex && ++turn == 1) G_data_rx_exit_thread = false;
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
