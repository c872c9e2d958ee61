// The queue between the data threads: what DATA_FILE takes, what still counts as waiting, and the
// limit in bytes.
#include "data_threads_fixture.h"
#include "pkgdist_data_recv_file_queue.h"
#include "platform/inst_common.h"

using namespace pkgdist;
using namespace support;

namespace {

class FileQueue : public DataThreadsTest {
 protected:
  static constexpr uint64_t kMebibyte = 1 << 20;

  void SetUp() override {
    DataThreadsTest::SetUp();
    ASSERT_EQ(pkgdist_file_recv_init(), 0u);
  }
  static void queue_many(int count) {
    for (int i = 0; i < count; ++i) queue({1});
  }
};

TEST_F(FileQueue, a_bounded_number_is_taken_at_a_time) {
  queue_many(70);
  TakenEntries taken;
  std::vector<size_t> sizes;
  for (int i = 0; i < 4; ++i) {
    taken.take();
    sizes.push_back(taken.entries().size());
    taken.free();
    taken.done();
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{32, 32, 6, 0}));
}

TEST_F(FileQueue, what_is_taken_is_in_order) {
  for (uint8_t length = 1; length <= 5; ++length) queue(Bytes(length, length));
  TakenEntries taken;
  taken.take();
  uint8_t length = 0;
  for (const OwnedQueueEntry& entry : taken.entries())
    EXPECT_EQ(Bytes(entry->data, entry->data + entry->length), Bytes(++length, length));
  EXPECT_EQ(length, 5);
}

TEST_F(FileQueue, taken_datagrams_that_were_not_begun_count_in_the_watermark) {
  queue_many(40);
  EXPECT_EQ(watermark()[0], 40u);
  TakenEntries taken;
  taken.take();
  EXPECT_EQ(watermark()[0], 39u);  // the first is being processed
  taken.begin(9);
  queue({1});
  EXPECT_EQ(watermark()[0], 22u + 9u);
  EXPECT_EQ(watermark()[1], 40u);
  taken.begin(31);
  taken.free();
  taken.done();
  EXPECT_EQ(watermark()[0], 9u);
}

TEST_F(FileQueue, the_watermark_is_at_zero_before_the_file_thread_sleeps) {
  queue_many(3);
  uint32_t waiting = 99;
  faults::inject([&](Call call, const void*) {
    if (call != Call::kCondTimedwait) return 0;
    waiting = watermark()[0];
    G_data_recv_file_exit_thread = true;
    return ETIMEDOUT;
  });
  G_data_recv_file_thread_running = true;
  EXPECT_EQ(pkgdist_data_recv_file_thread(nullptr), nullptr);
  faults::clear();
  EXPECT_EQ(waiting, 0u);
}

TEST_F(FileQueue, beyond_the_limit_a_datagram_is_lost_as_without_memory) {
  const Bytes large(16 * kMebibyte - sizeof(DataQueueEntry));
  for (int i = 0; i < 16; ++i) queue(large);
  EXPECT_EQ(queued(), 16u);  // 256 MiB, to the byte
  queue({1, 2, 3});
  EXPECT_EQ(queued(), 16u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_file_recv_queue_msg: malloc() 3 bytes for RECV_DATA_PKT failed\n"));
}

TEST_F(FileQueue, what_is_taken_counts_for_the_limit_until_it_is_processed) {
  const Bytes large(64 * kMebibyte - sizeof(DataQueueEntry));
  for (int i = 0; i < 4; ++i) queue(large);
  TakenEntries taken;
  taken.take();
  queue({1});
  EXPECT_EQ(queued(), 0u);
  taken.free();
  taken.done();
  queue({1});
  EXPECT_EQ(queued(), 1u);
  EXPECT_EQ(logs::count("bytes for RECV_DATA_PKT failed"), 1u);
}

TEST_F(FileQueue, a_lost_datagram_wakes_nobody) {
  const Bytes large(128 * kMebibyte - sizeof(DataQueueEntry));
  for (int i = 0; i < 2; ++i) queue(large);
  G_pkgdist_file_recv_thread_waiting = true;
  queue({1});
  EXPECT_EQ(faults::calls(Call::kCondSignal), 0u);
}

TEST_F(FileQueue, medium_datagrams_count_with_the_buffer_that_they_came_in) {
  // A length in the middle, as often as it would fit by its own length.
  const size_t length = kDataCopyMax + 1;
  const uint64_t each = sizeof(DataQueueEntry) + kDataPacketMax;
  const Bytes large(255 * kMebibyte - sizeof(DataQueueEntry));
  queue(large);
  logs::keep(false);
  for (int i = 0; i < 2'000; ++i) queue(Bytes(length));
  logs::keep(true);
  EXPECT_EQ(queued(), 1 + kMebibyte / each);
}

}  // namespace
