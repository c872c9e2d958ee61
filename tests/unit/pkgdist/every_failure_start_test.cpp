// Every failure of start-ups and of the data threads, in turn. After each one the caller starts up
// again, which must succeed. No thread is started: their loops run on the test's own.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fault_sweep.h"
#include "pkgdist_ctrl_recv_rx_thread.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"

using namespace support;

namespace {

class StartFailures : public FaultSweep {
 protected:
  static constexpr uint32_t kGroup = 0xEFFF4D03;  // 239.255.77.3
  static uint16_t port(int number) {
    return static_cast<uint16_t>(20'000 + (getpid() * 8 + number) % 20'000);
  }

  PkgdistStatus start_control() {
    return instcomm_pkgdist_ctrl_recv_init(kGroup, port(1), port(2), port(3), 3, kMyAddress, 0);
  }
  PkgdistStatus start_data() {
    return instcomm_pkgdist_data_recv_init(kGroup + 1, port(4), port(5));
  }
  PkgdistStatus get() {
    return instcomm_pkgdist_get_file("file", 1, 1, 1, 5, client.loop(), Client::file_cb, &client);
  }
  static void nothing_runs_yet() {
    faults::no_threads(true);
    G_ctrl_recv_rx_thread_running = false;
    G_data_rx_thread_running = G_data_recv_file_thread_running = false;
  }
  static void data_threads_run() {
    G_data_rx_thread_running = G_data_recv_file_thread_running = true;
  }

  // Sends to the control group as a lead does; one pass of the thread takes it.
  static void multicast(const Bytes& datagram) {
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    in_addr interface {};
    interface.s_addr = htonl(kMyAddress);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_addr.s_addr = htonl(kGroup);
    group.sin_port = htons(port(1));
    EXPECT_EQ(setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), 0);
    EXPECT_EQ(sendto(sender, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr*>(&group), sizeof group),
              static_cast<ssize_t>(datagram.size()));
    close(sender);
    uint64_t last_scan = clock::now();
    pkgdist::ctrl_rx_pass(last_scan);
  }
};

TEST_F(StartFailures, of_the_control_side) {
  nodeid identity{1, 2, 3};
  sweep({.prepare = nothing_runs_yet,
         .exercise =
             [&] {
               tell(start_control());
               tell(instcomm_pkgdist_ctrl_recv_set_nodeid(&identity));
             },
         .recover =
             [&] {
               EXPECT_EQ(start_control(), 0u);
               data_threads_run();
               wire::capture(false);
               multicast(ping(0));
               wire::capture(true);
               EXPECT_EQ(value(CrtCounter::kMcPingRecv), 1u);
             }},
        {
            {Call::kSocket,
             {{"ctrl mc rx socket create failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc rx socket create failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc tx socket create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSetsockopt,
             {{"ctrl mc rx setsockopt prio failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl mc rx setsockopt failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl mc rx setsockopt reuse failed: 5(", PKGDIST_ERR_SYSTEM},
              {""},
              {"ctrl uc rx setsockopt prio failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc rx setsockopt failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc rx setsockopt reuse failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc tx setsockopt prio failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kBind,
             {{"ctrl mc rx bind failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl uc rx bind failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kPthreadCreate,
             {{"pthread_create() pkgdist_ctrl_recv_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kAttrInit,
             {{"pthread_create() pkgdist_ctrl_recv_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kAttrSetdetachstate,
             {{"pthread_create() pkgdist_ctrl_recv_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kShipRegister,
             {{"ctrl recv transport counters ship register failed: 5"},
              {"ctrl recv transport histograms ship register failed: 5"},
              {"ctrl recv server counters ship register failed: 5"},
              {"ctrl recv server histograms ship register failed: 5"}}},
            {Call::kTraceOpen, {{"", PKGDIST_ERR_SYSTEM, 2}}},
            {Call::kTraceEnable, {{"", PKGDIST_ERR_SYSTEM, 2}}},
            {Call::kNodeidToStr, {{""}}},
        });
}

TEST_F(StartFailures, of_the_data_side) {
  sweep({.prepare = nothing_runs_yet,
         .exercise =
             [&] {
               tell(start_data());
               tell(instcomm_pkgdist_set_recv_repository(directory().c_str(), 3, false));
             },
         .recover =
             [&] {
               EXPECT_EQ(start_data(), 0u);
               data_threads_run();
               EXPECT_NE(G_data_req_socket, -1);
             }},
        {
            {Call::kSocket, {{"data req socket create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSetsockopt, {{"data req setsockopt prio failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kShipRegister,
             {{"data recv transport counters ship register failed: 5"},
              {"data recv transport watermark ship register failed: 5"},
              {"data recv transport histograms ship register failed: 5"},
              {"data recv server counters ship register failed: 5"},
              {"data recv server histograms ship register failed: 5"}}},
        });
}

TEST_F(StartFailures, of_the_data_threads) {
  sweep({.prepare =
             [&] {
               nothing_runs_yet();
               G_data_tx_mc_addr = kGroup + 1;
               G_data_tx_mc_port = port(4);
             },
         .exercise = [&] { tell(get()); },
         .recover =
             [&] {
               EXPECT_EQ(get(), 0u);
               EXPECT_TRUE(G_data_rx_thread_running && G_data_recv_file_thread_running);
               EXPECT_NE(G_data_rx_socket, -1);
             }},
        {
            {Call::kMalloc,
             {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM},
              {"bytes for FILE_RECV_XACT_LIST failed", PKGDIST_ERR_NOMEM}}},
            {Call::kCalloc,
             {{"bytes for DATA_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for FILE_RECV_DB failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_FILE_REQ failed", PKGDIST_ERR_NOMEM}}},
            {Call::kStrdup,
             {{"stddup() for RECV_FILE_DB_FILE_PATH failed", PKGDIST_ERR_NOMEM},
              {"stddup() for DATA_SEND_FILE_REQ_NAME failed", PKGDIST_ERR_NOMEM}}},
            {Call::kNew, {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSocket, {{"data rx socket create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSetsockopt,
             {{"data rx setsockopt prio failed: 5(", PKGDIST_ERR_SYSTEM},
              {"data rx setsockopt failed: 5(", PKGDIST_ERR_SYSTEM},
              {"data rx setsockopt ip add failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kBind, {{"data rx bind failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSendto, {{"data req uc sendto", PKGDIST_ERR_SEND}}},
            {Call::kEventfd, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kEpollCtl, {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kPthreadCreate,
             {{"pthread_create() pkgdist_data_recv_file_thread failed: 5(", PKGDIST_ERR_SYSTEM},
              {"pthread_create() pkgdist_data_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kAttrInit,
             {{"pthread_create() pkgdist_data_recv_file_thread failed: 5(", PKGDIST_ERR_SYSTEM},
              {"pthread_create() pkgdist_data_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kAttrSetdetachstate,
             {{"pthread_create() pkgdist_data_recv_file_thread failed: 5(", PKGDIST_ERR_SYSTEM},
              {"pthread_create() pkgdist_data_rx_thread failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondattrInit, {{"pthread_condattr_init() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondattrSetclock,
             {{"pthread_condattr_setclock() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondInit, {{"pthread_cond_init() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kQitcCreate, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kLevmAttach, {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kEncodeDataHeader, {{"data file req encode failed: -5", PKGDIST_ERR_ENCODE}}},
            {Call::kEncodeBody, {{"data file req encode failed: -5", PKGDIST_ERR_ENCODE}}},
        });
}

// A datagram goes through both loops while the file thread waits.
TEST_F(StartFailures, of_the_loops_of_the_data_threads) {
  int data[2] = {-1, -1};
  sweep({.prepare =
             [&] {
               if (data[1] != -1) close(data[1]);
               ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, data), 0);
               G_data_rx_socket = data[0];
               G_data_rto.receive_wait = 0;
               G_data_rto.timer_period = 0;
               ASSERT_EQ(pkgdist_file_recv_init(), 0u);
               ASSERT_EQ(want("file"), 0u);
               const Bytes bytes =
                   data_datagram(PKGDIST_DATA_MSG_FILE_INFO, encoded_info({.size = 4}));
               ASSERT_EQ(send(data[1], bytes.data(), bytes.size(), 0),
                         static_cast<ssize_t>(bytes.size()));
             },
         .exercise =
             [&] {
               G_pkgdist_file_recv_thread_waiting = true;
               G_data_rx_thread_running = G_data_rx_exit_thread = true;
               EXPECT_EQ(pkgdist_data_rx_thread(nullptr), nullptr);
               // The file thread waits once, with an empty queue, before it sees its stop.
               G_data_recv_file_thread_running = true;
               G_data_recv_file_exit_thread = false;
               int turns = 0;
               faults::on_lock([&](const pthread_mutex_t* mutex) {
                 if (mutex == &G_pkgdist_file_recv_mutex && ++turns == 4)
                   G_data_recv_file_exit_thread = true;
               });
               EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
               faults::on_lock(nullptr);
               data_threads_run();
             },
         .recover = {}},
        {
            {Call::kMalloc,
             {{""},  // a buffer: the datagram comes into the one that is always there
              {"bytes for RECV_DATA_PKT failed"},
              {"", 0, 30},  // buffers for more datagrams
              {"data send file info msg decode failed: -5"}}},
            {Call::kCalloc,
             {{"bytes for DATA_Q_ENTRY failed"},
              {"bytes for RECV_FILE_BITMAP failed"},
              {"bytes for RECV_FILE_MISS_BITMAP failed"}}},
            {Call::kRecvfrom, {{"data rx recvfrom failed, rc=-1, errno=5"}}},
            {Call::kRecvmmsg, {{"data rx recvfrom failed, rc=-1, errno=5"}}},
            {Call::kSelect, {{"data rx select failed, errno=5"}}},
            {Call::kLstat, {{""}}},
            {Call::kCondSignal, {{"pthread_cond_signal() failed: 5("}}},
            {Call::kClockGettime, {{"", 0, 2}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"}, {"data send file info msg decode failed: -5"}}},
        });
  close(data[1]);
}

}  // namespace
