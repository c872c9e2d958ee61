// How files end, with the data sender and all its parts around it: the test is the nodes, which
// answer polls a round trip later, and the clock.
#include "stream/settling.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <set>

#include "lead_cluster.h"
#include "pkgdist/status.h"
#include "recording_sink.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {
namespace {

using test::SentDatagram;
using Kind = SentDatagram::Kind;

constexpr Time kRoundTrip = kMillisecond;
constexpr uint64_t kTimedOut = PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT);
constexpr uint64_t kTooLong = PKGDIST_STATUS_FROM_ERRNO(EMSGSIZE);
constexpr uint64_t kReadError = PKGDIST_STATUS_FROM_ERRNO(EIO);

class SettlingTest : public testing::Test, public TransferObserver {
 protected:
  explicit SettlingTest(uint64_t rate_bits = 0) {
    settings_.address = test::kLeadAddress;
    settings_.seed = 1;
    settings_.rate_bits = rate_bits;
    sender_ = std::make_unique<DataSender>(settings_, nodes_, sink_, store_, counters_, *this);
    sink_.on_sent = [this](const SentDatagram& one) {
      times_.push_back(now_);
      rate_ = static_cast<double>(sender_->rate_bits()) / 8;
      if (one.kind == Kind::kPoll) on_poll(one);
    };
  }

  // A file of so many full segments for nodes 0 .. count-1.
  void start(uint32_t segments, NodeIndex count = 1) {
    store_.add("file", test::pattern(size_t{segments} * settings_.segment_size, 1));
    start_stored(count);
  }
  void start_stored(NodeIndex count = 1) {
    std::vector<NodeIndex> nodes;
    for (NodeIndex node = 0; node < count; ++node) {
      nodes_.observe_data(address(node), now_);
      nodes.push_back(node);
    }
    id_ = sender_->start({1, "file"}, 0, 1, nodes, now_);
    started_ = now_;
  }
  static uint32_t address(NodeIndex node) { return test::kLeadAddress + 1 + node; }

  void report(NodeIndex node, uint64_t status) { report(node, id_, 1, "file", status); }
  void request(NodeIndex node, uint32_t first, uint32_t num) {
    sender_->on_segment_request(node, id_, first, num, now_);
  }

  template <class Condition>
  bool run_until(Condition&& condition, Time limit) {
    const Time end = now_ + limit;
    sender_->run(now_);  // as its owner does after every datagram
    while (!condition()) {
      if (now_ >= end) return false;
      Time next = std::min(end, sender_->next_deadline(now_));
      if (!answers_.empty()) next = std::min(next, answers_.front().at);
      now_ = std::max(now_, next);
      while (!answers_.empty() && answers_.front().at <= now_) {
        const Answer answer = answers_.front();
        answers_.pop_front();
        if (!silent_.contains(answer.node))
          report(answer.node, answer.id, answer.location, answer.name, answer.status);
      }
      sender_->run(now_);
      if (sender_->next_deadline(now_) <= now_) ++now_;
    }
    return true;
  }
  void run_for(Time time) {
    run_until([] { return false; }, time);
  }
  bool run_until_polled(size_t polls, Time limit = kSecond) {
    return run_until([&] { return sink_.file_polls() >= polls; }, limit);
  }
  bool run_until_ended(Time limit) {
    return run_until([&] { return !ended_.empty(); }, limit);
  }

  // When a segment was sent.
  std::vector<Time> times_of(uint32_t segment) const {
    std::vector<Time> times;
    for (size_t i = 0; i < sink_.sent.size(); ++i)
      if (sink_.sent[i].kind == Kind::kSegment && sink_.sent[i].segment == segment)
        times.push_back(times_[i]);
    return times;
  }
  // Segments between two polls about the file, numbered from 1 on; from 0: since the beginning.
  std::vector<uint32_t> segments_between(size_t from, size_t to) const {
    std::vector<uint32_t> segments;
    size_t polls = 0;
    for (const SentDatagram& one : sink_.sent) {
      polls += one.file_poll();
      if (one.kind == Kind::kSegment && polls >= from && polls < to)
        segments.push_back(one.segment);
    }
    return segments;
  }
  // What a copy of so many segments took at the rate at which the last datagram was sent.
  Time cost(uint32_t segments) const {
    const double bytes = 150 + static_cast<double>(segments) * kDefaultSegmentSize;
    return static_cast<Time>(bytes / rate_ * kSecond);
  }

  void transfer_ended(const Transfer&, NodeIndex node, uint64_t status, bool) override {
    ended_.emplace_back(node, status);
  }
  bool transfer_unlisted(const Transfer&, NodeIndex) override { return announces_again_; }
  bool transfer_ends_unknown(const Transfer&, uint64_t) override { return true; }
  void transfer_closed(const Transfer&) override { closed_ = true; }

  Settings settings_;
  NodeTable nodes_;
  test::RecordingSink sink_;
  std::vector<Time> times_;  // of what was sent
  double rate_ = 0;          // bytes per second that nodes handled, as far as is known
  test::MemoryStore store_;
  Counters counters_;
  std::unique_ptr<DataSender> sender_;
  Time now_ = 100 * kSecond;
  Time started_ = 0;
  TransferId id_ = kNoTransfer;
  std::set<NodeIndex> silent_;
  uint64_t answer_ = PKGDIST_STATUS_IN_PROGRESS;  // to polls about the file
  bool announces_again_ = true;
  std::vector<std::pair<NodeIndex, uint64_t>> ended_;
  bool closed_ = false;

 private:
  struct Answer {
    Time at;
    NodeIndex node;
    TransferId id;
    uint32_t location;
    std::string name;
    uint64_t status;
  };

  void on_poll(const SentDatagram& poll) {
    for (NodeIndex node = 0; node < nodes_.size(); ++node) {
      const bool meant = poll.nodes.empty() || std::find(poll.nodes.begin(), poll.nodes.end(),
                                                         address(node)) != poll.nodes.end();
      if (meant)
        answers_.push_back({now_ + kRoundTrip, node, poll.file_id, poll.location, poll.name,
                            poll.file_poll() ? answer_ : PKGDIST_STATUS_UNKNOWN_FILE});
    }
  }
  void report(NodeIndex node, TransferId id, uint32_t location, std::string name, uint64_t status) {
    pkgdist_data_send_req_done body{};
    body.file_id = id;
    body.location = location;
    body.name = name.data();
    body.status = status;
    sender_->on_report(node, body, now_);
  }

  std::deque<Answer> answers_;
};

// --- The first round ---

TEST_F(SettlingTest, a_file_that_all_nodes_report_is_never_polled) {
  start(20, 2);
  ASSERT_TRUE(run_until([&] { return sink_.segments() == 20; }, kSecond));
  report(0, 0);
  EXPECT_FALSE(closed_);
  report(1, 0);
  EXPECT_TRUE(closed_);
  run_for(kSecond);
  EXPECT_EQ(sink_.file_polls(), 0u);
  EXPECT_EQ(sink_.segments(), 20u);
}

TEST_F(SettlingTest, nothing_is_polled_or_shown_before_all_that_was_sent_was_handled) {
  start(20, 2);
  silent_ = {1};
  run_for(200 * kMillisecond);
  EXPECT_EQ(sink_.segments(), 20u);
  EXPECT_EQ(sink_.file_polls(), 0u);
  silent_.clear();
  EXPECT_TRUE(run_until_polled(1, 200 * kMillisecond));
}

TEST_F(SettlingTest, the_segments_at_the_end_and_the_beginning_are_shown_ahead_of_one_poll) {
  start(20);
  silent_ = {0};  // has to be heard once, so that what was sent counts as handled
  run_for(50 * kMillisecond);
  silent_.clear();
  ASSERT_TRUE(run_until_polled(1));
  const auto poll = std::find_if(sink_.sent.begin(), sink_.sent.end(),
                                 [](const SentDatagram& one) { return one.file_poll(); });
  ASSERT_GE(poll - sink_.sent.begin(), 2);
  const auto tail = poll - 2;
  EXPECT_EQ(tail[0].kind, Kind::kSegment);
  EXPECT_EQ(tail[0].segment, 19u);
  EXPECT_EQ(tail[1].kind, Kind::kSegment);
  EXPECT_EQ(tail[1].segment, 0u);
  EXPECT_FALSE(tail[0].repair || tail[1].repair);  // so that nodes ask for the gap before
  EXPECT_EQ(sink_.segments(), 22u);
  EXPECT_EQ(sink_.file_polls(), 1u);
}

TEST_F(SettlingTest, the_only_segment_of_a_file_is_shown_once) {
  start(1);
  ASSERT_TRUE(run_until_polled(1));
  EXPECT_EQ(segments_between(0, 1), (std::vector<uint32_t>{0, 0}));
}

TEST_F(SettlingTest, a_turn_that_ended_in_the_middle_is_shown_where_it_ended) {
  start(3000);
  ASSERT_TRUE(run_until([&] { return sink_.segments() > 100; }, kSecond));
  const uint32_t next = sink_.segment_numbers().back() + 1;
  nodes_.observe_data(address(1), now_);
  sender_->join(id_, 1, false, now_);
  ASSERT_TRUE(run_until_polled(1));
  const std::vector<uint32_t> segments = segments_between(0, 1);
  ASSERT_EQ(segments.size(), 3000 + next + 2u);
  EXPECT_EQ(segments[segments.size() - 3], next - 1);
  EXPECT_EQ(segments[segments.size() - 2], next - 1);
  EXPECT_EQ(segments[segments.size() - 1], next);
}

TEST_F(SettlingTest, a_round_waits_for_repairs_that_are_due_and_for_their_handling) {
  start(20);
  ASSERT_TRUE(run_until_polled(1));
  const size_t before = sink_.segments();
  request(0, 5, 10);
  ASSERT_TRUE(run_until_polled(2));
  EXPECT_EQ(sink_.segments(), before + 10);
  EXPECT_GE(times_.back() - times_of(14).back(), kRoundTrip);
}

// --- Stuck nodes ---

TEST_F(SettlingTest, a_stuck_node_gets_the_information_and_no_copy_before_its_time) {
  start(500);
  ASSERT_TRUE(run_until_polled(1));
  const size_t infos = sink_.infos();
  ASSERT_TRUE(run_until_polled(2));
  EXPECT_EQ(sink_.infos(), infos + 1);
  EXPECT_EQ(times_of(10).size(), 1u);
}

TEST_F(SettlingTest,
       a_copy_of_the_file_comes_after_as_long_as_it_takes_and_twice_that_for_the_next) {
  start(20);
  ASSERT_TRUE(run_until_polled(1));
  for (uint32_t copy = 0; copy < 5; ++copy) {
    ASSERT_TRUE(run_until([&] { return times_of(10).size() == copy + 2; }, 5 * kSecond));
    const std::vector<Time> times = times_of(10);
    const Time wait = cost(20) << copy;
    EXPECT_GE(times[copy + 1] - times[copy] + kMicrosecond, wait) << copy;
    EXPECT_LE(times[copy + 1] - times[copy], 3 * wait + 20 * kMillisecond) << copy;
  }
}

// What is shown to a node meanwhile is no service that it would have to wait for.
TEST_F(SettlingTest, a_copy_that_takes_longer_than_the_pause_between_rounds_comes_too) {
  start(20);
  run_for(14 * kSecond);
  EXPECT_TRUE(ended_.empty());
  // 28 ms doubled eight times are 7 s, beside rounds that are a second apart.
  EXPECT_GE(times_of(10).size(), 1 + 7u);
  EXPECT_LE(times_of(10).size(), 1 + 9u);
}

TEST_F(SettlingTest, what_was_asked_for_is_sent_twice_more_before_the_whole_file) {
  start(20);
  ASSERT_TRUE(run_until_polled(1));
  request(0, 5, 2);
  for (size_t count = 3; count <= 4; ++count) {  // the stream, the repair, two copies
    ASSERT_TRUE(run_until([&] { return times_of(5).size() == count; }, kSecond));
    const std::vector<Time> times = times_of(5);
    EXPECT_GE(times[count - 1] - times[count - 2] + kMicrosecond, cost(2) << (count - 3));
    EXPECT_EQ(times_of(10).size(), 1u);
  }
  ASSERT_TRUE(run_until([&] { return times_of(10).size() == 2; }, kSecond));
  EXPECT_GE(times_of(10)[1] - times_of(5)[3] + kMicrosecond, cost(20) << 2);
  EXPECT_EQ(sink_.count([](const SentDatagram& one) { return one.repair && one.segment == 5; }),
            3u);
  EXPECT_EQ(sink_.count([](const SentDatagram& one) { return one.repair && one.segment == 10; }),
            0u);
}

TEST_F(SettlingTest, a_node_that_asks_is_not_stuck) {
  start(20);
  ASSERT_TRUE(run_until_polled(1));
  const size_t infos = sink_.infos();
  for (size_t polls = 2; polls < 10; ++polls) {
    request(0, 5, 1);
    ASSERT_TRUE(run_until_polled(polls));
  }
  EXPECT_EQ(sink_.infos(), infos);
  EXPECT_EQ(times_of(10).size(), 1u);
}

TEST_F(SettlingTest, a_large_file_is_searched_for_its_beginning_before_a_copy) {
  constexpr uint32_t kSegments = 4000;
  start(kSegments);
  ASSERT_TRUE(run_until_polled(2, 5 * kSecond));
  StartSearch search(kSegments);
  std::vector<uint32_t> expected = {kSegments - 1, 0};
  const std::vector<uint32_t>& marks = search.marks();
  expected.insert(expected.end(), marks.begin(), marks.end());
  EXPECT_EQ(segments_between(1, 2), expected);
  ASSERT_TRUE(run_until([&] { return times_of(kSegments - 2).size() == 2; }, 5 * kSecond));
}

TEST_F(SettlingTest, a_small_file_is_not_searched) {
  start(1000);
  ASSERT_TRUE(run_until_polled(2, 5 * kSecond));
  EXPECT_LE(segments_between(1, 2).size(), 2u);
}

// --- Nodes that are given up ---

TEST_F(SettlingTest, a_node_that_never_asks_for_a_segment_ends_as_one_that_large_datagrams_miss) {
  start(20);
  ASSERT_TRUE(run_until_ended(60 * kSecond));
  EXPECT_EQ(ended_.front(), (std::pair<NodeIndex, uint64_t>{0, kTooLong}));
  EXPECT_TRUE(closed_);
  EXPECT_GE(now_ - started_, 15 * kSecond);
  EXPECT_LE(now_ - started_, 17 * kSecond);
}

TEST_F(SettlingTest, a_file_of_one_segment_has_no_datagram_that_is_too_large) {
  start(1);
  ASSERT_TRUE(run_until_ended(60 * kSecond));
  EXPECT_EQ(ended_.front().second, kTimedOut);
  EXPECT_GE(now_ - started_, 45 * kSecond);
  EXPECT_LE(now_ - started_, 47 * kSecond);
}

TEST_F(SettlingTest, a_node_whose_requests_stay_the_same_ends_with_a_time_out) {
  start(200);
  ASSERT_TRUE(run_until_polled(1));
  while (ended_.empty() && now_ - started_ < 100 * kSecond) {
    request(0, 10, 100);
    run_until_ended(2 * kSecond);
  }
  ASSERT_EQ(ended_.size(), 1u);
  EXPECT_EQ(ended_.front().second, kTimedOut);
  EXPECT_GE(now_ - started_, 45 * kSecond);
  EXPECT_LE(now_ - started_, 53 * kSecond);
}

TEST_F(SettlingTest, requests_that_get_less_are_progress) {
  start(200);
  ASSERT_TRUE(run_until_polled(1));
  for (uint32_t lacking = 100; lacking > 10; --lacking) {
    request(0, 10, lacking);
    run_for(2 * kSecond);
  }
  EXPECT_GT(now_ - started_, 170 * kSecond);
  EXPECT_TRUE(ended_.empty());
  report(0, 0);
  EXPECT_EQ(ended_.front().second, 0u);
}

// A time-out pass of a node is many requests without a pause: together they are what it lacks.
TEST_F(SettlingTest, the_requests_of_one_pass_are_counted_together) {
  start(200);
  ASSERT_TRUE(run_until_polled(1));
  // Ever more requests of ever less, the same in all.
  for (const uint32_t parts : {1, 2, 4, 5, 10, 20, 25, 50}) {
    for (int repeated = 0; repeated < 5; ++repeated) {
      for (uint32_t part = 0; part < parts; ++part)
        request(0, 10 + part * (100 / parts), 100 / parts);
      run_until_ended(2 * kSecond);
    }
  }
  ASSERT_EQ(ended_.size(), 1u);
  EXPECT_EQ(ended_.front().second, kTimedOut);
}

TEST_F(SettlingTest, a_node_that_says_nothing_for_longer_than_it_remembers_ends_with_a_time_out) {
  start(20, 2);
  silent_ = {1};
  ASSERT_TRUE(run_until([&] { return sink_.segments() == 20; }, kSecond));
  report(0, 0);
  ASSERT_EQ(ended_.size(), 1u);
  ASSERT_TRUE(run_until([&] { return ended_.size() == 2; }, 60 * kSecond));
  EXPECT_EQ(ended_.back(), (std::pair<NodeIndex, uint64_t>{1, kTimedOut}));
  EXPECT_TRUE(closed_);
  EXPECT_GE(now_ - started_, 35 * kSecond);
  EXPECT_LE(now_ - started_, 40 * kSecond);
}

TEST_F(SettlingTest, a_node_that_is_heard_in_between_is_waited_for_again) {
  start(20);
  silent_ = {0};
  run_for(30 * kSecond);
  request(0, 3, 1);
  const Time heard = now_;
  ASSERT_TRUE(run_until_ended(60 * kSecond));
  EXPECT_GE(now_ - heard, 35 * kSecond);
}

TEST_F(SettlingTest, rounds_of_a_silent_node_get_rarer) {
  start(20);
  silent_ = {0};
  run_for(30 * kSecond);
  EXPECT_GT(sink_.file_polls(), 20u);
  EXPECT_LT(sink_.file_polls(), 50u);
}

// --- Nodes that have not heard of the file, or remember an earlier one ---

TEST_F(SettlingTest, a_node_that_does_not_know_the_file_is_announced_it_again_or_left_alone) {
  for (const bool again : {true, false}) {
    SCOPED_TRACE(again);
    ended_.clear();
    closed_ = false;
    announces_again_ = again;
    answer_ = PKGDIST_STATUS_UNKNOWN_FILE;
    start(20);
    const size_t polls = sink_.file_polls();
    ASSERT_TRUE(run_until_polled(polls + 1));
    run_for(kSecond);
    EXPECT_EQ(sink_.file_polls(), polls + 1);
    EXPECT_EQ(closed_, !again);
    EXPECT_EQ(ended_.size(), again ? 0u : 1u);
    if (!again) continue;
    const size_t segments = sink_.segments();
    sender_->join(id_, 0, false, now_);
    run_for(10 * kMillisecond);
    EXPECT_GE(sink_.segments(), segments + 20);
    report(0, 0);
    EXPECT_TRUE(closed_);
  }
}

// --- Files that cannot be sent ---

TEST_F(SettlingTest, nodes_are_told_why_a_file_cannot_be_sent_any_further) {
  store_.add("file", test::pattern(1'000'000, 1));
  store_.break_read("file", 500'000);
  start_stored(2);
  nodes_.observe_data(address(2), now_);  // not concerned
  ASSERT_TRUE(run_until_polled(2));
  const auto told = std::find_if(sink_.sent.begin(), sink_.sent.end(),
                                 [](const SentDatagram& one) { return one.status != 0; });
  ASSERT_NE(told, sink_.sent.end());
  EXPECT_EQ(told->status, kReadError);
  EXPECT_EQ(told->nodes, (std::vector<uint32_t>{address(0), address(1)}));
  EXPECT_FALSE(std::any_of(told, sink_.sent.end(), [](const SentDatagram& one) {
    return one.kind == Kind::kSegment || (one.kind == Kind::kInfo && one.status != kReadError);
  }));
  // Those that have not heard it are told again.
  EXPECT_GE(std::count_if(told, sink_.sent.end(),
                          [](const SentDatagram& one) { return one.status == kReadError; }),
            2);
  report(0, kReadError);
  report(1, kReadError);
  EXPECT_TRUE(closed_);
  EXPECT_EQ(ended_.front().second, kReadError);
}

TEST_F(SettlingTest, segments_of_a_file_that_failed_are_not_repaired) {
  store_.add("file", test::pattern(1'000'000, 1));
  store_.break_read("file", 500'000);
  start_stored();
  ASSERT_TRUE(run_until_polled(1));
  const size_t segments = sink_.segments();
  const uint64_t bad = counters_.bad_datagrams;
  request(0, 3, 5);
  run_for(100 * kMillisecond);
  EXPECT_EQ(sink_.segments(), segments);
  EXPECT_EQ(counters_.bad_datagrams, bad + 1);
}

TEST_F(SettlingTest, a_file_that_is_not_there_is_told_and_polled) {
  start_stored();
  silent_ = {0};
  ASSERT_TRUE(run_until_polled(1, 2 * kSecond));
  EXPECT_EQ(sink_.sent.front().status, PKGDIST_STATUS_FROM_ERRNO(ENOENT));
  EXPECT_EQ(sink_.segments(), 0u);
}

TEST_F(SettlingTest, a_node_that_is_announced_a_file_that_cannot_be_sent_is_polled_about_it) {
  answer_ = PKGDIST_STATUS_UNKNOWN_FILE;
  start_stored();
  ASSERT_TRUE(run_until_polled(1));
  run_for(100 * kMillisecond);
  ASSERT_EQ(sink_.file_polls(), 1u);
  answer_ = PKGDIST_STATUS_IN_PROGRESS;
  sender_->join(id_, 0, false, now_);
  EXPECT_TRUE(run_until_polled(2));
}

// With a rate the sender sleeps between any two datagrams: also right after the failure.
class SlowSettlingTest : public SettlingTest {
 protected:
  SlowSettlingTest() : SettlingTest(8'000'000) {}
};

TEST_F(SlowSettlingTest, a_file_that_fails_while_repairs_are_due_is_polled_all_the_same) {
  for (uint32_t streamed = 45; streamed < 75; ++streamed) {
    SCOPED_TRACE(streamed);
    store_.add("file", test::pattern(1'000'000, 1));
    store_.break_read("file", 200'000);
    start_stored();
    const size_t polls = sink_.file_polls();
    const size_t segments = sink_.segments();
    ASSERT_TRUE(run_until([&] { return sink_.segments() >= segments + streamed; }, kSecond));
    request(0, 0, 60);
    ASSERT_TRUE(run_until([&] { return sender_->get(id_)->status != 0; }, kSecond));
    run_for(200 * kMillisecond);
    EXPECT_GT(sink_.file_polls(), polls);
    report(0, kReadError);
    ASSERT_TRUE(closed_);
    closed_ = false;
  }
}

}  // namespace
}  // namespace pkgdist::lead
