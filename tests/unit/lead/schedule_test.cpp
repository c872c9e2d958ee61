#include "stream/schedule.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

using Stage = Transfer::Stage;

constexpr Time kLeastWait = 3 * kMillisecond;
constexpr Time kMostWait = 100 * kMillisecond;

class ScheduleTest : public testing::Test {
 protected:
  Transfer& add(const std::string& name, uint32_t priority = 0, uint32_t segments = 10) {
    Transfer& transfer =
        table_.add({1, name}, {.size = uint64_t{segments} * 1000, .mode = 0644}, segments);
    transfer.priority = priority;
    transfer.started = now_;
    schedule_.enter(transfer);
    return transfer;
  }
  // As the data sender does with what next_announcement() returns.
  void announce(Transfer& transfer) {
    transfer.stage = Stage::kAnnounced;
    transfer.info_sent = now_;
    schedule_.announced(transfer, now_);
  }
  void announce_all() {
    while (Transfer* const transfer = schedule_.next_announcement(now_)) announce(*transfer);
  }
  void begin_stream(Transfer& transfer) {
    schedule_.leave_waiting(transfer);
    transfer.stage = Stage::kStreaming;
  }
  // The order in which files are streamed from now on, as names.
  std::string order() {
    std::string names;
    while (Transfer* const transfer = schedule_.streamable(now_)) {
      names += transfer->key.name;
      schedule_.end_turn(*transfer);
    }
    return names;
  }

  TransferTable table_{1};
  Schedule schedule_{table_};
  Time now_ = kSecond;
};

TEST_F(ScheduleTest, announces_files_in_the_order_in_which_they_came) {
  Transfer& a = add("a", 7);
  Transfer& b = add("b", 1);
  EXPECT_EQ(schedule_.next_announcement(now_), &a);
  EXPECT_EQ(schedule_.next_announcement(now_), &b);
  EXPECT_EQ(schedule_.next_announcement(now_), nullptr);
}

TEST_F(ScheduleTest, does_not_announce_a_file_that_is_gone) {
  Transfer& a = add("a");
  Transfer& b = add("b");
  table_.remove(a.id);
  EXPECT_EQ(schedule_.next_announcement(now_), &b);
}

TEST_F(ScheduleTest, announces_no_more_than_the_stream_comes_to_in_time) {
  schedule_.set_rate(10'000'000);  // 800 kB in the time
  for (int i = 0; i < 300; ++i) add(std::to_string(i));
  announce_all();  // 10 kB each
  EXPECT_EQ(schedule_.next_deadline(), now_ + kLeastWait);
  size_t announced = 0;
  table_.each([&](const Transfer& transfer) { announced += transfer.stage == Stage::kAnnounced; });
  EXPECT_EQ(announced, 80u);
}

TEST_F(ScheduleTest, announces_several_files_at_once_when_as_many_were_streamed) {
  schedule_.set_rate(10'000'000);  // 800 kB in the time
  for (int i = 0; i < 300; ++i) add(std::to_string(i));
  announce_all();  // 80 files of 10 kB
  now_ += kLeastWait;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(schedule_.next_announcement(now_), nullptr) << i;
    Transfer& streamed = *schedule_.streamable(now_);
    begin_stream(streamed);
    schedule_.end_turn(streamed);
  }
  begin_stream(*schedule_.streamable(now_));
  size_t announced = 0;
  for (; Transfer* const next = schedule_.next_announcement(now_); ++announced) announce(*next);
  EXPECT_EQ(announced, 6u);
}

TEST_F(ScheduleTest, announces_one_file_ahead_however_large_it_is) {
  for (int i = 0; i < 2; ++i) add(std::to_string(i), 0, 1'000'000);
  announce(*schedule_.next_announcement(now_));
  EXPECT_EQ(schedule_.next_announcement(now_), nullptr);
}

TEST_F(ScheduleTest, announces_many_files_ahead_while_nodes_say_that_they_have_them) {
  for (int i = 0; i < 600; ++i) add(std::to_string(i), 0, 1'000'000);
  announce_all();
  schedule_.note_skip(now_);
  for (int i = 1; i < 512; ++i) announce(*schedule_.next_announcement(now_));
  EXPECT_EQ(schedule_.next_announcement(now_), nullptr);
  now_ += kMostWait;
  begin_stream(*schedule_.streamable(now_));
  EXPECT_EQ(schedule_.next_announcement(now_), nullptr);
}

TEST_F(ScheduleTest, a_file_that_was_held_back_for_long_is_announced) {
  for (int i = 0; i < 2; ++i) add(std::to_string(i), 0, 1'000'000);
  announce_all();
  now_ += 8 * kSecond - 1;
  EXPECT_EQ(schedule_.next_announcement(now_), nullptr);
  EXPECT_NE(schedule_.next_announcement(now_ + 1), nullptr);
}

TEST_F(ScheduleTest, streams_by_priority_and_files_of_one_priority_in_their_order) {
  for (const char* const name : {"c", "d"}) add(name, 2);
  for (const char* const name : {"a", "b"}) add(name, 1);
  add("e", 3);
  announce_all();
  now_ += kMostWait;
  EXPECT_EQ(order(), "abcde");
}

TEST_F(ScheduleTest, an_announced_file_waits_for_nodes_that_have_it) {
  Transfer& a = add("a");
  announce_all();
  EXPECT_EQ(schedule_.streamable(now_ + kLeastWait - 1), nullptr);
  EXPECT_EQ(schedule_.next_deadline(), now_ + kLeastWait);
  EXPECT_EQ(schedule_.streamable(now_ + kLeastWait), &a);
  EXPECT_EQ(schedule_.next_deadline(), 0u);
}

TEST_F(ScheduleTest, waits_two_round_trips_but_no_tenth_of_a_second) {
  schedule_.set_round_trip(20 * kMillisecond);
  Transfer& a = add("a");
  announce_all();
  EXPECT_EQ(schedule_.streamable(now_ + 40 * kMillisecond), nullptr);
  EXPECT_EQ(schedule_.streamable(now_ + 41 * kMillisecond), &a);
  schedule_.set_round_trip(kSecond);
  EXPECT_EQ(schedule_.streamable(now_ + kMostWait - 1), nullptr);
  EXPECT_EQ(schedule_.streamable(now_ + kMostWait), &a);
}

TEST_F(ScheduleTest, waits_longer_while_nodes_say_that_they_have_files_but_not_for_ever) {
  Transfer& a = add("a");
  announce_all();
  schedule_.note_skip(now_ + 2 * kMillisecond);
  EXPECT_EQ(schedule_.streamable(now_ + kLeastWait), nullptr);
  EXPECT_EQ(schedule_.streamable(now_ + kLeastWait + 2 * kMillisecond), &a);
  schedule_.note_skip(now_ + kMostWait - 1);
  EXPECT_EQ(schedule_.streamable(now_ + kMostWait - 1), nullptr);
  EXPECT_EQ(schedule_.streamable(now_ + kMostWait), &a);
}

TEST_F(ScheduleTest, a_file_that_waits_does_not_hold_up_one_of_lower_priority) {
  Transfer& late = add("b", 2);
  announce_all();
  now_ += kLeastWait;
  Transfer& early = add("a", 1);
  announce_all();
  EXPECT_EQ(schedule_.streamable(now_), &late);
  EXPECT_EQ(schedule_.streamable(now_ + kLeastWait), &early);
}

TEST_F(ScheduleTest, what_is_streamed_again_comes_ahead_of_files_that_were_not_begun) {
  Transfer& again = add("b", 1);
  announce_all();
  now_ += kMostWait;
  ASSERT_EQ(order(), "b");
  add("a", 0);
  add("c", 1);
  announce_all();
  again.stage = Stage::kStreaming;
  schedule_.stream_again(again);
  EXPECT_EQ(schedule_.next_deadline(), 0u);
  EXPECT_EQ(schedule_.streamable(now_), &again);
  now_ += kMostWait;
  EXPECT_EQ(order(), "abc");
}

TEST_F(ScheduleTest, counts_what_was_not_begun_and_what_is_left_of_the_rest) {
  Transfer& a = add("a", 1, 10);
  Transfer& b = add("b", 2, 20);
  EXPECT_EQ(schedule_.waiting_files(), 2u);
  EXPECT_EQ(schedule_.waiting_bytes(), 30'000u);
  announce_all();
  EXPECT_EQ(schedule_.waiting_files(), 2u);
  EXPECT_EQ(schedule_.segments_ahead(), 0u);
  begin_stream(a);
  for (int i = 0; i < 4; ++i) a.turn.advance();
  EXPECT_EQ(schedule_.waiting_files(), 1u);
  EXPECT_EQ(schedule_.waiting_bytes(), 20'000u);
  EXPECT_EQ(schedule_.segments_ahead(), 6u);
  begin_stream(b);
  EXPECT_EQ(schedule_.waiting_bytes(), 0u);
  EXPECT_EQ(schedule_.segments_ahead(), 26u);
}

TEST_F(ScheduleTest, has_nothing_due_when_nothing_was_entered) {
  EXPECT_TRUE(schedule_.empty());
  EXPECT_EQ(schedule_.next_deadline(), kNever);
  Transfer& a = add("a");
  EXPECT_FALSE(schedule_.empty());
  EXPECT_EQ(schedule_.next_deadline(), 0u);
  announce_all();
  EXPECT_FALSE(schedule_.empty());
  table_.remove(a.id);
  EXPECT_EQ(schedule_.streamable(now_ + kMostWait), nullptr);
  EXPECT_TRUE(schedule_.empty());
  EXPECT_EQ(schedule_.next_deadline(), kNever);
}

// --- Lanes ---

class Lanes : public ScheduleTest {
 protected:
  Transfer& add_requested(const std::string& name, uint32_t priority = 0) {
    Transfer& transfer =
        table_.add({1, name}, {.size = uint64_t{10} * 1000, .mode = 0644}, uint32_t{10});
    transfer.priority = priority;
    transfer.started = now_;
    table_.set_asker(transfer, 0);
    schedule_.enter(transfer);
    return transfer;
  }
};

TEST_F(Lanes, a_request_waits_in_a_lane_of_its_own_whatever_its_priority) {
  Transfer& pushed = add("pushed", 4);
  Transfer& asked = add_requested("asked", 1);
  EXPECT_EQ(schedule_.waiting_files(), 1u);
  EXPECT_EQ(schedule_.waiting_bytes(), 10'000u);
  announce(*schedule_.next_announcement(now_, Lane::kPush));
  EXPECT_EQ(schedule_.next_announcement(now_, Lane::kPush), nullptr);
  announce(*schedule_.next_announcement(now_, Lane::kRequests));
  now_ += kMostWait;
  EXPECT_EQ(schedule_.streamable(now_, Lane::kPush), &pushed);
  EXPECT_EQ(schedule_.streamable(now_, Lane::kRequests), &asked);
}

TEST_F(Lanes, take_turns) {
  EXPECT_EQ(schedule_.next_lane(), Lane::kPush);
  schedule_.end_turn_of(Lane::kPush);
  EXPECT_EQ(schedule_.next_lane(), Lane::kRequests);
  schedule_.end_turn_of(Lane::kPush);  // the other one had nothing
  EXPECT_EQ(schedule_.next_lane(), Lane::kRequests);
  schedule_.end_turn_of(Lane::kRequests);
  EXPECT_EQ(schedule_.next_lane(), Lane::kPush);
}

TEST_F(Lanes, a_file_changes_its_lane_wherever_it_stands) {
  Transfer& queued = add_requested("queued");
  Transfer& announced = add_requested("announced");
  Transfer& settling = add_requested("settling");
  for (int i = 0; i < 3; ++i) {
    Transfer* const next = schedule_.next_announcement(now_, Lane::kRequests);
    if (next == &announced) announce(*next);
    if (next == &settling) begin_stream(*next);
  }
  settling.stage = Stage::kSettling;
  for (Transfer* transfer : {&announced, &settling}) {
    const Schedule::Place place = schedule_.leave(*transfer);
    table_.set_asker(*transfer, kNoNode);
    schedule_.come_back(*transfer, place);
  }
  now_ += kMostWait;
  EXPECT_EQ(schedule_.streamable(now_, Lane::kRequests), nullptr);
  EXPECT_EQ(schedule_.streamable(now_, Lane::kPush), &announced);
  EXPECT_EQ(order(), "announced");
  EXPECT_EQ(queued.lane(), Lane::kRequests);
}

}  // namespace
}  // namespace pkgdist::lead
