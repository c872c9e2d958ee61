// Strangers' requests beside a push: what they get, and what they cannot take from its nodes.
#include <gtest/gtest.h>

#include "forged.h"
#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;

constexpr uint32_t kStranger = 0x0A0000FE;

class Fairness : public testing::Test {
 protected:
  Fairness() { cluster_.add_hosts(2); }

  static std::string small(size_t number) { return "small" + std::to_string(number); }
  void add_small_files(size_t count) {
    for (size_t i = 0; i < count; ++i) cluster_.store.add(small(i), pattern(500, i));
  }
  // To the cluster's nodes by name.
  lead::PushRequest named_push(uint32_t priority = 2) {
    lead::PushRequest request = cluster_.push_all();
    for (size_t i = 0; i < cluster_.hosts(); ++i) request.nodes.push_back(cluster_.host(i).address);
    request.priority = priority;
    return request;
  }
  void ask(const std::string& name, uint32_t priority = 1, uint32_t address = kStranger) {
    cluster_.lead().on_datagram(Channel::kData, file_request(address, name, priority), address,
                                cluster_.now());
  }
  // How long the push takes while `meanwhile` is called every so often; 0 when it does not end.
  uint64_t run(const lead::PushRequest& request, uint64_t every,
               const std::function<void()>& meanwhile) {
    const uint64_t began = cluster_.now();
    if (cluster_.lead().start_push(request, began) != nullptr) return 0;
    while (cluster_.lead().push_running() && cluster_.now() < began + 120 * kSecond) {
      meanwhile();
      cluster_.run_until([&] { return !cluster_.lead().push_running(); }, every);
    }
    return cluster_.lead().push_report().complete() ? cluster_.now() - began : 0;
  }

  LeadCluster cluster_;
};

TEST_F(Fairness, requests_that_are_renewed_do_not_stop_a_push) {
  add_small_files(3000);
  const uint64_t took = run(named_push(), 3 * kSecond, [&] {
    for (size_t i = 500; i < 3000; ++i) ask(small(i));
  });
  EXPECT_GT(took, 0u);
  EXPECT_LT(took, 2 * kSecond);  // before they are renewed
}

TEST_F(Fairness, requests_for_files_that_wait_for_their_turn_do_not_stop_a_push) {
  add_small_files(3000);
  size_t next = 2999;
  // One after the other, always ahead of the push, and each again.
  const uint64_t took = run(named_push(), 20 * kMillisecond, [&] {
    for (int i = 0; i < 50; ++i) {
      ask(small(next));
      next = next == 0 ? 2999 : next - 1;
    }
  });
  EXPECT_GT(took, 0u);
  EXPECT_LT(took, 2 * kSecond);
}

TEST_F(Fairness, a_request_takes_half_of_the_stream_at_most_whatever_its_priority) {
  cluster_.store.add("pushed", pattern(10'000'000, 1));
  const uint64_t alone = run(named_push(4), kSecond, [] {});
  ASSERT_GT(alone, 0u);
  const lead::PushRequest request = named_push(4);
  cluster_.store.add("asked for", pattern(60'000'000, 2));
  for (size_t i = 0; i < 2; ++i) cluster_.host(i).disk.clear();
  const uint64_t beside = run(request, kSecond, [&] { ask("asked for", 1); });
  EXPECT_GT(beside, 0u);
  EXPECT_LT(beside, alone * 5 / 2);
}

TEST_F(Fairness, a_node_beside_the_push_gets_what_it_asks_for_meanwhile) {
  cluster_.store.add("pushed", pattern(20'000'000, 1));
  const lead::PushRequest request = named_push();
  cluster_.store.add("asked for", pattern(1'000'000, 2));
  const size_t guest = cluster_.add_host();
  cluster_.run_for(2 * kSecond);
  ASSERT_EQ(cluster_.lead().start_push(request, cluster_.now()), nullptr);
  cluster_.run_for(50 * kMillisecond);
  for (const char* name : {"asked for", "pushed"})
    cluster_.node(guest).get_file(name, 1, 1, 4, cluster_.now());
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.node(guest).receiving(); }, 20 * kSecond));
  EXPECT_EQ(cluster_.host(guest).disk, cluster_.store.files());
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 20 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  EXPECT_EQ(cluster_.lead().push_report().nodes.size(), 2u);
}

TEST_F(Fairness, a_silent_stranger_in_a_pushed_file_is_not_waited_for) {
  cluster_.store.add("a", pattern(5'000'000, 1));
  cluster_.store.add("b", pattern(5'000'000, 2));
  const uint64_t alone = run(named_push(), kSecond, [] {});
  for (size_t i = 0; i < 2; ++i) cluster_.host(i).disk.clear();
  const uint64_t beside = run(named_push(), 10 * kMillisecond, [&] {
    for (const char* name : {"a", "b"}) ask(name);
  });
  ASSERT_GT(alone, 0u);
  EXPECT_GT(beside, 0u);
  EXPECT_LT(beside, alone * 3 / 2);
}

TEST_F(Fairness, a_file_request_that_is_repeated_is_answered_once_in_a_round_trip) {
  cluster_.store.add("file", pattern(5'000'000, 1));
  for (size_t i = 0; i < 2; ++i) cluster_.host(i).down.with<Delay>(20 * kMillisecond);
  ASSERT_TRUE(cluster_.run_push(named_push(), 20 * kSecond));  // measures the round trip
  ask("file");
  cluster_.run_for(200 * kMillisecond);
  const uint64_t before = cluster_.lead().counters().infos_sent;
  for (int i = 0; i < 15; ++i) {
    ask("file");
    cluster_.run_for(kMillisecond);
  }
  EXPECT_LE(cluster_.lead().counters().infos_sent - before, 2u);
}

TEST_F(Fairness, of_file_requests_so_many_in_a_second_are_heeded_for_each_node) {
  cluster_.run_for(3 * kSecond);
  const uint64_t before = cluster_.lead().counters().infos_sent;
  for (int i = 0; i < 20'000; ++i) ask("../" + std::to_string(i));
  EXPECT_LE(cluster_.lead().counters().infos_sent - before, 2048u);
  ask("../x", 1, kStranger - 1);
  EXPECT_GE(cluster_.lead().counters().infos_sent - before, 2049u);
}

}  // namespace
}  // namespace pkgdist::test
