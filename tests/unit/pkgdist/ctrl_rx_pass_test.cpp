// One pass of the receive thread after the other: what it reads, what it counts, when it scans.
// Pairs of local datagram sockets stand in for the network.
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ctrl_support.h"
#include "pkgdist_ctrl_recv_rx_thread.h"
#include "pkgdist_thread.h"

using namespace support;

namespace {

class CtrlRxPass : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, multicast_), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, unicast_), 0);
    G_ctrl_mc_rx_socket = multicast_[0];
    G_ctrl_uc_rx_socket = unicast_[0];
    G_ctrl_rto.rx_select_timeout = 0;
    last_scan_ = clock::now();
    attach(2);
    set_multicast_point(4);
    G_ctrl_uc_last_sequence = 4;
  }
  void TearDown() override {
    G_ctrl_mc_rx_socket = G_ctrl_uc_rx_socket = -1;
    for (const int socket : {multicast_[0], multicast_[1], unicast_[0], unicast_[1]}) close(socket);
    CtrlTest::TearDown();
  }

  static void send_to(int socket, const Bytes& bytes) {
    ASSERT_EQ(send(socket, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  void multicast(const Bytes& bytes) const { send_to(multicast_[1], bytes); }
  void unicast(const Bytes& bytes) const { send_to(unicast_[1], bytes); }
  void pass() { pkgdist::ctrl_rx_pass(last_scan_); }

  // A late entry: a scan that runs shows in its NACK.
  static void add_late_entry() {
    pkgdist::rx_msg_add(3, false)->stamp = clock::now() - G_ctrl_rto.segment_timeout;
  }
  static bool scanned() { return value(CrtCounter::kMcMsgTimeout) != 0; }

  uint64_t last_scan_ = 0;
  int multicast_[2] = {-1, -1};
  int unicast_[2] = {-1, -1};
};

TEST_F(CtrlRxPass, takes_one_datagram_of_each_stream) {
  multicast(control({.sequence = 5}));
  multicast(control({.sequence = 6}));
  unicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4", "UC ACK 5"}));
  pass();
  EXPECT_EQ(answers(), (Words{"MC ACK 6 point 5"}));
}

// A second start-up makes the sockets anew under the running thread, and the new one gets the old
// one's number: what was readable is not any more.
TEST_F(CtrlRxPass, a_socket_that_is_made_anew_during_the_pass_does_not_hold_it_up) {
  multicast(control({.sequence = 5}));
  unicast(control({.sequence = 5}));
  int fresh[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fresh), 0);
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_ctrl_recv_rx_msg_db.mutex) (void)dup2(fresh[0], unicast_[0]);
  });
  (void)alarm(20);  // a pass that waits for the empty socket would wait for ever
  pass();
  (void)alarm(0);
  faults::on_lock(nullptr);
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
  EXPECT_EQ(value(CrtCounter::kUcRecvfromErr), 1u);
  for (const int socket : fresh) close(socket);
}

TEST_F(CtrlRxPass, records_the_time_of_each_receive) {
  multicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(samples(CrtHistogram::kMcRxTime), 1u);
  EXPECT_EQ(samples(CrtHistogram::kUcRxTime), 0u);
  unicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(samples(CrtHistogram::kUcRxTime), 1u);
}

TEST_F(CtrlRxPass, reads_no_more_than_1472_bytes_of_a_datagram) {
  Bytes large = control({.sequence = 5});
  large.resize(3000);
  multicast(large);
  pass();
  EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), 1u) << "bytes behind the body";
  EXPECT_EQ(sizeof G_ctrl_recv_rx_buffer, 1472u);
}

TEST_F(CtrlRxPass, waits_for_the_time_of_the_table) {
  G_ctrl_rto.rx_select_timeout = 1'250'000;
  unicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(faults::select_wait(), 1'250'000u);
}

// --- The scan ---

TEST_F(CtrlRxPass, scans_a_quiet_channel_once_per_interval) {
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval - 1);
  pass();
  EXPECT_FALSE(scanned());
  clock::advance(1);
  pass();
  EXPECT_TRUE(scanned());
  EXPECT_EQ(last_scan_, clock::now());
}

TEST_F(CtrlRxPass, with_the_usual_time_outs_every_second_quiet_pass_scans) {
  const uint64_t wait = 125 * kMillisecond;
  std::vector<bool> scans;
  for (int i = 0; i < 6; ++i) {
    clock::advance(wait);
    const uint64_t before = last_scan_;
    pass();
    scans.push_back(last_scan_ != before);
  }
  EXPECT_EQ(scans, (std::vector<bool>{false, true, false, true, false, true}));
}

TEST_F(CtrlRxPass, scans_after_multicast_and_after_unicast_datagrams) {
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval);
  multicast(control({.sequence = 5}));
  pass();
  EXPECT_TRUE(scanned());
  const uint64_t first = last_scan_;
  clock::advance(G_ctrl_rto.scan_interval);
  unicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(last_scan_, first + G_ctrl_rto.scan_interval);
}

TEST_F(CtrlRxPass, the_scan_covers_messages_to_the_lead_too) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, nullptr, nullptr, nullptr), 0u);
  clock::advance(G_ctrl_rto.lead_ack_timeout);
  pass();
  EXPECT_EQ(value(CrtCounter::kUcAckTimeout), 1u);
}

// --- Failures ---

TEST_F(CtrlRxPass, a_failing_select_is_counted_and_ends_the_pass_without_a_scan) {
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval);
  multicast(control({.sequence = 5}));
  faults::fail(Call::kSelect, 1, EBADF);
  pass();
  EXPECT_EQ(value(CrtCounter::kSelectFail), 1u);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_rx_thread: ctrl uc rx select failed, errno=9(" +
                             std::string(std::strerror(EBADF)) + ")\n"));
  EXPECT_FALSE(scanned());
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 0u);
  pass();
  EXPECT_TRUE(scanned());
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 1u);
}

TEST_F(CtrlRxPass, a_failing_multicast_receive_leaves_unicast_and_scan_to_the_next_pass) {
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval);
  multicast(control({.sequence = 5}));
  unicast(control({.sequence = 5}));
  faults::fail(Call::kRecvfrom, 1, EIO);
  pass();
  EXPECT_EQ(value(CrtCounter::kMcRecvfromErr), 1u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_rx_thread: ctrl mc rx recvfrom failed, rc=-1, errno=5(" +
      std::string(std::strerror(EIO)) + ")\n"));
  EXPECT_EQ(value(CrtCounter::kUcMsgRecv), 0u);
  EXPECT_FALSE(scanned());
  pass();
  EXPECT_EQ(value(CrtCounter::kUcMsgRecv), 1u);
  EXPECT_TRUE(scanned());
}

TEST_F(CtrlRxPass, a_failing_unicast_receive_leaves_the_scan_to_the_next_pass) {
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval);
  multicast(control({.sequence = 5}));
  unicast(control({.sequence = 5}));
  faults::fail(Call::kRecvfrom, 2, EIO);
  pass();
  EXPECT_EQ(value(CrtCounter::kMcMsgRecv), 1u);
  EXPECT_EQ(value(CrtCounter::kUcRecvfromErr), 1u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_ctrl_recv_rx_thread: ctrl uc rx recvfrom failed, rc=-1, errno=5(" +
      std::string(std::strerror(EIO)) + ")\n"));
  EXPECT_FALSE(scanned());
}

TEST_F(CtrlRxPass, a_datagram_of_0_bytes_counts_as_a_failed_receive) {
  multicast({});
  pass();
  EXPECT_EQ(value(CrtCounter::kMcRecvfromErr), 1u);
  EXPECT_EQ(logs::count("ctrl mc rx recvfrom failed, rc=0,"), 1u);
  EXPECT_EQ(samples(CrtHistogram::kMcRxTime), 0u);
  EXPECT_EQ(value(CrtCounter::kMcBadPktRecv), 0u);
  unicast({});
  pass();
  EXPECT_EQ(value(CrtCounter::kUcRecvfromErr), 1u);
  EXPECT_EQ(logs::count("ctrl uc rx recvfrom failed, rc=0,"), 1u);
}

// --- Sockets that are made anew under the thread ---

TEST_F(CtrlRxPass, a_closed_socket_is_left_out) {
  G_ctrl_mc_rx_socket = -1;
  multicast(control({.sequence = 5}));
  unicast(control({.sequence = 5}));
  pass();
  EXPECT_EQ(answers(), (Words{"UC ACK 5"}));
  G_ctrl_mc_rx_socket = multicast_[0];
  G_ctrl_uc_rx_socket = -1;
  unicast(control({.sequence = 6}));
  pass();
  EXPECT_EQ(answers(), (Words{"MC ACK 5 point 4"}));
}

TEST_F(CtrlRxPass, without_any_socket_it_still_waits_and_scans) {
  G_ctrl_mc_rx_socket = G_ctrl_uc_rx_socket = -1;
  add_late_entry();
  clock::advance(G_ctrl_rto.scan_interval);
  pass();
  EXPECT_EQ(faults::calls(Call::kSelect), 1u);
  EXPECT_EQ(value(CrtCounter::kSelectFail), 0u);
  EXPECT_TRUE(scanned());
}

TEST(ThreadTimes, a_wait_in_microseconds_is_split_into_seconds_and_the_rest) {
  EXPECT_EQ(pkgdist::timeval_of(125'000).tv_sec, 0);
  EXPECT_EQ(pkgdist::timeval_of(125'000).tv_usec, 125'000);
  EXPECT_EQ(pkgdist::timeval_of(1'250'000).tv_sec, 1);
  EXPECT_EQ(pkgdist::timeval_of(1'250'000).tv_usec, 250'000);
}

}  // namespace
