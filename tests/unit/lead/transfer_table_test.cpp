#include "stream/transfer_table.h"

#include <gtest/gtest.h>

#include <set>

namespace pkgdist::lead {
namespace {

using State = TransferNode::State;

TEST(BusyNodes, a_node_is_busy_until_its_last_file_has_ended) {
  BusyNodes busy;
  EXPECT_FALSE(busy.contains(3));
  busy.add(3);
  busy.add(3);
  busy.remove(3);
  EXPECT_TRUE(busy.contains(3));
  EXPECT_FALSE(busy.contains(2));
  EXPECT_EQ(busy.count(), 1u);
  EXPECT_EQ(busy.end(), 4u);
  busy.remove(3);
  EXPECT_FALSE(busy.contains(3));
  EXPECT_EQ(busy.count(), 0u);
}

TEST(BusyNodes, the_version_tells_of_every_change_of_the_set_and_of_nothing_else) {
  BusyNodes busy;
  busy.add(1);
  const uint64_t one = busy.version();
  busy.add(1);
  busy.remove(1);
  EXPECT_EQ(busy.version(), one);
  busy.add(2);
  const uint64_t two = busy.version();
  EXPECT_NE(two, one);
  busy.remove(1);
  EXPECT_NE(busy.version(), two);
}

TEST(BusyNodes, guests_count_as_long_as_there_is_nobody_else) {
  BusyNodes busy;
  busy.add(7, true);
  EXPECT_TRUE(busy.contains(7));
  EXPECT_EQ(busy.count(), 1u);
  const uint64_t before = busy.version();
  busy.add(2);
  EXPECT_NE(busy.version(), before);
  EXPECT_FALSE(busy.contains(7));
  EXPECT_TRUE(busy.contains(2));
  EXPECT_EQ(busy.count(), 1u);
  EXPECT_EQ(busy.end(), 8u);
  busy.remove(2);
  EXPECT_TRUE(busy.contains(7));
}

TEST(TransferTable, a_guest_that_is_waited_for_is_one_no_longer) {
  TransferTable table(1);
  Transfer& a = table.add({1, "a"}, {}, 1);
  a.set_state(0, State::kOpen);
  a.set_guest(1, true);
  a.set_state(1, State::kOpen);
  EXPECT_EQ(table.busy().count(), 1u);
  a.set_guest(1, false);
  EXPECT_EQ(table.busy().count(), 2u);
  a.set_guest(0, true);
  a.set_state(0, State::kEnded);
  a.set_state(1, State::kEnded);
  EXPECT_EQ(table.busy().count(), 0u);
}

TEST(TransferTable, a_request_takes_a_place_until_it_is_removed_or_becomes_the_pushs) {
  TransferTable table(1);
  std::vector<TransferId> ids;
  for (size_t i = 0; i < Slots::kRequestedByNode; ++i) {
    ASSERT_TRUE(table.free_for(5));
    Transfer& one = table.add({1, std::to_string(i)}, {}, 1);
    table.set_asker(one, 5);
    EXPECT_EQ(one.lane(), Lane::kRequests);
    ids.push_back(one.id);
  }
  EXPECT_FALSE(table.free_for(5));
  table.remove(ids[0]);
  EXPECT_TRUE(table.free_for(5));
  table.set_asker(*table.at(ids[1]), kNoNode);
  EXPECT_EQ(table.at(ids[1])->lane(), Lane::kPush);
  for (int i = 0; i < 2; ++i) table.set_asker(table.add({2, std::to_string(i)}, {}, 1), 5);
  EXPECT_FALSE(table.free_for(5));
}

TEST(TransferTable, finds_files_by_number_and_by_location_and_name) {
  TransferTable table(1);
  Transfer& a = table.add({1, "name"}, {}, 1);
  Transfer& b = table.add({2, "name"}, {}, 1);
  EXPECT_NE(a.id, b.id);
  EXPECT_EQ(table.at(a.id), &a);
  EXPECT_EQ(table.at(b.id), &b);
  EXPECT_EQ(table.find({1, "name"}), a.id);
  EXPECT_EQ(table.find({2, "name"}), b.id);
  EXPECT_EQ(table.find({3, "name"}), kNoTransfer);
  EXPECT_EQ(table.at(kNoTransfer), nullptr);
  EXPECT_EQ(table.size(), 2u);
  const std::vector<TransferId> ids = table.ids();
  EXPECT_EQ(std::set<TransferId>(ids.begin(), ids.end()), (std::set<TransferId>{a.id, b.id}));
}

TEST(TransferTable, what_was_removed_is_not_found_and_can_be_added_again) {
  TransferTable table(1);
  const TransferId first = table.add({1, "name"}, {}, 1).id;
  const std::unique_ptr<Transfer> removed = table.remove(first);
  EXPECT_EQ(removed->id, first);
  EXPECT_EQ(table.at(first), nullptr);
  EXPECT_EQ(table.find({1, "name"}), kNoTransfer);
  EXPECT_EQ(table.size(), 0u);
  const Transfer& again = table.add({1, "name"}, {}, 1);
  EXPECT_NE(again.id, first);
  EXPECT_EQ(table.find({1, "name"}), again.id);
}

TEST(TransferTable, numbers_differ_from_those_of_a_process_with_another_seed) {
  std::set<TransferId> seen;
  for (uint64_t seed = 0; seed < 20; ++seed) {
    TransferTable table(seed);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(seen.insert(table.next_id()).second);
  }
}

TEST(TransferTable, numbers_go_round_and_leave_out_none) {
  constexpr uint64_t kSeedNearTheEnd = 124219583;
  TransferTable table(kSeedNearTheEnd);
  std::vector<TransferId> numbers;
  for (int i = 0; i < 100; ++i) numbers.push_back(table.next_id());
  const auto last = std::find(numbers.begin(), numbers.end(), UINT32_MAX);
  ASSERT_NE(last, numbers.end());
  EXPECT_EQ(*std::next(last), 1u);
  EXPECT_EQ(std::count(numbers.begin(), numbers.end(), kNoTransfer), 0);
}

TEST(TransferTable, keeps_the_nodes_busy_that_have_not_ended_a_file) {
  TransferTable table(1);
  Transfer& a = table.add({1, "a"}, {}, 1);
  Transfer& b = table.add({1, "b"}, {}, 1);
  a.set_state(0, State::kOpen);
  a.set_state(4, State::kOpen);
  b.set_state(4, State::kOpen);
  EXPECT_EQ(table.busy().count(), 2u);
  a.set_state(0, State::kUnlisted);
  EXPECT_FALSE(table.busy().contains(0));
  EXPECT_EQ(a.unlisted, 1u);
  a.set_state(4, State::kEnded);
  EXPECT_TRUE(table.busy().contains(4));
  EXPECT_EQ(a.open, 0u);
  b.set_state(4, State::kAbsent);
  EXPECT_FALSE(table.busy().contains(4));
}

TEST(TransferTable, nobody_is_busy_with_a_file_that_was_removed) {
  TransferTable table(1);
  Transfer& a = table.add({1, "a"}, {}, 1);
  Transfer& b = table.add({1, "b"}, {}, 1);
  for (NodeIndex node = 0; node < 3; ++node) a.set_state(node, State::kOpen);
  b.set_state(2, State::kOpen);
  table.remove(a.id);
  EXPECT_EQ(table.busy().count(), 1u);
  EXPECT_TRUE(table.busy().contains(2));
}

TEST(TransferTable, an_answer_of_a_node_that_ends_is_not_counted_any_longer) {
  TransferTable table(1);
  Transfer& a = table.add({1, "a"}, {}, 1);
  for (NodeIndex node = 0; node < 2; ++node) {
    a.set_state(node, State::kOpen);
    a.node(node).answered = true;
    ++a.answers;
  }
  a.set_state(0, State::kEnded);
  EXPECT_EQ(a.open, 1u);
  EXPECT_EQ(a.answers, 1u);
  EXPECT_FALSE(a.node(0).answered);
}

TEST(TransferTable, knows_what_cannot_be_received_beside_a_transfer) {
  TransferTable table(1);
  const TransferId id = table.add({1, "d/a.tmp"}, {}, 1).id;
  for (const char* name : {"d/a", "d/a.tmp.tmp", "./d/a", "d//a.tmp", "d/a.tmp.tmp/x"})
    EXPECT_TRUE(table.collides({1, name})) << name;
  for (const char* name : {"d/a.tmp", "d/b", "a", "a.tmp", "d/a.tmp.x"})
    EXPECT_FALSE(table.collides({1, name})) << name;
  EXPECT_FALSE(table.collides({2, "d/a"}));
  table.add({1, "x.tmp/f"}, {}, 1);
  EXPECT_TRUE(table.collides({1, "x"}));
  table.remove(id);
  EXPECT_FALSE(table.collides({1, "d/a"}));
  EXPECT_FALSE(table.collides({1, "d/a.tmp.tmp"}));
}

TEST(Transfer, tells_how_far_its_first_turn_has_come) {
  Transfer transfer(1, {1, "a"}, {.size = 1000}, 10);
  EXPECT_EQ(transfer.streamed_segments(), 0u);
  transfer.stage = Transfer::Stage::kStreaming;
  for (int i = 0; i < 4; ++i) transfer.turn.advance();
  EXPECT_EQ(transfer.streamed_segments(), 4u);
  EXPECT_EQ(transfer.streamed_bytes(), 400u);
  transfer.first_turn = false;
  EXPECT_EQ(transfer.streamed_bytes(), 1000u);
}

}  // namespace
}  // namespace pkgdist::lead
