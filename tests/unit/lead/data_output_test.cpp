#include "stream/data_output.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "lead_cluster.h"
#include "recording_sink.h"

namespace pkgdist::lead {
namespace {

using As = DataOutput::As;
using State = TransferNode::State;
using test::SentDatagram;

constexpr uint32_t kSegments = 4;
constexpr size_t kLastSegment = 17;  // bytes

class DataOutputTest : public testing::Test {
 protected:
  DataOutputTest() {
    settings_.address = test::kLeadAddress;
    content_ = test::pattern((kSegments - 1) * settings_.segment_size + kLastSegment, 1);
    store_.add("file", content_);
    busy_.add(0);
  }
  static uint32_t address(NodeIndex node) { return test::kLeadAddress + 1 + node; }
  void add_nodes(NodeIndex count) {
    for (NodeIndex node = 0; node < count; ++node) nodes_.observe_data(address(node), kSecond);
  }
  void open(std::initializer_list<NodeIndex> nodes) {
    for (const NodeIndex node : nodes) transfer_.set_state(node, State::kOpen);
  }
  const SentDatagram& last() const { return sink_.sent.back(); }

  Settings settings_;
  NodeTable nodes_;
  test::RecordingSink sink_;
  test::MemoryStore store_;
  test::Bytes content_;
  OpenContents contents_{store_};
  BusyNodes busy_;
  Window window_{busy_};
  Pacer pacer_{0};
  Counters counters_;
  DataOutput output_{settings_, nodes_, sink_, contents_, window_, pacer_, counters_};
  Transfer transfer_{
      7, {1, "file"}, {3 * kDefaultSegmentSize + kLastSegment, 0644, 1'600'000'000}, kSegments};
  Time now_ = 5 * kSecond;
};

TEST_F(DataOutputTest, segments_carry_their_part_of_the_file) {
  for (uint32_t segment = 0; segment < kSegments; ++segment) {
    ASSERT_EQ(output_.segment(transfer_, segment, As::kFirst, now_), 0);
    const auto from = content_.begin() + static_cast<ptrdiff_t>(segment * settings_.segment_size);
    const size_t length = segment + 1 < kSegments ? size_t{settings_.segment_size} : kLastSegment;
    EXPECT_EQ(last().data, test::Bytes(from, from + static_cast<ptrdiff_t>(length)));
    EXPECT_EQ(last().file_id, 7u);
    EXPECT_EQ(last().segment, segment);
    EXPECT_FALSE(last().repair);
  }
  EXPECT_TRUE(sink_.to_group);
  EXPECT_EQ(sink_.undecodable, 0u);
}

TEST_F(DataOutputTest, counts_segments_and_which_of_them_are_repairs) {
  output_.segment(transfer_, 0, As::kFirst, now_);
  output_.segment(transfer_, 1, As::kFirst, now_);
  output_.segment(transfer_, 0, As::kRepair, now_ + 3);
  EXPECT_TRUE(last().repair);
  EXPECT_EQ(counters_.segments_sent, 3u);
  EXPECT_EQ(counters_.repairs_sent, 1u);
  EXPECT_EQ(transfer_.segments_sent, 3u);
  EXPECT_EQ(transfer_.served, now_ + 3);
}

TEST_F(DataOutputTest, every_byte_is_counted_and_small_datagrams_fill_the_window_like_larger_ones) {
  add_nodes(1);
  open({0});
  output_.segment(transfer_, 0, As::kFirst, now_);
  EXPECT_EQ(counters_.data_bytes_sent, last().length);
  EXPECT_EQ(window_.position(), last().length);
  EXPECT_GT(window_.position(), settings_.segment_size);
  EXPECT_EQ(transfer_.position, window_.position());

  const uint64_t bytes = counters_.data_bytes_sent;
  const uint64_t position = window_.position();
  output_.info(transfer_, now_);
  EXPECT_EQ(counters_.data_bytes_sent, bytes + last().length);
  uint64_t charged = socket_charge(last().length);
  EXPECT_LT(last().length, charged);
  EXPECT_EQ(window_.position(), position + charged);
  EXPECT_EQ(transfer_.position, window_.position());

  output_.file_poll(transfer_);
  charged += socket_charge(last().length);
  EXPECT_EQ(window_.position(), position + charged);
  EXPECT_EQ(transfer_.position, window_.position());
  output_.window_poll(99, {0});
  EXPECT_EQ(window_.position(), position + charged + kSmallestCharge);
  EXPECT_EQ(transfer_.position, position + charged);  // not about the file
  EXPECT_EQ(sink_.sent.size(), 4u);
}

TEST_F(DataOutputTest, every_kind_of_datagram_has_its_counter) {
  add_nodes(1);
  open({0});
  output_.info(transfer_, now_);
  output_.info(transfer_, now_);
  output_.refuse(8, {1, "other"}, 5, 0);
  output_.file_poll(transfer_);
  for (TransferId number = 100; number < 104; ++number) output_.window_poll(number, {0});
  EXPECT_EQ(counters_.infos_sent, 3u);
  EXPECT_EQ(counters_.miss_done_sent, 1u);
  EXPECT_EQ(counters_.polls_sent, 4u);
  EXPECT_EQ(counters_.segments_sent, 0u);
}

TEST_F(DataOutputTest, what_leaves_is_charged_to_the_rate) {
  Pacer pacer(8'000'000);
  DataOutput output(settings_, nodes_, sink_, contents_, window_, pacer, counters_);
  pacer.refill(now_);
  const Time before = pacer.next_ready(now_);
  for (int i = 0; i < 40; ++i) output.segment(transfer_, 0, As::kFirst, now_);
  const auto bytes = static_cast<double>(counters_.data_bytes_sent + 40 * 28);  // a MB per second
  EXPECT_EQ(before, now_);
  EXPECT_FALSE(pacer.ready());
  EXPECT_NEAR(static_cast<double>(pacer.next_ready(now_) - now_), bytes * 1000, 18'000'000);
  EXPECT_GT(pacer.next_ready(now_), now_ + 30 * kMillisecond);
}

TEST_F(DataOutputTest, a_read_error_sends_and_counts_nothing) {
  store_.break_read("file", settings_.segment_size);
  ASSERT_EQ(output_.segment(transfer_, 0, As::kRepair, now_), 0);
  const Counters before = counters_;
  EXPECT_EQ(output_.segment(transfer_, 1, As::kRepair, now_), EIO);
  EXPECT_EQ(sink_.sent.size(), 1u);
  EXPECT_EQ(counters_.segments_sent, before.segments_sent);
  EXPECT_EQ(counters_.repairs_sent, before.repairs_sent);
  EXPECT_EQ(counters_.data_bytes_sent, before.data_bytes_sent);
  EXPECT_EQ(transfer_.segments_sent, 1u);
}

TEST_F(DataOutputTest, an_information_goes_to_everybody) {
  add_nodes(3);
  open({1});
  output_.info(transfer_, now_);
  EXPECT_EQ(last().name, "file");
  EXPECT_EQ(last().location, 1u);
  EXPECT_EQ(last().status, 0u);
  EXPECT_TRUE(last().nodes.empty());
  EXPECT_EQ(transfer_.info_sent, now_);
}

TEST_F(DataOutputTest, a_bad_status_goes_to_the_nodes_concerned) {
  add_nodes(3);
  open({0, 2});
  transfer_.status = 5;
  output_.info(transfer_, now_);
  EXPECT_EQ(last().status, 5u);
  EXPECT_EQ(last().nodes, (std::vector<uint32_t>{address(0), address(2)}));
}

TEST_F(DataOutputTest, a_refusal_goes_to_one_node_and_is_about_no_transfer_under_way) {
  add_nodes(3);
  output_.refuse(8, {2, "other"}, 5, 1);
  EXPECT_EQ(last().kind, SentDatagram::Kind::kInfo);
  EXPECT_EQ(last().file_id, 8u);
  EXPECT_EQ(last().location, 2u);
  EXPECT_EQ(last().name, "other");
  EXPECT_EQ(last().status, 5u);
  EXPECT_EQ(last().nodes, std::vector<uint32_t>{address(1)});
}

TEST_F(DataOutputTest, a_poll_lists_the_nodes_that_have_not_ended_the_file) {
  add_nodes(4);
  open({0, 1, 2});
  transfer_.set_state(1, State::kEnded);
  transfer_.set_state(3, State::kUnlisted);
  output_.file_poll(transfer_);
  EXPECT_EQ(last().file_id, 7u);
  EXPECT_EQ(last().name, "file");
  EXPECT_EQ(last().nodes, (std::vector<uint32_t>{address(0), address(2)}));
}

TEST_F(DataOutputTest, nobody_is_listed_where_all_nodes_are_meant_or_too_many) {
  add_nodes(2);
  open({0, 1});
  output_.file_poll(transfer_);
  EXPECT_TRUE(last().nodes.empty());

  add_nodes(300);
  for (NodeIndex node = 0; node < kMaxListedNodes; ++node) transfer_.set_state(node, State::kOpen);
  output_.file_poll(transfer_);
  EXPECT_EQ(last().nodes.size(), kMaxListedNodes);
  EXPECT_LE(last().length, PKGDIST_DATA_PKT_MAX);
  transfer_.set_state(kMaxListedNodes, State::kOpen);
  output_.file_poll(transfer_);
  EXPECT_TRUE(last().nodes.empty());
  EXPECT_EQ(sink_.undecodable, 0u);
}

TEST_F(DataOutputTest, a_poll_of_the_window_names_its_nodes_and_a_file_that_nobody_has) {
  add_nodes(3);
  output_.window_poll(99, {2, 0});
  EXPECT_TRUE(last().window_poll());
  EXPECT_EQ(last().file_id, 99u);
  EXPECT_EQ(last().nodes, (std::vector<uint32_t>{address(2), address(0)}));
}

}  // namespace
}  // namespace pkgdist::lead
