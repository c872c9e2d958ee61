// What tests of the data threads' pieces share: both loops run on the test's own thread and end at
// their first chance.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "data_support.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_socket.h"

namespace support {

class DataThreadsTest : public DataTest {
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

}  // namespace support
