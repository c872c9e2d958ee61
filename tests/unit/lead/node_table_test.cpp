#include "node_table.h"

#include <gtest/gtest.h>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {
namespace {

pkgdist_ctrl_msg_hdr reply(uint32_t address, uint32_t pid) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::node_ip>(header, address);
  qidl::set<&H::pid>(header, pid);
  qidl::set<&H::card_class>(header, 5u);
  return header;
}

TEST(NodeTable, a_node_appears_once) {
  NodeTable table;
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 4, 1).sighting, Sighting::kAppeared);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 5, 2).sighting, Sighting::kKnown);
  EXPECT_EQ(table.size(), 1u);
  EXPECT_EQ(table[0].point, 5u);
  EXPECT_EQ(table[0].info.card_class, 5u);
}

TEST(NodeTable, another_process_is_a_restart_and_starts_at_its_own_point) {
  NodeTable table;
  table.observe_control(reply(1, 10), 0, true, 50, 1);
  EXPECT_EQ(table.observe_control(reply(1, 11), 0, true, 40, 2).sighting, Sighting::kRestarted);
  EXPECT_EQ(table[0].point, 40u);
}

TEST(NodeTable, a_late_message_of_the_replaced_process_is_ignored) {
  NodeTable table;
  table.observe_control(reply(1, 10), 0, true, 50, 1);
  table.observe_control(reply(1, 11), 0, true, 40, 2);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 60, 3).index, kNoNode);
  EXPECT_EQ(table[0].info.pid, 11u);
}

// What a datagram in a node's name with a process number made up does, see docs/threat-model.md.
TEST(NodeTable, a_foreign_process_number_locks_the_process_out_until_a_third_is_seen) {
  NodeTable table;
  table.observe_control(reply(1, 10), 0, true, 50, 1);
  table.observe_control(reply(1, 99), 0, false, 0, 2);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 51, 3).sighting, Sighting::kIgnored);
  EXPECT_EQ(table.observe_data(1, 4).sighting, Sighting::kKnown);
  table.observe_control(reply(1, 98), 0, false, 0, 5);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 52, 6).sighting, Sighting::kRestarted);
}

pkgdist_ctrl_msg_hdr answer(uint32_t address, uint32_t pid, uint64_t ping) {
  using H = pkgdist_ctrl_msg_hdr;
  H header = reply(address, pid);
  qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&H::status>(header, ping);
  return header;
}

// Two hosts with one address answer every ping, with a process number each.
class SharedAddress : public testing::Test {
 protected:
  Sighting answers(uint32_t pid, uint64_t ping, Time now) {
    const NodeTable::Result seen = table_.observe_control(answer(1, pid, ping), 0, true, 5, now);
    if (seen.index != kNoNode && seen.sighting != Sighting::kShared)
      table_.note_reply(seen.index, now);
    return seen.sighting;
  }
  NodeTable table_;
};

TEST_F(SharedAddress, is_told_once_and_not_as_a_restart) {
  EXPECT_EQ(answers(10, 100, kSecond), Sighting::kAppeared);
  EXPECT_EQ(answers(20, 100, kSecond + 1), Sighting::kShared);
  for (uint64_t ping = 101; ping < 120; ++ping) {
    const Time now = kSecond * (ping - 99);
    EXPECT_EQ(answers(20, ping, now), Sighting::kIgnored) << ping;
    EXPECT_EQ(answers(10, ping, now + 1), Sighting::kKnown) << ping;
  }
  EXPECT_EQ(table_[0].info.pid, 10u);
}

TEST_F(SharedAddress, is_found_out_when_the_first_answer_came_to_another_ping) {
  answers(10, 100, kSecond);
  EXPECT_EQ(answers(20, 101, 2 * kSecond), Sighting::kRestarted);
  EXPECT_EQ(answers(10, 101, 2 * kSecond + 1), Sighting::kShared);
  EXPECT_EQ(answers(10, 102, 3 * kSecond), Sighting::kIgnored);
  EXPECT_EQ(answers(20, 102, 3 * kSecond + 1), Sighting::kKnown);
}

TEST_F(SharedAddress, goes_to_the_other_host_when_the_first_one_is_silent) {
  answers(10, 100, kSecond);
  answers(20, 100, kSecond);
  EXPECT_EQ(answers(20, 101, 2 * kSecond), Sighting::kIgnored);
  EXPECT_EQ(answers(20, 104, 5 * kSecond), Sighting::kRestarted);
  EXPECT_EQ(table_[0].info.pid, 20u);
}

TEST_F(SharedAddress, is_no_process_that_was_started_again) {
  answers(10, 100, kSecond);
  EXPECT_EQ(answers(20, 101, 2 * kSecond), Sighting::kRestarted);
  EXPECT_EQ(answers(20, 102, 3 * kSecond), Sighting::kKnown);
  EXPECT_EQ(answers(30, 103, 4 * kSecond), Sighting::kRestarted);
}

TEST(NodeTable, the_point_never_goes_back) {
  NodeTable table;
  table.observe_control(reply(1, 10), 0, true, 50, 1);
  table.observe_control(reply(1, 10), 0, true, 45, 2);
  EXPECT_EQ(table[0].point, 50u);
}

TEST(NodeTable, a_node_falls_silent_once_and_returns) {
  NodeTable table;
  table.observe_control(reply(1, 10), 0, true, 1, kSecond);
  int gone = 0;
  const auto count = [&](NodeIndex) { ++gone; };
  table.expire(2 * kSecond, 5 * kSecond, count);
  EXPECT_EQ(gone, 0);
  table.expire(7 * kSecond, 5 * kSecond, count);
  table.expire(8 * kSecond, 5 * kSecond, count);
  EXPECT_EQ(gone, 1);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 1, 9 * kSecond).sighting,
            Sighting::kReturned);
}

TEST(NodeTable, a_node_known_from_the_data_channel_appears_with_its_process) {
  NodeTable table;
  EXPECT_EQ(table.observe_data(1, 1).index, 0u);
  EXPECT_EQ(table[0].info.pid, 0u);
  EXPECT_EQ(table.observe_control(reply(1, 10), 0, true, 1, 2).sighting, Sighting::kAppeared);
}

TEST(NodeTable, without_an_address_in_the_message_the_sender_counts) {
  NodeTable table;
  table.observe_control(reply(0, 10), 99, true, 1, 1);
  EXPECT_EQ(table.find(99), 0u);
  EXPECT_EQ(table.observe_data(0, 1).index, kNoNode);
}

TEST(NodeTable, is_bounded) {
  NodeTable table;
  for (uint32_t i = 1; i < 3 * NodeTable::kMaxNodes; ++i) table.observe_data(i, 1);
  EXPECT_EQ(table.size(), NodeTable::kMaxNodes);
  EXPECT_EQ(table.find(1), 0u);
}

}  // namespace
}  // namespace pkgdist::lead
