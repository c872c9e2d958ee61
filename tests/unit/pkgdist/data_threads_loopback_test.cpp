// The data threads as they run: real threads, real time, and multicast on the loopback interface.
//
// Every test does its work in a forked child, because threads of the library are never joined. A
// child waits for what it expects with a bound; it leaves with a failure when the bound passes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "data_support.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"

using namespace support;

namespace {

constexpr int kBoundMs = 20'000;  // far beyond everything that is awaited here

// Polls until `holds` does.
template <class Condition>
bool eventually(Condition&& holds) {
  for (int waited = 0; waited < kBoundMs; ++waited) {
    if (holds()) return true;
    (void)poll(nullptr, 0, 1);
  }
  return false;
}

// The lead's end of the data stream.
class Sender {
 public:
  Sender() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    in_addr interface {};
    interface.s_addr = htonl(kMyAddress);
    EXPECT_EQ(setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), 0);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_addr.s_addr = htonl(G_data_tx_mc_addr);
    group.sin_port = htons(G_data_tx_mc_port);
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&group), sizeof group), 0);
  }
  ~Sender() { close(socket_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  void send(const Bytes& datagram) const {
    EXPECT_EQ(::send(socket_, datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
  }
  void announce(const Info& info) const {
    send(data_datagram(PKGDIST_DATA_MSG_FILE_INFO, encoded_info(info)));
  }
  void segment(uint32_t number, const Bytes& data, uint32_t file_id = 7) const {
    send(data_datagram(PKGDIST_DATA_MSG_SEGMENT, encoded_segment(file_id, number, data)));
  }

 private:
  int socket_;
};

class DataThreadsLoopback : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    G_data_rx_thread_running = G_data_recv_file_thread_running = false;
    G_data_tx_mc_addr = 0xEFFF4D00 + 2 + static_cast<uint32_t>(getpid()) % 250;
    G_data_tx_mc_port = static_cast<uint16_t>(20'000 + getpid() % 20'000);
    G_data_rto.receive_wait = 1'000;  // microseconds
    G_data_rto.timer_period = kMillisecond;
    G_data_rto.file_info_timeout = kMillisecond;
    G_data_rto.max_retries = 1;
  }

  // Runs `body` in a child with real time. The child's expectations decide.
  template <class Body>
  void in_child(Body&& body) {
    EXPECT_EXIT(
        {
          clock::follow_real_time();
          body();
          (void)std::fflush(stdout);
          _exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
  }

  // The threads stop as soon as nothing is left, and look for that all the time.
  static constexpr uint64_t kShortest = 20'000;  // nanoseconds
  static void race_against_the_stop() {
    G_data_rto.stat_age = 0;
    G_data_rto.timer_period = kShortest;
    G_data_rto.file_info_timeout = kShortest;
    G_data_rto.receive_wait = kShortest / 1000;
    G_data_rto.max_retries = 0;
  }

  PkgdistStatus get(const std::string& name, uint32_t xact_id = 5) {
    return instcomm_pkgdist_get_file(name.c_str(), 1, 1, 1, xact_id, client.loop(), Client::file_cb,
                                     &client);
  }
  // Runs the caller's loop until `count` files have been reported.
  bool await_files(size_t count) {
    return eventually([&] {
      client.deliver();
      return client.files.size() >= count;
    });
  }
  static uint32_t starts() {
    return value(DrsCounter::kRxThreadStart) + value(DrsCounter::kFileThreadStart);
  }
  static uint32_t stops() {
    return value(DrsCounter::kRxThreadStop) + value(DrsCounter::kFileThreadStop);
  }
  static bool at_rest() {
    return !pkgdist::load(G_data_rx_thread_running) &&
           !pkgdist::load(G_data_recv_file_thread_running) && starts() == stops();
  }
};

TEST_F(DataThreadsLoopback, a_file_comes_over_multicast_and_the_threads_end_after_it) {
  in_child([&] {
    G_data_rto.file_info_timeout = G_data_rto.not_done_timeout = 100 * kSecond;
    G_data_rto.stat_age = 20 * kMillisecond;
    ASSERT_EQ(get("file"), 0u);
    EXPECT_TRUE(eventually([] { return starts() == 2; }));
    const Sender lead;
    lead.announce({.size = 8});
    const Bytes whole = content(8);
    lead.segment(0, Bytes(whole.begin(), whole.begin() + 4));
    lead.segment(1, Bytes(whole.begin() + 4, whole.end()));
    ASSERT_TRUE(await_files(1));
    EXPECT_EQ(client.files[0].status, 0u);
    EXPECT_EQ(bytes_of(path("file")), whole);
    EXPECT_EQ(value(DrtCounter::kMcRxRecv), 3u);
    EXPECT_TRUE(eventually(at_rest));
    EXPECT_EQ(starts(), 2u);
    EXPECT_EQ(pkgdist::load(G_data_rx_socket), -1);
  });
}

TEST_F(DataThreadsLoopback, a_datagram_wakes_the_file_thread) {
  in_child([&] {
    G_data_rto.timer_period = 3600 * kSecond;  // nothing else would
    ASSERT_EQ(get("file"), 0u);
    ASSERT_TRUE(eventually([] { return pkgdist::load(G_pkgdist_file_recv_thread_waiting); }));
    const Sender lead;
    lead.announce({.size = 4});
    lead.segment(0, content(4));
    ASSERT_TRUE(await_files(1));
    EXPECT_EQ(client.files[0].status, 0u);
  });
}

TEST_F(DataThreadsLoopback, without_datagrams_the_time_outs_run) {
  in_child([&] {
    ASSERT_EQ(get("file"), 0u);
    ASSERT_TRUE(await_files(1));
    EXPECT_EQ(client.files[0].status, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
    EXPECT_EQ(value(DrtCounter::kFileInfoTimeout), 1u);
    EXPECT_EQ(value(DrtCounter::kMcRxRecv), 0u);
  });
}

TEST_F(DataThreadsLoopback, while_datagrams_keep_coming_the_time_outs_run) {
  in_child([&] {
    G_data_rto.timer_period = 20 * kMillisecond;
    ASSERT_EQ(get("file"), 0u);
    const Sender lead;
    ASSERT_TRUE(eventually([&] {
      lead.announce({.name = "another"});
      client.deliver();
      return client.files.size() == 1;
    }));
    EXPECT_EQ(client.files[0].status, PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT));
    EXPECT_GT(value(DrtCounter::kFileNotFound), 0u);
  });
}

TEST_F(DataThreadsLoopback, a_new_file_within_the_receive_wait_keeps_the_receive_thread) {
  in_child([&] {
    G_data_rto.receive_wait = 3'600'000'000;
    G_data_rto.stat_age = 0;
    ASSERT_EQ(get("first"), 0u);
    ASSERT_TRUE(await_files(1));
    // Both are asked to stop; the file thread does, the receive thread waits for a datagram.
    ASSERT_TRUE(eventually([] { return value(DrsCounter::kFileThreadStop) == 1; }));
    ASSERT_TRUE(pkgdist::load(G_data_rx_exit_thread));
    ASSERT_EQ(get("second"), 0u);
    EXPECT_FALSE(pkgdist::load(G_data_rx_exit_thread));
    EXPECT_TRUE(pkgdist::load(G_data_rx_thread_running));
    ASSERT_TRUE(await_files(2));  // its time-outs run: the file thread is back
    EXPECT_EQ(value(DrsCounter::kRxThreadStart), 1u);
    EXPECT_EQ(value(DrsCounter::kRxThreadStop), 0u);
    EXPECT_EQ(value(DrsCounter::kFileThreadStart), 2u);
  });
}

TEST_F(DataThreadsLoopback, the_receive_thread_opens_its_socket_anew_after_a_rest) {
  in_child([&] {
    G_data_rto.stat_age = 0;
    for (size_t round = 1; round <= 3; ++round) {
      ASSERT_EQ(get("file"), 0u);
      ASSERT_TRUE(await_files(round));
      ASSERT_TRUE(eventually(at_rest));
      EXPECT_EQ(starts(), 2 * round);
    }
  });
}

TEST_F(DataThreadsLoopback, a_datagram_that_starts_the_file_thread_alone_does_not_keep_it) {
  in_child([&] {
    const uint8_t bytes[] = {1};
    pkgdist_file_recv_queue_msg(bytes, sizeof bytes);  // as the leaving receive thread may do
    ASSERT_TRUE(eventually([] { return value(DrtCounter::kMcBadPktRecv) == 1; }));
    EXPECT_TRUE(eventually(at_rest));  // its own pass finds nothing to do
  });
}

// Files come while the threads are about to stop, in the middle of it and just after. With the
// shortest periods every addition meets another moment of the stop. No file may be forgotten: one
// that the lead sends must arrive, whatever the threads were about to do when it was asked for, and
// one that it does not send must fail by its time-outs.
TEST_F(DataThreadsLoopback, no_file_is_forgotten_when_it_comes_while_the_threads_stop) {
  in_child([&] {
    race_against_the_stop();
    G_data_rto.not_done_timeout = 100 * kSecond;
    G_data_rto.segment_timeout = 100 * kSecond;
    logs::keep(false);
    const Sender lead;
    std::mt19937 random(1);
    std::uniform_int_distribution<int> turns(0, 3'000);
    constexpr uint32_t kFiles = 10'000;
    uint32_t received = 0;
    for (uint32_t file = 1; file <= kFiles; ++file) {
      const bool is_sent = file % 3 == 0;
      const std::string name = "f" + std::to_string(file);
      pkgdist::store(G_data_rto.file_info_timeout, is_sent ? 100 * kSecond : kShortest);
      ASSERT_EQ(get(name), 0u);
      if (is_sent) {
        lead.announce({.id = file, .name = name, .size = 4});
        lead.segment(0, content(4), file);
        // One more that a leaving receive thread may queue last.
        if (file % 2 == 0) lead.announce({.id = file, .name = "nobody's"});
      }
      const uint64_t bound = clock::now() + kBoundMs * kMillisecond;
      while (client.files.size() < file && clock::now() < bound)
        (void)levm_run_once(client.loop(), 1);
      ASSERT_EQ(client.files.size(), file) << "forgotten";
      ASSERT_EQ(client.files.back().status,
                is_sent ? 0u : uint64_t{PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT)});
      if (is_sent) {
        ASSERT_EQ(bytes_of(path(name)), content(4)) << name;
        ++received;
      }
      wire::take();
      for (volatile int turn = turns(random) * static_cast<int>(file % 8); turn > 0;)
        turn = turn - 1;
    }
    EXPECT_TRUE(eventually(at_rest));
    EXPECT_EQ(received, kFiles / 3);
    EXPECT_EQ(value(DrsCounter::kFileAdd), kFiles);
    EXPECT_EQ(value(DrsCounter::kFileRemove), kFiles);
    EXPECT_EQ(value(DrsCounter::kStatAdd), kFiles);
    EXPECT_EQ(value(DrsCounter::kStatRemove), kFiles);
    // They did stop now and then, and met files at different moments of that.
    EXPECT_GT(value(DrsCounter::kRxThreadStart), 10u);
    EXPECT_GT(value(DrsCounter::kFileThreadStart), 10u);
    std::printf("%u files, %u received, %u and %u starts of the threads\n", kFiles, received,
                value(DrsCounter::kRxThreadStart), value(DrsCounter::kFileThreadStart));
  });
}

// The same with many callers at once.
TEST_F(DataThreadsLoopback, no_file_is_forgotten_when_many_callers_ask) {
  in_child([&] {
    race_against_the_stop();
    constexpr size_t kCallers = 4;
    constexpr size_t kFilesEach = 300;
    std::vector<std::thread> callers;
    for (size_t caller = 0; caller < kCallers; ++caller)
      callers.emplace_back([this, caller] {
        for (size_t file = 0; file < kFilesEach; ++file)
          EXPECT_EQ(get(std::to_string(caller) + "-" + std::to_string(file)), 0u);
      });
    EXPECT_TRUE(await_files(kCallers * kFilesEach));
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(client.files.size(), kCallers * kFilesEach);
    EXPECT_TRUE(eventually(at_rest));
  });
}

}  // namespace
