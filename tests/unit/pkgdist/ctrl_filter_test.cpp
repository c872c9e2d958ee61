// Which multicast messages a node of which card class takes.
#include <set>

#include "ctrl_support.h"

using namespace support;

namespace {

class Filter : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    attach(2);
  }

  // Node classes from 0 to 15 that take a message of `card_class`.
  std::set<uint32_t> takers(uint32_t card_class, std::vector<uint32_t> nodes = {}) {
    std::set<uint32_t> takers;
    for (uint32_t mine = 0; mine < 16; ++mine) {
      G_my_card_class = mine;
      const uint32_t before = value(CrtCounter::kMcCardClassDrop);
      receive(control({.sequence = ++sequence_, .card_class = card_class, .nodes = nodes}));
      const Words sent = answers();
      EXPECT_EQ(sent.empty(), value(CrtCounter::kMcCardClassDrop) == before + 1);
      if (!sent.empty()) takers.insert(mine);
    }
    return takers;
  }
  static std::set<uint32_t> everybody() {
    std::set<uint32_t> all;
    for (uint32_t mine = 0; mine < 16; ++mine) all.insert(mine);
    return all;
  }

  uint32_t sequence_ = 0;
};

using Classes = std::set<uint32_t>;

TEST_F(Filter, classes_1_2_5_11_and_13_reach_their_own_kind) {
  for (const uint32_t card_class : {1u, 2u, 5u, 11u, 13u})
    EXPECT_EQ(takers(card_class), Classes{card_class});
}

TEST_F(Filter, class_12_reaches_1_and_11) {
  EXPECT_EQ(takers(12), (Classes{1, 11}));
}

TEST_F(Filter, class_6_reaches_1_and_5) {
  EXPECT_EQ(takers(6), (Classes{1, 5}));
}

TEST_F(Filter, any_other_class_reaches_everybody) {
  for (const uint32_t card_class : {0u, 3u, 7u, 8u, 9u, 10u, 14u, 0xFFFFFFFFu})
    EXPECT_EQ(takers(card_class), everybody()) << card_class;
}

TEST_F(Filter, class_4_reaches_the_listed_nodes_of_any_class) {
  EXPECT_EQ(takers(4, {kOtherAddress, kMyAddress}), everybody());
  EXPECT_EQ(takers(4, {kOtherAddress}), Classes{});
  EXPECT_EQ(takers(4), Classes{}) << "an empty list names nobody";
}

TEST_F(Filter, a_list_without_class_4_is_not_looked_at) {
  EXPECT_EQ(takers(3, {kOtherAddress}), everybody());
}

TEST_F(Filter, unicast_messages_are_never_filtered) {
  for (const uint32_t card_class : {1u, 2u, 4u, 5u, 6u, 11u, 12u, 13u}) {
    receive(control({.sequence = ++sequence_, .card_class = card_class}), true);
    EXPECT_EQ(answers(), (Words{"UC ACK " + std::to_string(sequence_)}));
  }
  EXPECT_EQ(value(CrtCounter::kMcCardClassDrop), 0u);
}

TEST_F(Filter, a_rejected_new_message_leaves_no_entry_and_no_answer_and_moves_the_point) {
  set_multicast_point(4);
  receive(control({.sequence = 5, .card_class = 1}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_EQ(value(CrsCounter::kRxAddMcMsg), 0u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 0u);
  EXPECT_EQ(G_ctrl_mc_last_sequence, 5u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
  EXPECT_TRUE(answers().empty());
  run();
  EXPECT_TRUE(messages().empty());
}

TEST_F(Filter, a_rejected_message_of_many_segments_is_counted_for_each) {
  set_multicast_point(4);
  for (const uint32_t segment : {0u, 1u})
    receive(control({.sequence = 5, .segment = segment, .total_size = 2780, .card_class = 1}));
  EXPECT_EQ(value(CrtCounter::kMcCardClassDrop), 2u);
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
}

TEST_F(Filter, a_segment_for_others_takes_the_partial_message_with_it) {
  set_multicast_point(4);
  receive(control({.sequence = 5, .data = std::string(1390, 'x'), .total_size = 2780}));
  ASSERT_NE(pkgdist::rx_msg_find(5, false), nullptr);
  receive(control({.sequence = 5, .segment = 1, .total_size = 2780, .card_class = 1}));
  EXPECT_EQ(G_ctrl_recv_rx_msg_db.count, 0u);
  EXPECT_EQ(value(CrtCounter::kMcCardClassDrop), 1u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 1u);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u);
  EXPECT_TRUE(answers().empty());
}

TEST_F(Filter, a_rejected_placeholder_is_removed_and_moves_the_point) {
  set_multicast_point(4);
  receive(control({.sequence = 7, .card_class = 3}));
  ASSERT_EQ(answers().size(), 3u);
  receive(control({.sequence = 5, .rxmt = true, .card_class = 1}));
  EXPECT_EQ(value(CrtCounter::kMcCardClassDrop), 1u);
  EXPECT_EQ(value(CrsCounter::kRxDeleteMcMsg), 2u) << "the delivered one and the rejected one";
  EXPECT_EQ(pkgdist::rx_msg_find(5, false), nullptr);
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 5u) << "6 is still missing";
  receive(control({.sequence = 6, .rxmt = true, .card_class = 1}));
  EXPECT_EQ(G_ctrl_mc_last_ack_sequence, 7u);
  EXPECT_TRUE(answers().empty());
}

}  // namespace
