#include "stream/window.h"

#include <gtest/gtest.h>

#include <deque>
#include <set>

namespace pkgdist::lead {
namespace {

constexpr size_t kDatagram = 1428;
constexpr uint64_t kFirst = 128 * 1024;

class WindowTest : public testing::Test {
 protected:
  void add_nodes(NodeIndex count) {
    for (NodeIndex node = 0; node < count; ++node) busy_.add(node);
  }
  // Sends until the window is full; nodes that answer do so a round trip later.
  uint64_t fill() {
    const uint64_t before = window_.position();
    for (;;) {
      poll(false);
      if (!window_.open()) break;
      window_.sent(kDatagram);
    }
    window_.note_full(now_);
    poll(true);
    return window_.position() - before;
  }
  bool poll(bool stops) {
    if (!window_.poll_due(stops, now_)) return false;
    const TransferId number = ++last_number_;
    named_ = window_.begin_poll(number, now_);
    if (!named_.empty()) window_.sent(100);
    for (const NodeIndex node : named_)
      if (!silent_.contains(node)) answers_.push_back({now_ + kRoundTrip, number, node});
    return true;
  }
  // Lets time pass in which answers arrive, and polls when it is due.
  void wait(Time time) {
    for (const Time end = now_ + time; now_ < end; now_ += kMillisecond / 4) {
      while (!answers_.empty() && answers_.front().at <= now_) {
        window_.answered(answers_.front().number, answers_.front().node, now_);
        answers_.pop_front();
      }
      poll(true);
    }
  }

  // A small file that both of two nodes still have to report.
  static Transfer small_file(TransferId id) {
    Transfer file(id, {}, {}, 16);
    file.nodes.resize(2);
    for (TransferNode& node : file.nodes) node.state = TransferNode::State::kOpen;
    return file;
  }
  void send(const Transfer& file) {
    for (uint32_t segment = 0; segment < file.segments; ++segment) window_.sent(kDatagram);
    window_.expect_reports(file, now_);
  }

  static constexpr Time kRoundTrip = kMillisecond;
  static constexpr TransferId kFirstFile = 1'000'000;
  struct Answer {
    Time at;
    TransferId number;
    NodeIndex node;
  };
  BusyNodes busy_;
  Window window_{busy_};
  Time now_ = kSecond;
  TransferId last_number_ = 0;
  std::vector<NodeIndex> named_;
  std::set<NodeIndex> silent_;
  std::deque<Answer> answers_;
};

TEST_F(WindowTest, lets_nothing_more_out_than_fits_into_a_usual_socket_until_a_node_answers) {
  add_nodes(1);
  EXPECT_NEAR(static_cast<double>(fill()), kFirst, 2 * kDatagram);
  EXPECT_FALSE(window_.open());
  wait(3 * kMillisecond);
  EXPECT_TRUE(window_.open());
}

TEST_F(WindowTest, a_window_that_reports_of_small_files_will_open_is_not_polled_for) {
  add_nodes(2);
  fill();
  wait(2 * kMillisecond);
  TransferId id = kFirstFile;
  while (window_.open()) send(small_file(++id));
  EXPECT_FALSE(poll(true));
  for (const NodeIndex node : {0u, 1u}) window_.reported(id, node, now_ += kMillisecond);
  ASSERT_TRUE(window_.open());
  window_.sent(kDatagram);
  EXPECT_TRUE(poll(true));
}

TEST_F(WindowTest, a_window_that_is_full_of_one_file_is_polled_for) {
  add_nodes(1);
  while (window_.open()) {
    poll(false);
    window_.sent(kDatagram);
  }
  poll(false);
  window_.sent(kDatagram);
  EXPECT_TRUE(poll(true));
}

TEST_F(WindowTest, the_slowest_node_decides) {
  add_nodes(3);
  fill();
  silent_ = {1};
  wait(3 * kMillisecond);
  const uint64_t before = window_.handled();
  fill();
  wait(3 * kMillisecond);
  EXPECT_FALSE(window_.open());
  EXPECT_EQ(window_.handled(), before);
}

TEST_F(WindowTest, grows_while_it_limits_the_stream_by_no_more_than_what_is_on_its_way) {
  add_nodes(2);
  for (int i = 0; i < 20; ++i) {
    fill();
    wait(2 * kMillisecond);
  }
  // The half of what two milliseconds take is on its way.
  EXPECT_GT(window_.size(), kFirst * 5 / 4);
  EXPECT_LT(window_.size(), 3 * kFirst);
}

TEST_F(WindowTest, does_not_grow_while_something_else_limits_the_stream) {
  add_nodes(1);
  for (int i = 0; i < 100; ++i) {
    for (int k = 0; k < 10; ++k) window_.sent(kDatagram);
    poll(true);
    wait(2 * kMillisecond);
  }
  EXPECT_EQ(window_.size(), kFirst);
}

TEST_F(WindowTest, reports_of_small_files_take_the_place_of_polls) {
  add_nodes(2);
  fill();
  wait(2 * kMillisecond);
  const TransferId polls = last_number_;
  for (TransferId id = kFirstFile; id < kFirstFile + 100; ++id) {
    send(small_file(id));
    poll(false);
    ASSERT_TRUE(window_.open());
    for (const NodeIndex node : {0u, 1u}) window_.reported(id, node, now_ += kMillisecond / 2);
  }
  EXPECT_EQ(last_number_, polls);
  EXPECT_EQ(window_.handled(), window_.position());
}

TEST_F(WindowTest, a_file_that_a_polled_node_has_ended_takes_no_polls_place) {
  add_nodes(2);
  fill();
  wait(2 * kMillisecond);
  const uint64_t before = window_.handled();
  Transfer file = small_file(kFirstFile);
  file.nodes[1].state = TransferNode::State::kEnded;
  send(file);
  for (const NodeIndex node : {0u, 1u}) window_.reported(kFirstFile, node, now_);
  EXPECT_EQ(window_.handled(), before);
}

TEST_F(WindowTest, a_file_of_which_segments_were_asked_for_takes_no_polls_place) {
  add_nodes(2);
  fill();
  wait(2 * kMillisecond);
  const uint64_t before = window_.handled();
  Transfer file = small_file(kFirstFile);
  file.nodes[1].has_info = true;
  send(file);
  for (const NodeIndex node : {0u, 1u}) window_.reported(kFirstFile, node, now_);
  EXPECT_EQ(window_.handled(), before);
}

TEST_F(WindowTest, a_node_whose_report_stays_away_is_polled) {
  add_nodes(2);
  fill();
  wait(2 * kMillisecond);
  send(small_file(kFirstFile));
  window_.reported(kFirstFile, 0, now_);
  EXPECT_LT(window_.handled(), window_.position());
  wait(50 * kMillisecond);
  EXPECT_EQ(named_, std::vector<NodeIndex>{1});
  EXPECT_EQ(window_.handled(), window_.position());
}

TEST_F(WindowTest, a_node_that_owes_an_answer_is_asked_again_alone) {
  add_nodes(2);
  silent_ = {1};
  fill();
  wait(2 * kMillisecond);
  wait(100 * kMillisecond);
  EXPECT_EQ(named_, std::vector<NodeIndex>{1});
}

TEST_F(WindowTest, a_node_that_does_not_answer_is_excused_until_it_is_heard) {
  add_nodes(2);
  silent_ = {1};
  fill();
  wait(250 * kMillisecond);
  EXPECT_FALSE(window_.open());
  wait(500 * kMillisecond);
  EXPECT_TRUE(window_.open());
  for (int i = 0; i < 10; ++i) {
    fill();
    wait(3 * kMillisecond);
    EXPECT_TRUE(window_.open());
  }
  silent_.clear();
  fill();
  wait(3 * kMillisecond);
  silent_ = {1};
  fill();
  wait(3 * kMillisecond);
  EXPECT_FALSE(window_.open());
}

TEST_F(WindowTest, where_nobody_answers_the_stream_creeps) {
  add_nodes(3);
  silent_ = {0, 1, 2};
  fill();
  wait(2 * kSecond);
  EXPECT_TRUE(window_.open());
  const uint64_t before = window_.position();
  for (int i = 0; i < 100; ++i) {
    fill();
    wait(10 * kMillisecond);
  }
  EXPECT_GT(window_.position() - before, kFirst);
  EXPECT_LT(window_.position() - before, 10'000'000u);  // a second at 80 Mbit/s
}

TEST_F(WindowTest, of_many_nodes_eight_are_polled_and_others_a_moment_later) {
  add_nodes(20);
  std::set<NodeIndex> seen;
  for (int i = 0; i < 1000; ++i) {
    fill();
    EXPECT_LE(named_.size(), Window::kMaxPolled);
    seen.insert(named_.begin(), named_.end());
    wait(2 * kMillisecond);
  }
  EXPECT_EQ(seen.size(), 20u);
}

TEST_F(WindowTest, a_node_that_has_everything_is_not_waited_for) {
  add_nodes(2);
  silent_ = {1};
  fill();
  wait(3 * kMillisecond);
  EXPECT_FALSE(window_.open());
  busy_.remove(1);
  EXPECT_TRUE(window_.open());
}

TEST_F(WindowTest, loss_that_a_smaller_window_cures_keeps_it_small) {
  add_nodes(1);
  for (int i = 0; i < 20; ++i) {
    fill();
    wait(2 * kMillisecond);
  }
  const auto stream = [&](double share, int rounds) {
    for (int i = 0; i < rounds; ++i) {
      const uint64_t segments = fill() / kDatagram;
      for (uint64_t k = 0; k < segments; ++k) window_.sent_segment();
      const auto lost = static_cast<uint32_t>(share * static_cast<double>(segments));
      if (lost != 0) window_.lost(0, lost);
      wait(2 * kMillisecond);
    }
  };
  const uint64_t before = window_.size();
  stream(0.3, 2);
  EXPECT_LT(window_.size(), before * 2 / 3);
  stream(0, 40);
  EXPECT_LT(window_.size(), before * 9 / 10);  // half, and the pipe on top
}

TEST_F(WindowTest, loss_that_a_smaller_window_does_not_cure_is_granted) {
  add_nodes(1);
  for (int i = 0; i < 20; ++i) {
    fill();
    wait(2 * kMillisecond);
  }
  const uint64_t before = window_.size();
  for (int i = 0; i < 200; ++i) {
    const uint64_t segments = fill() / kDatagram;
    for (uint64_t k = 0; k < segments; ++k) window_.sent_segment();
    window_.lost(0, static_cast<uint32_t>(segments / 10));
    wait(2 * kMillisecond);
  }
  EXPECT_GE(window_.size(), before);
}

TEST_F(WindowTest, a_long_way_makes_room_for_what_is_on_it) {
  add_nodes(1);
  // 40 ms of round trip, nodes that take what comes.
  for (int i = 0; i < 40; ++i) {
    const TransferId first = last_number_ + 1;
    fill();
    answers_.clear();
    now_ += 40 * kMillisecond;
    for (TransferId number = first; number <= last_number_; ++number)
      window_.answered(number, 0, now_);
  }
  EXPECT_GT(window_.size(), 16 * kFirst);
}

}  // namespace
}  // namespace pkgdist::lead
