// The data threads' surroundings: the socket, the starts and stops, the queue. Their loops are in
// data_loops_test.cpp; the threads themselves run in data_threads_loopback_test.cpp.
#include <sys/resource.h>

#include "data_threads_fixture.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

using DataThreads = DataThreadsTest;

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

TEST_F(DataThreads, the_data_socket_has_the_receive_buffer_of_the_table) {
  const auto buffer_of = [](int socket) {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, &size), 0);
    return bytes;
  };
  const int plain = pkgdist::udp_socket();
  const int asked = 60'000;  // below every system's limit, and no default
  ASSERT_EQ(pkgdist::set_socket_option(plain, SO_RCVBUF, asked), 0);
  G_data_rto.receive_buffer = asked;
  EXPECT_EQ(pkgdist_data_recv_rx_init(), 0u);
  EXPECT_EQ(buffer_of(G_data_rx_socket), buffer_of(plain));
  close(plain);
}

TEST_F(DataThreads, the_group_is_joined_on_the_nodes_own_address) {
  G_my_node_ip = 0xC0000201;  // 192.0.2.1: nobody's
  EXPECT_EQ(pkgdist_data_recv_rx_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_rx_init: data rx setsockopt ip add failed: 19(No such device)\n"));
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

// --- Locks that fail end the process ---

using DataThreadsDeathTest = DataThreads;

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

// It is not left behind in the queue of a thread that is gone.
TEST_F(DataThreads, a_datagram_that_is_queued_while_the_file_thread_leaves_starts_it_again) {
  G_data_recv_file_queue_inited = true;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_pkgdist_file_recv_mutex) G_data_recv_file_thread_running = false;  // it ends
  });
  faults::no_threads(true);
  queue(Bytes(10, 'd'));
  EXPECT_EQ(faults::calls(Call::kPthreadCreate), 1u);
  EXPECT_EQ(queued(), 1u);
  faults::clear();
  run_file_loop();
}

}  // namespace
