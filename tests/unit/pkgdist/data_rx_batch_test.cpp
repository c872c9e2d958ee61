// Batches of DATA_RX: what is ready comes with one call and is queued under one lock, and each
// datagram of it is still judged by itself.
#include "data_threads_fixture.h"
#include "pkgdist_data_recv_rx_batch.h"

using namespace support;

namespace {

class RxBatch : public DataThreadsTest {
 protected:
  void SetUp() override {
    DataThreadsTest::SetUp();
    open_loopback();
  }
  void TearDown() override {
    faults::clear();
    close_sender();
    DataThreadsTest::TearDown();
  }
  void send_datagrams(size_t count, size_t first_length = 1) {
    for (size_t i = 0; i < count; ++i) send_to_node(first_length + i);
  }
  // Lengths of what is queued, in order.
  static std::vector<uint64_t> lengths() {
    std::vector<uint64_t> result;
    for (const queue_link_t* at = G_pkgdist_file_recv_q.head; at != nullptr; at = at->next)
      result.push_back(reinterpret_cast<const pkgdist::DataQueueEntry*>(at)->length);
    return result;
  }
  static const pkgdist::DataQueueEntry& first() {
    return *reinterpret_cast<const pkgdist::DataQueueEntry*>(G_pkgdist_file_recv_q.head);
  }
  // The stop stands whenever the thread looks, but is withdrawn the first `turns` times.
  static void withdraw_stops(int turns, std::function<void()> meanwhile = {}) {
    faults::on_lock([=, left = turns](const pthread_mutex_t* mutex) mutable {
      if (mutex == &G_pkgdist_file_recv_mutex) G_data_rx_exit_thread = true;
      if (mutex != &G_data_rx_mutex || left-- <= 0) return;
      G_data_rx_exit_thread = false;
      if (meanwhile) meanwhile();
    });
  }
};

TEST_F(RxBatch, what_is_ready_comes_with_two_calls_and_one_wake_up) {
  send_datagrams(10);
  G_pkgdist_file_recv_thread_waiting = true;
  unsigned locks = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_pkgdist_file_recv_mutex) ++locks;
  });
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(locks, 2u);  // for the batch, and for the stop of the file thread
  EXPECT_EQ(faults::calls(Call::kSelect), 1u);
  EXPECT_EQ(faults::calls(Call::kRecvfrom), 1u);
  EXPECT_EQ(faults::calls(Call::kRecvmmsg), 1u);
  EXPECT_EQ(faults::calls(Call::kCondSignal), 1u);
}

TEST_F(RxBatch, each_datagram_of_it_is_counted_and_timed) {
  send_datagrams(10);
  run_rx_loop();
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 10u);
  EXPECT_EQ(samples(DrtHistogram::kMcRxTime), 10u);
  EXPECT_EQ(watermark()[1], 10u);
}

TEST_F(RxBatch, they_are_counted_before_the_file_thread_can_see_them) {
  send_datagrams(10);
  uint32_t counted = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_pkgdist_file_recv_mutex && queued() == 0)
      counted = value(DrtCounter::kMcRxRecv);
  });
  run_rx_loop();
  EXPECT_EQ(counted, 10u);
}

TEST_F(RxBatch, a_lone_datagram_is_no_error) {
  send_datagrams(1);
  run_rx_loop();
  EXPECT_EQ(faults::calls(Call::kRecvmmsg), 1u);
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 0u);
  EXPECT_EQ(queued(), 1u);
}

TEST_F(RxBatch, the_stop_is_looked_at_after_each_batch) {
  send_datagrams(100);
  run_rx_loop();
  EXPECT_EQ(queued(), pkgdist::ReceiveBatch::kMax);
}

TEST_F(RxBatch, a_full_socket_is_emptied_without_waiting) {
  send_datagrams(100);
  withdraw_stops(3);
  run_rx_loop();
  EXPECT_EQ(queued(), 100u);
  EXPECT_EQ(faults::calls(Call::kSelect), 1u);
  EXPECT_EQ(faults::calls(Call::kRecvfrom), 1u);
  EXPECT_EQ(faults::calls(Call::kRecvmmsg), 4u);
}

TEST_F(RxBatch, a_socket_that_was_just_emptied_is_no_error) {
  send_datagrams(32);  // exactly what fits
  pkgdist::ReceiveBatch batch;
  EXPECT_TRUE(batch.receive_first(G_data_rx_socket));
  EXPECT_TRUE(batch.receive_ready(G_data_rx_socket));
  EXPECT_FALSE(batch.is_drained());
  batch.queue();
  EXPECT_TRUE(batch.receive_ready(G_data_rx_socket));
  EXPECT_TRUE(batch.is_drained());
  batch.queue();
  EXPECT_EQ(queued(), 32u);
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 0u);
}

TEST_F(RxBatch, the_socket_is_looked_up_for_each_batch) {
  send_datagrams(40);
  const int before = G_data_rx_socket;
  withdraw_stops(1, [&] {
    close_sender();
    open_loopback();  // in its place
    send_datagrams(1, 77);
  });
  run_rx_loop();
  close(before);
  EXPECT_EQ(queued(), 33u);
  EXPECT_EQ(lengths().back(), 77u);
}

TEST_F(RxBatch, full_datagrams_in_it_are_whole_and_longer_ones_are_cut) {
  for (const size_t length : {1472, 1472, 1473, 2000, 513, 512}) send_to_node(length);
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1472, 1472, 1472, 1472, 513, 512}));
  for (const queue_link_t* at = G_pkgdist_file_recv_q.head; at != nullptr; at = at->next) {
    const auto& entry = *reinterpret_cast<const pkgdist::DataQueueEntry*>(at);
    EXPECT_EQ(Bytes(entry.data, entry.data + entry.length), Bytes(entry.length, 'd'));
  }
}

TEST_F(RxBatch, an_empty_datagram_in_it_is_a_failed_receive) {
  for (const size_t length : {1, 0, 2, 0, 0, 3}) send_to_node(length);
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(logs::count("ERR:pkgdist_data_rx_thread: data rx recvfrom failed, rc=0, errno="), 3u);
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 3u);
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 3u);
  EXPECT_EQ(samples(DrtHistogram::kMcRxTime), 3u);
}

struct Failure {
  int error;
  const char* words;
};
class RxBatchFailure : public RxBatch, public testing::WithParamInterface<Failure> {};

TEST_P(RxBatchFailure, loses_nothing_and_goes_on_without_looking_at_the_stop) {
  send_datagrams(2);
  faults::fail(Call::kRecvmmsg, 1, GetParam().error);
  run_rx_loop();
  EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_data_rx_thread: data rx recvfrom failed, "
                                         "rc=-1, errno=") +
                             GetParam().words + "\n"));
  EXPECT_EQ(value(DrtCounter::kMcRecvfromErr), 1u);
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(faults::calls(Call::kSelect), 2u);
}

INSTANTIATE_TEST_SUITE_P(Errors, RxBatchFailure,
                         testing::Values(Failure{ECONNREFUSED, "111(Connection refused)"},
                                         Failure{EINTR, "4(Interrupted system call)"},
                                         Failure{ENOMEM, "12(Cannot allocate memory)"}));

TEST_F(RxBatch, an_empty_datagram_at_its_end_leaves_the_stop_for_the_next_turn) {
  for (const size_t length : {1, 0}) send_to_node(length);
  int turns = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_pkgdist_file_recv_mutex && ++turns == 1) send_to_node(2);
  });
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1, 2}));
}

TEST_F(RxBatch, without_memory_for_buffers_datagrams_come_one_by_one) {
  send_datagrams(3);
  faults::limit_memory(UINT64_MAX - 1, 1471);  // no buffer, but copies
  withdraw_stops(2);
  run_rx_loop();
  faults::unlimited_memory();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(faults::calls(Call::kRecvfrom), 3u);
  EXPECT_EQ(faults::calls(Call::kRecvmmsg), 0u);
  EXPECT_TRUE(logs::records().empty() || logs::count("ERR:") == 0u);
}

TEST_F(RxBatch, without_any_memory_each_datagram_is_told_and_lost) {
  send_datagrams(2, 100);
  faults::limit_memory(0, 0);
  pkgdist::ReceiveBatch batch;
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(batch.receive_first(G_data_rx_socket));
    EXPECT_TRUE(batch.receive_ready(G_data_rx_socket));
    batch.queue();
  }
  faults::unlimited_memory();
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(value(DrtCounter::kMcRxRecv), 2u);
  for (const char* bytes : {"100", "101"})
    EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_file_recv_queue_msg: malloc() ") + bytes +
                               " bytes for RECV_DATA_PKT failed\n"));
}

TEST_F(RxBatch, an_entry_that_finds_no_memory_costs_one_datagram) {
  send_datagrams(3, 1000);
  faults::fail(Call::kCalloc, 2);
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{1000, 1002}));
  EXPECT_EQ(logs::count("malloc() 32 bytes for DATA_Q_ENTRY failed"), 1u);
}

TEST_F(RxBatch, a_wake_up_that_fails_costs_one_datagram) {
  send_datagrams(3);
  G_pkgdist_file_recv_thread_waiting = true;
  faults::fail(Call::kCondSignal, 1, EINVAL);
  run_rx_loop();
  EXPECT_EQ(lengths(), (std::vector<uint64_t>{2, 3}));
  EXPECT_EQ(logs::count("pthread_cond_signal() failed: 22(Invalid argument)"), 1u);
  EXPECT_EQ(faults::calls(Call::kCondSignal), 2u);
}

TEST_F(RxBatch, short_datagrams_do_not_keep_the_large_buffers) {
  send_datagrams(10);
  run_rx_loop();
  const auto buffers = static_cast<unsigned>(pkgdist::ReceiveBatch::kMax) - 1;
  EXPECT_EQ(faults::calls(Call::kMalloc), buffers + 10);  // none was made in place of one
  EXPECT_EQ(first().length, 1u);
}

}  // namespace
