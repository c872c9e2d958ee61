#include "node_table.h"

#include <gtest/gtest.h>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {
namespace {

pkgdist_ctrl_msg_hdr of_process(uint32_t pid) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::pid>(header, pid);
  qidl::set<&H::card_class>(header, 5u);
  return header;
}

constexpr Time kNoPing = 0;

class NodeTableTest : public testing::Test {
 protected:
  // A message of a process of node 1; `asked`: of the ping that it answers.
  Sighting hear(uint32_t pid, Time asked = kNoPing) {
    return table_.observe_control(of_process(pid), 1, asked, ++now_).sighting;
  }
  uint32_t process() const { return table_[0].info.pid; }

  NodeTable table_;
  Time now_ = kSecond;
};

TEST_F(NodeTableTest, a_node_appears_once) {
  EXPECT_EQ(hear(10), Sighting::kAppeared);
  EXPECT_EQ(hear(10), Sighting::kKnown);
  EXPECT_EQ(table_.size(), 1u);
  EXPECT_EQ(table_[0].info.card_class, 5u);
}

TEST_F(NodeTableTest, without_a_process_nobody_appears) {
  EXPECT_EQ(hear(0), Sighting::kIgnored);
  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(NodeTableTest, another_process_that_answers_two_pings_is_a_restart) {
  hear(10, 1);
  EXPECT_EQ(hear(11, 2), Sighting::kRival);
  EXPECT_EQ(hear(11, 2), Sighting::kIgnored);  // the same ping
  EXPECT_EQ(hear(11, 3), Sighting::kRestarted);
  EXPECT_EQ(process(), 11u);
  EXPECT_EQ(hear(11, 3), Sighting::kKnown);
}

TEST_F(NodeTableTest, a_late_message_of_the_replaced_process_is_ignored) {
  hear(10, 1);
  hear(11, 2);
  hear(11, 3);
  EXPECT_EQ(hear(10, 1), Sighting::kIgnored);
  EXPECT_EQ(hear(10), Sighting::kIgnored);
  EXPECT_EQ(process(), 11u);
}

TEST_F(NodeTableTest, another_process_number_beside_one_that_answers_is_made_up) {
  hear(10, 1);
  for (Time ping = 2; ping < 100; ++ping) {
    EXPECT_NE(hear(99, ping), Sighting::kRestarted);
    EXPECT_EQ(hear(10, ping), Sighting::kKnown);
  }
  EXPECT_EQ(process(), 10u);
}

TEST_F(NodeTableTest, another_process_number_counts_in_answers_to_pings_only) {
  hear(10, 1);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(hear(99), Sighting::kIgnored);
  EXPECT_EQ(hear(10), Sighting::kKnown);
}

TEST_F(NodeTableTest, a_process_that_answers_after_it_was_taken_for_replaced_is_back_at_once) {
  hear(10, 1);
  hear(99, 2);
  ASSERT_EQ(hear(99, 3), Sighting::kRestarted);
  EXPECT_EQ(hear(10, 3), Sighting::kRestarted);
  EXPECT_EQ(process(), 10u);
}

TEST_F(NodeTableTest, of_a_silent_node_the_first_answer_of_another_process_is_a_restart) {
  hear(10, 1);
  table_.expire(60 * kSecond, kSecond, [](NodeIndex) {});
  EXPECT_EQ(hear(11, 2), Sighting::kRestarted);
}

// Two hosts with one address answer every ping, with a process number each.
TEST_F(NodeTableTest, an_address_that_two_hosts_share_is_told_once_and_no_restart) {
  hear(10, 1);
  EXPECT_EQ(hear(20, 1), Sighting::kRival);
  EXPECT_EQ(hear(10, 2), Sighting::kKnown);
  EXPECT_EQ(hear(20, 2), Sighting::kShared);
  for (Time ping = 3; ping < 100; ++ping) {
    EXPECT_EQ(hear(20, ping), Sighting::kIgnored) << ping;
    EXPECT_EQ(hear(10, ping), Sighting::kKnown) << ping;
  }
}

TEST_F(NodeTableTest, two_hosts_with_one_address_do_not_take_turns_when_answers_get_lost) {
  hear(10, 1);
  hear(20, 2);  // the answer of the first one is lost
  EXPECT_EQ(hear(20, 3), Sighting::kRestarted);
  EXPECT_EQ(hear(10, 3), Sighting::kRestarted);
  EXPECT_EQ(hear(20, 4), Sighting::kShared);
  for (Time ping = 5; ping < 100; ++ping) {
    EXPECT_EQ(hear(10, ping), Sighting::kKnown) << ping;
    EXPECT_EQ(hear(20, ping), Sighting::kIgnored) << ping;
  }
  EXPECT_EQ(process(), 10u);
}

TEST_F(NodeTableTest, a_shared_address_goes_to_the_other_host_when_the_first_one_is_silent) {
  hear(10, 1);
  hear(20, 1);
  hear(10, 2);
  hear(20, 2);
  EXPECT_EQ(hear(20, 3), Sighting::kIgnored);
  EXPECT_EQ(hear(20, 4), Sighting::kRestarted);
}

TEST(NodeTable, a_node_falls_silent_once_and_returns) {
  NodeTable table;
  table.observe_control(of_process(10), 1, kNoPing, kSecond);
  int gone = 0;
  const auto count = [&](NodeIndex) { ++gone; };
  table.expire(2 * kSecond, 5 * kSecond, count);
  EXPECT_EQ(gone, 0);
  table.expire(7 * kSecond, 5 * kSecond, count);
  table.expire(8 * kSecond, 5 * kSecond, count);
  EXPECT_EQ(gone, 1);
  EXPECT_EQ(table.observe_control(of_process(10), 1, kNoPing, 9 * kSecond).sighting,
            Sighting::kReturned);
}

TEST(NodeTable, a_node_known_from_the_data_channel_appears_with_its_process) {
  NodeTable table;
  EXPECT_EQ(table.observe_data(1, 1).index, 0u);
  EXPECT_EQ(table[0].info.pid, 0u);
  EXPECT_EQ(table.observe_control(of_process(10), 1, kNoPing, 2).sighting, Sighting::kAppeared);
}

TEST(NodeTable, nobody_has_no_address) {
  NodeTable table;
  EXPECT_EQ(table.observe_control(of_process(10), 0, kNoPing, 1).index, kNoNode);
  EXPECT_EQ(table.observe_data(0, 1).index, kNoNode);
}

TEST(NodeTable, is_bounded) {
  NodeTable table;
  for (uint32_t i = 1; i < 3 * NodeTable::kMaxNodes; ++i) table.observe_data(i, 1);
  EXPECT_EQ(table.size(), NodeTable::kMaxNodes);
  EXPECT_EQ(table.find(1), 0u);
}

TEST(NodeTable, has_a_place_for_each_named_node_however_full_it_is) {
  NodeTable table;
  constexpr uint32_t kNamed = 1'000'000;
  table.name({kNamed, kNamed + 1});
  for (uint32_t i = 1; i < 3 * NodeTable::kMaxNodes; ++i) table.observe_data(i, 1);
  for (uint32_t i = 0; i < 2; ++i)
    EXPECT_EQ(table.observe_control(of_process(7), kNamed + i, kNoPing, 1).sighting,
              Sighting::kAppeared);
  EXPECT_EQ(table.observe_data(kNamed + 2, 1).index, kNoNode);
}

TEST(NodeTable, the_place_of_a_released_node_is_used_again_for_a_node_of_which_nothing_is_known) {
  NodeTable table;
  for (uint32_t i = 1; i <= NodeTable::kMaxNodes; ++i)
    table.observe_control(of_process(10), i, kNoPing, 1);
  EXPECT_TRUE(table.crowded());
  const NodeIndex released = table.find(5);
  table.release(released);
  EXPECT_EQ(table.find(5), kNoNode);
  EXPECT_EQ(table[released].info.pid, 0u);
  EXPECT_TRUE(table[released].silent);
  EXPECT_EQ(table.observe_data(1'000'000, 2).index, released);
  EXPECT_FALSE(table[released].silent);
  EXPECT_EQ(table[released].info.pid, 0u);
}

}  // namespace
}  // namespace pkgdist::lead
