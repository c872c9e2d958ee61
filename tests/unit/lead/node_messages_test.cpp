#include "control/node_messages.h"

#include <gtest/gtest.h>

#include <array>

#include "wire_frame.h"

namespace pkgdist::lead {
namespace {

constexpr uint32_t kNode = 0x0A000002;
constexpr uint32_t kSize = PKGDIST_CTRL_SEGMENT_SIZE;

class NodeMessagesTest : public testing::Test, public DatagramSink {
 protected:
  struct Answer {
    uint32_t msg_id, sequence;
    int32_t unicast;
    bool has_segment;
    uint32_t segment;
  };

  void SetUp() override { nodes_.observe_data(kNode, kSecond); }
  // A segment of a message whose segments are not of the usual size.
  void receive_odd(NodeIndex node, uint32_t sequence, uint32_t segment, uint32_t total,
                   uint32_t segment_size) {
    pkgdist_ctrl_msg_hdr header{};
    header.sequence = sequence;
    header.segment = segment;
    const std::vector<uint8_t> data(std::min(segment_size, total - segment * segment_size));
    pkgdist_ctrl_msg body{};
    body.msg_class = 3;
    body.total_size = total;
    body.segment_size = segment_size;
    body.data = data.data();
    body.data_size = data.size();
    messages_.on_segment(node, header, body, kSecond);
  }
  std::span<uint8_t> buffer() override { return buffer_; }
  void send(Channel, uint32_t destination, size_t length) override {
    EXPECT_EQ(destination, kNode);
    using H = pkgdist_ctrl_msg_hdr;
    const test::Message<H> header(test::parts_of({buffer_.data(), length}).header);
    ASSERT_TRUE(header.ok());
    EXPECT_FALSE(qidl::has<&H::ack_sequence>(*header));
    answers_.push_back({header->msg_id, header->sequence, header->unicast,
                        qidl::has<&H::segment>(*header), header->segment});
  }

  void receive(uint32_t sequence, uint32_t segment, uint32_t total, Time now = kSecond,
               int64_t size = -1) {
    pkgdist_ctrl_msg_hdr header{};
    header.pid = pid_;
    header.sequence = sequence;
    header.segment = segment;
    const std::vector<uint8_t> data(kSize + 1, static_cast<uint8_t>(segment));
    pkgdist_ctrl_msg body{};
    body.msg_class = 3;
    body.total_size = total;
    body.segment_size = kSize;
    body.data = data.data();
    body.data_size = size >= 0 ? static_cast<uint64_t>(size)
                               : std::min<uint64_t>(kSize, total - uint64_t{segment} * kSize);
    messages_.on_segment(0, header, body, now);
  }
  std::vector<Answer> take() { return std::exchange(answers_, {}); }

  std::array<uint8_t, PKGDIST_CTRL_PKT_MAX> buffer_{};
  std::vector<Answer> answers_;
  std::vector<std::vector<uint8_t>> delivered_;
  uint32_t pid_ = 1;
  Counters counters_;
  Settings settings_{.address = 0x0A000001, .pid = 42};
  NodeTable nodes_;
  NodeMessages messages_{settings_, nodes_, *this, counters_,
                         [this](NodeIndex, uint32_t msg_class, std::span<const uint8_t> bytes) {
                           EXPECT_EQ(msg_class, 3u);
                           delivered_.emplace_back(bytes.begin(), bytes.end());
                         }};
};

TEST_F(NodeMessagesTest, a_message_of_one_segment_is_delivered_and_acknowledged) {
  receive(7, 0, kSize);
  ASSERT_EQ(delivered_.size(), 1u);
  EXPECT_EQ(delivered_[0].size(), kSize);
  const auto answers = take();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].msg_id, PKGDIST_CTRL_MSG_ACK);
  EXPECT_EQ(answers[0].sequence, 7u);
  EXPECT_EQ(answers[0].unicast, 1);
}

TEST_F(NodeMessagesTest, segments_may_come_in_any_order_and_twice) {
  receive(1, 2, 2 * kSize + 1);
  receive(1, 0, 2 * kSize + 1);
  receive(1, 2, 2 * kSize + 1);
  EXPECT_TRUE(delivered_.empty());
  EXPECT_TRUE(take().empty());
  receive(1, 1, 2 * kSize + 1);
  ASSERT_EQ(delivered_.size(), 1u);
  EXPECT_EQ(delivered_[0].size(), 2 * kSize + 1);
  EXPECT_EQ(delivered_[0][0], 0);
  EXPECT_EQ(delivered_[0][kSize], 1);
  EXPECT_EQ(delivered_[0].back(), 2);
}

TEST_F(NodeMessagesTest, a_duplicate_is_acknowledged_again_and_not_delivered_again) {
  receive(1, 0, kSize + 5);
  receive(1, 1, kSize + 5);
  take();
  receive(1, 0, kSize + 5, 2 * kSecond);
  receive(1, 1, kSize + 5, 2 * kSecond);
  EXPECT_EQ(delivered_.size(), 1u);
  EXPECT_EQ(take().size(), 2u);  // copies of one acknowledgement
}

TEST_F(NodeMessagesTest, a_repetition_that_comes_a_little_early_is_acknowledged_again) {
  receive(1, 0, 5, kSecond);
  take();
  receive(1, 0, 5, kSecond + 95 * kMillisecond);
  EXPECT_FALSE(take().empty()) << "a node repeats a message after 100 ms, and the network hurries";
}

TEST_F(NodeMessagesTest, a_copy_that_the_network_made_is_not_acknowledged_again) {
  receive(1, 0, 5);
  take();
  receive(1, 0, 5);
  EXPECT_TRUE(take().empty());
}

TEST_F(NodeMessagesTest, any_segment_of_a_finished_message_brings_its_acknowledgement) {
  receive(1, 0, kSize + 5);
  receive(1, 1, kSize + 5);
  take();
  receive(1, 1, kSize + 5, 2 * kSecond);
  EXPECT_FALSE(take().empty());
}

TEST_F(NodeMessagesTest, missing_segments_are_asked_for_one_by_one_a_few_times) {
  receive(1, 1, 4 * kSize);
  std::vector<Answer> asked;
  std::vector<Time> at;
  for (Time now = kSecond; now < 3 * kSecond; now += kMillisecond) {
    messages_.run(now);
    for (const Answer& answer : take()) {
      asked.push_back(answer);
      at.push_back(now - kSecond);
    }
  }
  ASSERT_EQ(asked.size(), 9u);
  EXPECT_EQ(asked[0].msg_id, PKGDIST_CTRL_MSG_NACK);
  EXPECT_EQ(asked[0].segment, 0u);
  EXPECT_EQ(asked[1].segment, 2u);
  EXPECT_EQ(asked[2].segment, 3u);
  EXPECT_LE(at[0], 45 * kMillisecond);
  EXPECT_GT(at[3] - at[0], at[0]);
}

TEST_F(NodeMessagesTest, an_abandoned_message_is_forgotten) {
  receive(1, 1, 4 * kSize);
  for (Time now = kSecond; now < 100 * kSecond; now += 10 * kMillisecond) messages_.run(now);
  EXPECT_EQ(messages_.next_deadline(), kNever);
}

TEST_F(NodeMessagesTest, each_process_of_a_node_has_its_own_sequences) {
  for (uint32_t pid = 1; pid <= 100; ++pid) {
    pid_ = pid;
    receive(1, 0, 5);
    receive(1, 0, 5, 2 * kSecond);
    EXPECT_EQ(delivered_.size(), pid);
  }
}

TEST_F(NodeMessagesTest, made_up_processes_do_not_make_the_present_one_forgotten) {
  pkgdist_ctrl_msg_hdr present{};
  qidl::set<&pkgdist_ctrl_msg_hdr::pid>(present, 50u);
  nodes_.observe_control(present, kNode, 0, kSecond);
  pid_ = 50;
  receive(1, 0, 5);
  for (pid_ = 1; pid_ <= 100; ++pid_) receive(2, 0, 5);
  delivered_.clear();
  pid_ = 50;
  receive(1, 0, 5, 2 * kSecond);
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(NodeMessagesTest, segments_that_make_no_sense_are_bad) {
  receive(1, 0, 0);
  receive(1, 1, kSize);
  receive(1, UINT32_MAX, UINT32_MAX);
  receive(1, 0, 2 * kSize, kSecond, kSize - 1);
  receive(1, 0, 2 * kSize, kSecond, kSize + 1);
  EXPECT_EQ(counters_.bad_datagrams, 5u);
  receive(1, 0, 2 * kSize);
  receive(1, 1, 3 * kSize);
  EXPECT_EQ(counters_.bad_datagrams, 6u);
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(NodeMessagesTest, a_message_of_more_than_a_mebibyte_is_bad) {
  receive(1, 0, kMaxMessageSize);
  EXPECT_EQ(counters_.bad_datagrams, 0u);
  receive(2, 0, kMaxMessageSize + 1);
  EXPECT_EQ(counters_.bad_datagrams, 1u);
}

TEST_F(NodeMessagesTest, a_message_in_a_million_segments_is_bad) {
  receive_odd(0, 1, 0, 1'000'000, 1);
  EXPECT_EQ(counters_.bad_datagrams, 1u);
  receive_odd(0, 2, 0, 1'000'000, 255);
  EXPECT_EQ(counters_.bad_datagrams, 2u);
  receive_odd(0, 3, 0, 10, 10);  // a short one is a single segment
  EXPECT_EQ(counters_.bad_datagrams, 2u);
}

TEST_F(NodeMessagesTest, of_too_many_unfinished_ones_those_of_the_node_with_the_most_go) {
  nodes_.observe_data(kNode + 1, kSecond);
  receive(1, 0, 2 * kSize);  // of the first node
  const uint32_t segments = kMaxMessageSize / kSize;
  // 70 MiB of the second.
  for (uint32_t sequence = 1; sequence <= 70; ++sequence)
    for (uint32_t segment = 0; segment < segments; ++segment)
      receive_odd(1, sequence, segment, kMaxMessageSize, kSize);
  receive(1, 1, 2 * kSize);
  ASSERT_EQ(delivered_.size(), 1u);
  EXPECT_EQ(delivered_[0].size(), 2 * kSize);
  receive_odd(1, 1, segments, kMaxMessageSize, kSize);  // the last one that is lacking
  EXPECT_EQ(delivered_.size(), 1u);                     // gone
}

}  // namespace
}  // namespace pkgdist::lead
