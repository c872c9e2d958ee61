// How a push stands, from its events.
#include "event_state.h"

#include <gtest/gtest.h>

namespace pkgdist::lead_program {
namespace {

TEST(EventState, follows_a_push_to_its_end) {
  EventState events;
  EXPECT_FALSE(events.add("no event"));
  EXPECT_FALSE(events.add(
      R"({"event":"push-started","time":100,"transaction":7,"files":2,"bytes":100,"nodes":2})"));
  EXPECT_FALSE(events.add(
      R"({"event":"progress","time":101,"node":"10.0.0.1","files":1,"of_files":2,"failed":0,"bytes":40,)"
      R"("of_bytes":100,"goodput_bits":800,"repairs":3,"repair_ratio":0.5,"seconds_since_heard":0.1})"));
  EXPECT_TRUE(events.add(
      R"({"event":"push-progress","time":101,"seconds":1,"nodes":2,"nodes_done":0,"rate_bits":5,)"
      R"("repairs_sent":3,"eta_seconds":9})"));
  const PushState& state = events.state();
  EXPECT_EQ(state.transaction, 7u);
  EXPECT_EQ(state.nodes_in_all, 2u);
  EXPECT_EQ(state.seconds_left, 9);
  ASSERT_EQ(state.nodes.size(), 1u);
  EXPECT_EQ(state.nodes[0].address, 0x0A000001u);
  EXPECT_DOUBLE_EQ(state.nodes[0].share, 0.4);
  EXPECT_DOUBLE_EQ(state.nodes[0].rate, 100);
  EXPECT_EQ(state.nodes[0].repairs, 3u);
  EXPECT_FALSE(events.finished());
  EXPECT_TRUE(events.add(
      R"({"event":"push-finished","time":103,"complete":false,"seconds":3,"nodes":[)"
      R"({"node":"10.0.0.1","state":"complete","files":2,"files_failed":0,"files_left":0},)"
      R"({"node":"10.0.0.2","state":"never heard","files":0,"files_failed":0,"files_left":2}]})"));
  EXPECT_TRUE(events.finished());
  EXPECT_EQ(events.state().nodes_done, 1u);
  EXPECT_EQ(events.state().nodes[0].share, 1);
  EXPECT_FALSE(events.state().nodes[1].heard);
  EXPECT_EQ(events.time(), 103);
}

TEST(EventState, a_node_that_is_not_heard_stays_so_until_it_is_told_of_again) {
  EventState events;
  const auto progress = [&](double time, double since) {
    events.add(R"({"event":"progress","node":"10.0.0.1","of_files":2,"of_bytes":100,"time":)" +
               std::to_string(time) + R"(,"seconds_since_heard":)" + std::to_string(since) + "}");
  };
  const auto seconds_at = [&](double time) {
    events.add(R"({"event":"push-progress","time":)" + std::to_string(time) + "}");
    return events.state().nodes[0].seconds_since_heard;
  };
  progress(100, 0.2);
  EXPECT_EQ(seconds_at(100), 0);
  progress(103, 2.5);
  EXPECT_NEAR(seconds_at(103), 2.5, 0.01);
  EXPECT_NEAR(seconds_at(110), 9.5, 0.01);
  progress(111, 0.1);
  EXPECT_EQ(seconds_at(111), 0);
}

}  // namespace
}  // namespace pkgdist::lead_program
