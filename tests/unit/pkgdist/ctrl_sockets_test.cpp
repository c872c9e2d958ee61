// The three control sockets: their options, every failing call, the patience of the join; and the
// start of the receive thread.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "ctrl_support.h"
#include "pkgdist_ctrl_recv_rx_thread.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_socket.h"

using namespace support;

namespace {

constexpr uint32_t kGroup = 0xEF010207;
constexpr uint32_t kNoAddressHere = 0xCB007101;  // of the range for documentation

class CtrlSockets : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    G_ctrl_tx_mc_addr = kGroup;
    G_ctrl_tx_mc_port = 0;
    G_ctrl_tx_uc_port = 0;
    G_my_node_ip = INADDR_LOOPBACK;
  }
  void TearDown() override {
    pkgdist::close_socket(G_ctrl_mc_rx_socket);
    pkgdist::close_socket(G_ctrl_uc_rx_socket);
    pkgdist::close_socket(G_ctrl_uc_tx_socket);
    CtrlTest::TearDown();
  }

  template <class Value = int>
  static Value option(int socket, int level, int name) {
    Value value{};
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(socket, level, name, &value, &size), 0);
    return value;
  }
  static sockaddr_in bound_to(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
    return address;
  }
  // What a receive buffer of `bytes` looks like on this machine.
  static int receive_buffer(int bytes) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes), 0);
    const int result = option(socket, SOL_SOCKET, SO_RCVBUF);
    close(socket);
    return result;
  }
  static std::string error_words(int error) {
    return std::to_string(error) + "(" + std::strerror(error) + ")\n";
  }
};

// --- The send socket ---

TEST_F(CtrlSockets, the_send_socket_has_priority_7_and_no_address) {
  ASSERT_EQ(pkgdist_ctrl_recv_uc_tx_port_init(), 0u);
  EXPECT_EQ(option(G_ctrl_uc_tx_socket, SOL_SOCKET, SO_PRIORITY), 7);
  EXPECT_EQ(bound_to(G_ctrl_uc_tx_socket).sin_port, 0);
  EXPECT_NE(fcntl(G_ctrl_uc_tx_socket, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(CtrlSockets, the_send_socket_reports_a_failed_creation) {
  faults::fail(Call::kSocket, 1, EMFILE);
  EXPECT_EQ(pkgdist_ctrl_recv_uc_tx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_ctrl_uc_tx_socket, -1);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_ctrl_recv_uc_tx_port_init: ctrl uc tx socket create failed: " +
                     error_words(EMFILE)));
}

TEST_F(CtrlSockets, the_send_socket_stays_open_when_its_priority_fails) {
  faults::fail(Call::kSetsockopt, 1, EACCES);
  EXPECT_EQ(pkgdist_ctrl_recv_uc_tx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_GE(G_ctrl_uc_tx_socket, 0);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_ctrl_recv_uc_tx_port_init: ctrl uc tx setsockopt prio failed: " +
                     error_words(EACCES)));
}

// --- Without privileges ---

TEST_F(CtrlSockets, a_priority_that_needs_a_privilege_is_replaced_by_the_highest_that_needs_none) {
  int* const sockets[] = {&G_ctrl_uc_tx_socket, &G_ctrl_mc_rx_socket, &G_ctrl_uc_rx_socket};
  PkgdistStatus (*const inits[])() = {pkgdist_ctrl_recv_uc_tx_port_init,
                                      pkgdist_ctrl_recv_mc_rx_port_init,
                                      pkgdist_ctrl_recv_uc_rx_port_init};
  const char* const names[] = {"uc_tx_port_init: ctrl uc tx", "mc_rx_port_init: ctrl mc rx",
                               "uc_rx_port_init: ctrl uc rx"};
  for (size_t i = 0; i < std::size(sockets); ++i) {
    faults::fail(Call::kSetsockopt, 1, EPERM);
    EXPECT_EQ(inits[i](), 0u) << names[i];
    EXPECT_EQ(option(*sockets[i], SOL_SOCKET, SO_PRIORITY), 6) << names[i];
    EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_ctrl_recv_") + names[i] +
                               " setsockopt prio failed: " + error_words(EPERM)));
  }
}

TEST_F(CtrlSockets, a_priority_that_nobody_needs_a_privilege_for_must_be_granted) {
  faults::fail_always(Call::kSetsockopt, EPERM);
  EXPECT_EQ(pkgdist_ctrl_recv_uc_tx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(logs::count("ctrl uc tx setsockopt prio failed: 1("), 2u);
}

// --- Many descriptors ---

TEST_F(CtrlSockets, only_sockets_that_select_watches_need_a_small_descriptor) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit before = limit;
  if (limit.rlim_max < FD_SETSIZE + 16) GTEST_SKIP() << "descriptors are limited to fewer";
  limit.rlim_cur = FD_SETSIZE + 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < FD_SETSIZE - 1) fillers.push_back(dup(0));
  EXPECT_EQ(pkgdist_ctrl_recv_uc_tx_port_init(), 0u);
  EXPECT_GE(G_ctrl_uc_tx_socket, FD_SETSIZE);
  EXPECT_EQ(pkgdist_data_recv_req_init(), 0u);
  EXPECT_GE(G_data_req_socket, FD_SETSIZE);
  EXPECT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(pkgdist_ctrl_recv_uc_rx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(logs::count("socket create failed: " + error_words(EMFILE)), 2u);
  pkgdist::close_socket(G_data_req_socket);
  for (const int filler : fillers) close(filler);
  (void)setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(CtrlSockets, an_open_socket_is_closed_before_it_is_made_anew) {
  int* const sockets[] = {&G_ctrl_uc_tx_socket, &G_ctrl_mc_rx_socket, &G_ctrl_uc_rx_socket};
  PkgdistStatus (*const inits[])() = {pkgdist_ctrl_recv_uc_tx_port_init,
                                      pkgdist_ctrl_recv_mc_rx_port_init,
                                      pkgdist_ctrl_recv_uc_rx_port_init};
  for (size_t i = 0; i < std::size(sockets); ++i) {
    ASSERT_EQ(inits[i](), 0u);
    const int first = *sockets[i];
    faults::fail(Call::kSocket, 1, EMFILE);
    EXPECT_EQ(inits[i](), PKGDIST_ERR_SYSTEM);
    EXPECT_EQ(*sockets[i], -1);
    EXPECT_EQ(fcntl(first, F_GETFD), -1) << "closed before the creation failed";
  }
}

// --- The receive sockets ---

TEST_F(CtrlSockets, the_multicast_socket_is_bound_to_the_group_with_its_options) {
  ASSERT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), 0u);
  const int socket = G_ctrl_mc_rx_socket;
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_PRIORITY), 7);
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_RCVBUF), receive_buffer(524'288));
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_REUSEPORT), 1);
  EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(ntohl(bound_to(socket).sin_addr.s_addr), kGroup);
  EXPECT_EQ(faults::sleeps(), 0u);
}

TEST_F(CtrlSockets, the_multicast_socket_hears_the_group_on_the_interface_of_this_node) {
  ASSERT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), 0u);
  const sockaddr_in group = bound_to(G_ctrl_mc_rx_socket);
  const int sender = socket(AF_INET, SOCK_DGRAM, 0);
  in_addr loopback{htonl(INADDR_LOOPBACK)};
  ASSERT_EQ(setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback), 0);
  wire::capture(false);
  ASSERT_EQ(sendto(sender, "hi", 2, 0, reinterpret_cast<const sockaddr*>(&group), sizeof group), 2);
  close(sender);
  char heard[8];
  EXPECT_EQ(recv(G_ctrl_mc_rx_socket, heard, sizeof heard, MSG_DONTWAIT), 2);
}

TEST_F(CtrlSockets, the_unicast_socket_is_bound_to_its_port_on_any_address) {
  G_ctrl_tx_uc_port = 0;
  ASSERT_EQ(pkgdist_ctrl_recv_uc_rx_port_init(), 0u);
  const uint16_t port = ntohs(bound_to(G_ctrl_uc_rx_socket).sin_port);
  G_ctrl_tx_uc_port = port;
  ASSERT_EQ(pkgdist_ctrl_recv_uc_rx_port_init(), 0u);
  const int socket = G_ctrl_uc_rx_socket;
  EXPECT_EQ(ntohs(bound_to(socket).sin_port), port);
  EXPECT_EQ(bound_to(socket).sin_addr.s_addr, INADDR_ANY);
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_PRIORITY), 7);
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_RCVBUF), receive_buffer(524'288));
  EXPECT_EQ(option(socket, SOL_SOCKET, SO_REUSEPORT), 1);
}

TEST_F(CtrlSockets, every_failing_call_of_a_receive_socket_is_reported) {
  struct Case {
    Call call;
    unsigned nth;
    const char* words;
    bool stays_open;
  };
  const Case cases[] = {{Call::kSocket, 1, "socket create failed: ", false},
                        {Call::kSetsockopt, 1, "setsockopt prio failed: ", true},
                        {Call::kSetsockopt, 2, "setsockopt failed: ", true},
                        {Call::kSetsockopt, 3, "setsockopt reuse failed: ", true},
                        {Call::kBind, 1, "bind failed: ", false}};
  for (const Case& at : cases) {
    faults::fail(at.call, at.nth, EACCES);
    EXPECT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), PKGDIST_ERR_SYSTEM);
    EXPECT_EQ(G_ctrl_mc_rx_socket >= 0, at.stays_open) << at.words;
    EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_ctrl_recv_mc_rx_port_init: ctrl mc rx ") +
                               at.words + error_words(EACCES)));
    faults::fail(at.call, at.nth, EACCES);
    EXPECT_EQ(pkgdist_ctrl_recv_uc_rx_port_init(), PKGDIST_ERR_SYSTEM);
    EXPECT_EQ(G_ctrl_uc_rx_socket >= 0, at.stays_open) << at.words;
    EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_ctrl_recv_uc_rx_port_init: ctrl uc rx ") +
                               at.words + error_words(EACCES)));
  }
}

// --- The join ---

TEST_F(CtrlSockets, a_join_that_fails_at_first_is_tried_again_after_a_second) {
  faults::fail(Call::kSetsockopt, 4, ENODEV);
  EXPECT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), 0u);
  EXPECT_EQ(faults::sleeps(), 1u);
  EXPECT_EQ(faults::calls(Call::kSetsockopt), 5u);
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(CtrlSockets, a_join_is_given_up_at_the_101st_failure_with_the_socket_open) {
  G_my_node_ip = kNoAddressHere;
  EXPECT_EQ(pkgdist_ctrl_recv_mc_rx_port_init(), PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(faults::sleeps(), 100u);
  EXPECT_EQ(faults::calls(Call::kSetsockopt), 3u + 101u);
  EXPECT_GE(G_ctrl_mc_rx_socket, 0);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_mc_rx_port_init: ctrl mc rx setsockopt ip add failed: 19(" +
      std::string(std::strerror(ENODEV)) + ") retry cnt 101\n"));
}

// --- The thread ---

class CtrlThread : public CtrlTest {
 protected:
  void TearDown() override {
    G_ctrl_recv_rx_thread_running = false;
    CtrlTest::TearDown();
  }
};

TEST_F(CtrlThread, is_not_started_while_it_runs) {
  G_ctrl_recv_rx_thread_running = true;
  EXPECT_EQ(pkgdist_ctrl_recv_rx_start(), 0u);
  EXPECT_EQ(faults::calls(Call::kPthreadCreate), 0u);
}

TEST_F(CtrlThread, a_failed_start_is_reported_and_may_be_repeated) {
  faults::fail(Call::kPthreadCreate, 1, EAGAIN);
  EXPECT_EQ(pkgdist_ctrl_recv_rx_start(), PKGDIST_ERR_SYSTEM);
  EXPECT_FALSE(G_ctrl_recv_rx_thread_running);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_rx_start: pthread_create() pkgdist_ctrl_recv_rx_thread failed: 11(" +
      std::string(std::strerror(EAGAIN)) + ")\n"));
}

unsigned threads_named(const std::string& name) {
  unsigned found = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    found += comm == name;
  }
  return found;
}

// In a child, because the thread never ends: started twice, there is one thread, detached, with its
// name, and it waits in select().
TEST_F(CtrlThread, runs_once_under_its_name) {
  EXPECT_EXIT(
      {
        const bool started = pkgdist_ctrl_recv_rx_start() == 0 &&
                             pkgdist_ctrl_recv_rx_start() == 0 && G_ctrl_recv_rx_thread_running;
        while (faults::calls(Call::kSelect) == 0) std::this_thread::yield();
        const bool one = faults::calls(Call::kPthreadCreate) == 1 && threads_named("CTRL_RX") == 1;
        _exit(started && one ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
