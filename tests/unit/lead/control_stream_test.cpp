#include "control/control_stream.h"

#include <gtest/gtest.h>

#include <array>

#include "wire_frame.h"

namespace pkgdist::lead {
namespace {

class ControlStreamTest : public testing::Test, public DatagramSink {
 protected:
  struct Sent {
    uint32_t msg_id, sequence, segment, card_class;
    bool rxmt;
    size_t length;
  };

  std::span<uint8_t> buffer() override { return buffer_; }
  void send(Channel channel, uint32_t destination, size_t length) override {
    EXPECT_EQ(channel, Channel::kControl);
    EXPECT_EQ(destination, kGroup);
    const test::Parts parts = test::parts_of({buffer_.data(), length});
    const test::Message<pkgdist_ctrl_msg_hdr> header(parts.header);
    ASSERT_TRUE(header.ok());
    EXPECT_EQ(header->node_ip, 0x0A000001u);
    EXPECT_EQ(header->pid, 42u);
    bool rxmt = false;
    if (header->msg_id == PKGDIST_CTRL_MSG_CTRL) {
      const test::Message<pkgdist_ctrl_msg> body(parts.body);
      ASSERT_TRUE(body.ok());
      rxmt = body->rxmt == 1;
    }
    sent_.push_back(
        {header->msg_id, header->sequence, header->segment, header->card_class, rxmt, length});
  }

  uint32_t post(size_t size, std::vector<NodeIndex> waiting, Time now) {
    return stream_.post(2, std::vector<uint8_t>(size), Audience::everyone(), waiting, now);
  }
  std::vector<Sent> take(uint32_t msg_id = PKGDIST_CTRL_MSG_CTRL) {
    std::vector<Sent> found;
    for (const Sent& one : sent_)
      if (one.msg_id == msg_id) found.push_back(one);
    sent_.clear();
    return found;
  }
  // Pings sent while nothing else happens for a time.
  size_t pings(Time from, Time duration) {
    take();
    for (Time now = from; now < from + duration; now += kMillisecond) stream_.run(now);
    return take(PKGDIST_CTRL_MSG_PING).size();
  }

  std::array<uint8_t, PKGDIST_CTRL_PKT_MAX> buffer_{};
  std::vector<Sent> sent_;
  std::vector<std::pair<uint32_t, NodeIndex>> acknowledged_;
  Counters counters_;
  Settings settings_{.address = 0x0A000001, .pid = 42, .initial_sequence = 100};
  ControlStream stream_{settings_, *this, counters_,
                        [this](const ControlStream::Finished& finished) {
                          acknowledged_.emplace_back(finished.sequence, finished.node);
                        }};
};

TEST_F(ControlStreamTest, first_message_follows_the_initial_sequence_unmarked) {
  EXPECT_EQ(post(10, {0}, kSecond), 101u);
  const auto sent = take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].sequence, 101u);
  EXPECT_FALSE(sent[0].rxmt);
}

TEST_F(ControlStreamTest, segments_of_1390_bytes_fit_their_datagrams) {
  post(1390, {}, kSecond);
  EXPECT_EQ(take().size(), 1u);
  post(2781, {}, kSecond);
  const auto sent = take();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[2].segment, 2u);
  for (const Sent& one : sent) EXPECT_LE(one.length, PKGDIST_CTRL_PKT_MAX);
}

TEST_F(ControlStreamTest, a_message_for_the_most_nodes_fits_its_datagrams) {
  stream_.post(1, std::vector<uint8_t>(5000),
               Audience::only(std::vector<uint32_t>(kMaxNodesPerMessage, 7)), {}, kSecond);
  const auto sent = take();
  EXPECT_EQ(sent.size(), 5u);
  for (const Sent& one : sent) EXPECT_EQ(one.card_class, PKGDIST_CARD_CLASS_NODE_LIST);
}

TEST_F(ControlStreamTest, an_acknowledgement_finishes_one_message_for_one_node) {
  const uint32_t first = post(10, {0, 1}, kSecond);
  stream_.on_ack(0, first);
  stream_.on_ack(0, first);
  ASSERT_EQ(acknowledged_.size(), 1u);
  stream_.on_ack(1, first);
  EXPECT_EQ(acknowledged_.size(), 2u);
}

TEST_F(ControlStreamTest, a_point_finishes_everything_up_to_it) {
  post(10, {0}, kSecond);
  post(10, {0}, kSecond);
  post(10, {0}, kSecond);
  stream_.on_point(0, 102);
  ASSERT_EQ(acknowledged_.size(), 2u);
  EXPECT_EQ(acknowledged_[1].first, 102u);
}

TEST_F(ControlStreamTest, a_nack_brings_the_message_again_marked) {
  const uint32_t sequence = post(3000, {0}, kSecond);
  take();
  stream_.on_nack(0, sequence, false, 0, kSecond + 50 * kMillisecond);
  const auto sent = take();
  ASSERT_EQ(sent.size(), 3u);
  for (const Sent& one : sent) EXPECT_TRUE(one.rxmt);
}

TEST_F(ControlStreamTest, a_nack_for_a_segment_brings_that_segment) {
  const uint32_t sequence = post(3000, {0}, kSecond);
  take();
  stream_.on_nack(0, sequence, true, 2, kSecond + 50 * kMillisecond);
  const auto sent = take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].segment, 2u);
}

TEST_F(ControlStreamTest, nacks_of_many_nodes_bring_one_retransmission) {
  const uint32_t sequence = post(10, {0, 1, 2}, kSecond);
  take();
  for (int i = 0; i < 3; ++i)
    stream_.on_nack(0, sequence, false, 0, kSecond + (30 + static_cast<Time>(i)) * kMillisecond);
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(ControlStreamTest, nonsense_nacks_are_counted_and_ignored) {
  const uint32_t sequence = post(10, {0}, kSecond);
  take();
  stream_.on_nack(0, sequence, true, UINT32_MAX, 2 * kSecond);
  stream_.on_nack(0, sequence + 1, false, 0, 2 * kSecond);
  stream_.on_nack(0, 0, false, 0, 2 * kSecond);
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(counters_.bad_datagrams, 1u);
}

TEST_F(ControlStreamTest, a_ping_reply_below_the_message_brings_it_again) {
  post(10, {0}, kSecond);
  take();
  stream_.on_ping_reply(0, 100, 0, kSecond + 30 * kMillisecond);
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(ControlStreamTest, a_reply_to_a_later_ping_brings_the_message_again_at_once) {
  stream_.run(kSecond - kMillisecond);
  post(10, {0, 1}, kSecond);
  take();
  const Time asked = kSecond + 5 * kMillisecond;
  stream_.run(asked);
  stream_.on_ping_reply(0, 100, asked, asked + kMillisecond);
  EXPECT_EQ(take().size(), 1u);
  // Of other nodes, the reply to the same ping is older than the copy.
  stream_.on_ping_reply(1, 100, asked, asked + 2 * kMillisecond);
  EXPECT_TRUE(take().empty());
}

TEST_F(ControlStreamTest, replies_that_claim_ever_later_pings_bring_one_copy_for_each_ping) {
  post(10, {0}, kSecond);
  take();
  stream_.run(kSecond + 5 * kMillisecond);
  take();
  for (Time now = kSecond + 6 * kMillisecond; now < kSecond + 9 * kMillisecond; now += kMicrosecond)
    stream_.on_ping_reply(0, 100, now, now);
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(ControlStreamTest, a_reply_to_an_earlier_ping_says_nothing_of_a_message) {
  stream_.run(kSecond - kMillisecond);
  post(10, {0}, kSecond);
  take();
  stream_.on_ping_reply(0, 100, kSecond - kMillisecond, kSecond + 50 * kMillisecond);
  EXPECT_TRUE(take().empty());
}

TEST_F(ControlStreamTest, a_node_that_takes_no_copy_is_asked_ever_less_often) {
  stream_.run(kSecond - kMillisecond);
  post(10, {0}, kSecond);
  sent_.clear();
  std::vector<Time> copies;
  for (Time now = kSecond; now < 2 * kSecond; now += kMillisecond) {
    stream_.run(now);
    const bool pinged = !take(PKGDIST_CTRL_MSG_PING).empty();
    if (!pinged) continue;
    stream_.on_ping_reply(0, 100, now, now);
    if (!take().empty()) copies.push_back(now - kSecond);
  }
  const std::vector<Time> first(copies.begin(), copies.begin() + 4);
  EXPECT_EQ(first, (std::vector<Time>{5 * kMillisecond, 10 * kMillisecond, 20 * kMillisecond,
                                      40 * kMillisecond}));
  EXPECT_EQ(copies.back() - copies[copies.size() - 2], 50 * kMillisecond);
}

TEST_F(ControlStreamTest, silence_brings_retries_at_growing_intervals) {
  post(10, {0}, kSecond);
  take();
  std::vector<Time> at;
  for (Time now = kSecond; now < 6 * kSecond; now += kMillisecond) {
    stream_.run(now);
    if (!take().empty()) at.push_back(now - kSecond);
  }
  ASSERT_GE(at.size(), 4u);
  EXPECT_EQ(at[0], 100 * kMillisecond);
  EXPECT_EQ(at[1], 300 * kMillisecond);
  EXPECT_EQ(at[2], 700 * kMillisecond);
}

TEST_F(ControlStreamTest, a_node_that_is_forgotten_is_not_waited_for) {
  post(10, {0}, kSecond);
  stream_.forget(0);
  take();
  for (Time now = kSecond; now < 5 * kSecond; now += kMillisecond) stream_.run(now);
  EXPECT_TRUE(take().empty());
}

TEST_F(ControlStreamTest, a_finished_message_still_answers_nacks_for_a_while) {
  const uint32_t sequence = post(10, {0}, kSecond);
  stream_.on_ack(0, sequence);
  take();
  stream_.on_nack(0, sequence, false, 0, 2 * kSecond);
  EXPECT_EQ(take().size(), 1u);
  stream_.run(60 * kSecond);
  take();
  stream_.on_nack(0, sequence, false, 0, 60 * kSecond);
  EXPECT_TRUE(take().empty());
}

TEST_F(ControlStreamTest, pings_come_every_second_and_faster_while_something_is_outstanding) {
  EXPECT_EQ(pings(10 * kSecond, 10 * kSecond), 10u);
  const uint32_t sequence = post(10, {0}, 20 * kSecond);
  EXPECT_GE(pings(20 * kSecond, kSecond), 15u);
  stream_.on_ack(0, sequence);
  EXPECT_LE(pings(30 * kSecond, 10 * kSecond), 11u);
}

TEST_F(ControlStreamTest, is_unused_until_its_first_message) {
  stream_.run(kSecond);
  EXPECT_TRUE(stream_.unused());
  post(10, {}, kSecond);
  EXPECT_FALSE(stream_.unused());
}

TEST_F(ControlStreamTest, nothing_is_sent_again_within_a_round_trip) {
  stream_.set_round_trip(80 * kMillisecond);
  const uint32_t sequence = post(3000, {0}, kSecond);
  take();
  for (Time passed = kMillisecond; passed < 80 * kMillisecond; passed += kMillisecond) {
    stream_.on_nack(0, sequence, false, 0, kSecond + passed);
    stream_.on_nack(0, sequence, true, 1, kSecond + passed);
  }
  EXPECT_TRUE(take().empty());
  stream_.on_nack(0, sequence, false, 0, kSecond + 80 * kMillisecond);
  EXPECT_EQ(take().size(), 3u);
}

TEST_F(ControlStreamTest, nacks_of_whole_messages_of_one_node_draw_a_limited_number_of_segments) {
  std::vector<uint32_t> messages;
  for (int i = 0; i < 5; ++i) messages.push_back(post(1'000'000, {0, 1}, kSecond));  // 720 segments
  take();
  for (Time now = 2 * kSecond; now < 3 * kSecond; now += 10 * kMillisecond)
    for (const uint32_t sequence : messages) stream_.on_nack(0, sequence, false, 0, now);
  const size_t drawn = take().size();
  EXPECT_GT(drawn, 1000u);
  EXPECT_LE(drawn, 2048u + 1024u);
  // Another one has its own share.
  stream_.on_nack(1, messages[0], false, 0, 4 * kSecond);
  EXPECT_EQ(take().size(), 720u);
}

}  // namespace
}  // namespace pkgdist::lead
