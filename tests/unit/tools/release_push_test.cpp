// The course of a push of a release, with nodes that do what the tests tell them, on a clock of the
// test.
#include "release_push.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

namespace pkgdist::lead_program {
namespace {

using cli::ReleaseId;
using cli::ReleaseOrder;
using cli::ReleasePhase;
using cli::ReleaseQuestion;
using cli::ReleaseState;
using Action = ReleasePush::Action;
using Phase = ReleasePush::Phase;
using Stage = ReleasePush::Stage;
using Files = std::vector<uint32_t>;
using Nodes = std::vector<uint32_t>;

constexpr size_t kFiles = 10;
constexpr lead::Time kSilence = 30 * lead::kSecond;
constexpr lead::Time kStart = 1000 * lead::kSecond;

ReleaseId release(uint64_t version) {
  return {version, std::string(64, static_cast<char>('0' + version % 10))};
}

// A node as far as a lead sees it.
struct FakeNode {
  std::set<uint32_t> missing;
  std::set<uint32_t> damaged;  // each for one arrival
  std::string refusal;         // of the check
  bool healthy = true;
  bool reached = true;
  bool deaf = false;  // says nothing from now on
  int deaf_to_orders = 0;
  ReleaseState state;
  std::function<void(const ReleaseQuestion&)> before_answer;

  void fetch(const Files& files) {
    for (const uint32_t file : files)
      if (damaged.erase(file) == 0) missing.erase(file);
  }

  void show(ReleasePhase phase) {
    state.phase = phase;
    state.missing = phase == ReleasePhase::kFetching ? missing.size() : 0;
    state.files.assign(phase == ReleasePhase::kFetching ? 2 : 0, 0);
    if (phase == ReleasePhase::kFetching)
      for (const uint32_t file : missing)
        state.files[file / 8] = static_cast<uint8_t>(state.files[file / 8] | 1u << file % 8);
  }

  void obey(const ReleaseQuestion& question) {
    if (question.order != ReleaseOrder::kState && deaf_to_orders > 0) {
      --deaf_to_orders;
      return;
    }
    state.number = question.number;
    if (question.order == ReleaseOrder::kCheck) check(question.release);
    if (question.order == ReleaseOrder::kFetched && state.candidate == question.release)
      show(missing.empty() ? ReleasePhase::kReady : ReleasePhase::kFetching);
    if (question.order == ReleaseOrder::kActivate && state.candidate == question.release)
      activate();
  }

  void check(const ReleaseId& wanted) {
    if (!refusal.empty()) {
      state.problem = refusal;
      return show(ReleasePhase::kRefused);
    }
    if (state.current == wanted) return show(ReleasePhase::kConfirmed);
    state.candidate = wanted;
    show(missing.empty() ? ReleasePhase::kReady : ReleasePhase::kFetching);
  }

  void activate() {
    if (healthy) state.current = state.candidate;
    if (!healthy) state.problem = "health command: exit status 1";
    state.candidate.reset();
    show(healthy ? ReleasePhase::kConfirmed : ReleasePhase::kFailed);
  }
};

class ReleasePushTest : public ::testing::Test {
 protected:
  // Nodes 1, 2 and 3, which miss everything.
  ReleasePushTest() {
    for (uint32_t address = 1; address <= 3; ++address) {
      FakeNode& node = nodes[address];
      node.state.location = 1;
      node.state.current = release(6);
      for (uint32_t file = 0; file < kFiles; ++file) node.missing.insert(file);
    }
  }

  static ReleasePush::Settings settings(const std::string& policy) {
    return {.name = "base",
            .location = 1,
            .release = release(7),
            .files = kFiles,
            .policy = parse_policy(policy),
            .silence = kSilence,
            .first_number = 100};
  }

  void run(const std::string& policy) {
    ReleasePush push(settings(policy), {1, 2, 3});
    run(push);
  }

  void run(ReleasePush& push) {
    for (int steps = 0; steps < 1000; ++steps) {
      const ReleasePush::Step step = push.next(now);
      if (step.action == Action::kEnd) return finish(push);
      take(push, step);
    }
    FAIL() << "does not end";
  }

  void take(ReleasePush& push, const ReleasePush::Step& step) {
    if (step.action == Action::kPushDescription) {
      std::map<uint32_t, std::string> lacks;
      for (const auto& [address, node] : nodes)
        if (step.nodes.empty() || std::count(step.nodes.begin(), step.nodes.end(), address) != 0)
          lacks[address] = node.reached ? "" : "was never heard";
      push.described(lacks);
    } else if (step.action == Action::kPushFiles) {
      fetches.push_back({step.nodes, step.files});
      for (const uint32_t address : step.nodes) nodes.at(address).fetch(step.files);
      push.fetched();
    } else if (step.action == Action::kOrder) {
      orders.emplace_back(step.question.order, step.nodes);
      for (const uint32_t address : step.nodes) answer(push, address, step.question);
    } else {
      ASSERT_GT(step.until, now);
      now = step.until;
    }
  }

  void answer(ReleasePush& push, uint32_t address, const ReleaseQuestion& question) {
    FakeNode& node = nodes.at(address);
    if (node.before_answer) node.before_answer(question);
    if (node.deaf) return;
    node.obey(question);
    push.on_state(address, node.state, now);
  }

  void finish(const ReleasePush& push) {
    complete = push.complete();
    held_back = push.held_back();
    for (const auto& [address, node] : push.nodes()) {
      stages[address] = node.stage;
      problems[address] = node.problem;
    }
  }

  size_t count(ReleaseOrder order) const {
    return static_cast<size_t>(std::count_if(orders.begin(), orders.end(),
                                             [&](const auto& one) { return one.first == order; }));
  }
  Nodes last(ReleaseOrder order) const {
    Nodes to;
    for (const auto& [what, whom] : orders)
      if (what == order) to = whom;
    return to;
  }

  lead::Time now = kStart;
  std::map<uint32_t, FakeNode> nodes;
  struct Fetch {
    Nodes nodes;
    Files files;
  };
  std::vector<Fetch> fetches;
  std::vector<std::pair<ReleaseOrder, Nodes>> orders;
  std::map<uint32_t, Stage> stages;
  std::map<uint32_t, std::string> problems;
  bool complete = false;
  bool held_back = false;
};

TEST_F(ReleasePushTest, files_travel_once_and_all_nodes_switch) {
  run("all");
  EXPECT_TRUE(complete);
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].nodes, (Nodes{1, 2, 3}));
  EXPECT_EQ(fetches[0].files.size(), kFiles);
  EXPECT_EQ(last(ReleaseOrder::kActivate), (Nodes{1, 2, 3}));
  for (const auto& [address, node] : nodes) EXPECT_EQ(node.state.current, release(7)) << address;
}

TEST_F(ReleasePushTest, only_files_that_some_node_misses_travel_and_only_to_those_that_miss_some) {
  nodes[1].missing = {2};
  nodes[2].missing = {2, 9};
  nodes[3].missing = {};
  run("all");
  EXPECT_TRUE(complete);
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].nodes, (Nodes{1, 2}));
  EXPECT_EQ(fetches[0].files, (Files{2, 9}));
}

TEST_F(ReleasePushTest, nothing_travels_when_no_node_misses_anything) {
  for (auto& [address, node] : nodes) node.missing.clear();
  run("all");
  EXPECT_TRUE(complete);
  EXPECT_TRUE(fetches.empty());
  EXPECT_EQ(count(ReleaseOrder::kFetched), 0u);
}

TEST_F(ReleasePushTest, nodes_that_run_the_release_already_are_left_alone) {
  for (auto& [address, node] : nodes) node.state.current = release(7);
  run("all");
  EXPECT_TRUE(complete);
  EXPECT_TRUE(fetches.empty());
  EXPECT_EQ(count(ReleaseOrder::kActivate), 0u);
}

TEST_F(ReleasePushTest, with_all_one_node_that_refuses_keeps_everybody_from_switching) {
  nodes[2].refusal = "version 7 is below 8, the floor of its key";
  run("all");
  EXPECT_FALSE(complete);
  EXPECT_TRUE(held_back);
  EXPECT_EQ(count(ReleaseOrder::kActivate), 0u);
  EXPECT_EQ(stages, (std::map<uint32_t, Stage>{
                        {1, Stage::kReady}, {2, Stage::kRefused}, {3, Stage::kReady}}));
  EXPECT_EQ(problems[2], "version 7 is below 8, the floor of its key");
  EXPECT_EQ(fetches.at(0).nodes, (Nodes{1, 3}));
}

TEST_F(ReleasePushTest, with_those_the_nodes_that_are_ready_switch) {
  nodes[2].refusal = "unknown key";
  run("those");
  EXPECT_FALSE(complete);
  EXPECT_FALSE(held_back);
  EXPECT_EQ(last(ReleaseOrder::kActivate), (Nodes{1, 3}));
  EXPECT_EQ(stages[1], Stage::kConfirmed);
  EXPECT_EQ(stages[2], Stage::kRefused);
}

TEST_F(ReleasePushTest, a_share_is_of_all_nodes_that_were_named) {
  nodes[2].refusal = "unknown key";
  run("67%");
  EXPECT_EQ(count(ReleaseOrder::kActivate), 0u);
  EXPECT_TRUE(held_back);
  run("66%");
  EXPECT_EQ(last(ReleaseOrder::kActivate), (Nodes{1, 3}));
}

TEST_F(ReleasePushTest, with_no_it_ends_well_when_all_are_ready) {
  run("no");
  EXPECT_TRUE(complete);
  EXPECT_FALSE(held_back);
  EXPECT_EQ(count(ReleaseOrder::kActivate), 0u);
  EXPECT_EQ(stages[1], Stage::kReady);
}

TEST_F(ReleasePushTest, nodes_that_were_to_come_and_did_not_count_as_not_ready) {
  auto more = settings("all");
  more.expected_nodes = 4;
  ReleasePush push(more, {});
  run(push);
  EXPECT_FALSE(complete);
  EXPECT_TRUE(held_back);
}

TEST_F(ReleasePushTest, a_node_that_was_not_reached_gets_no_order) {
  nodes[3].reached = false;
  run("those");
  EXPECT_EQ(stages[3], Stage::kUnreached);
  EXPECT_EQ(problems[3], "was never heard");
  EXPECT_EQ(last(ReleaseOrder::kCheck), (Nodes{1, 2}));
  EXPECT_EQ(stages[1], Stage::kConfirmed);
}

TEST_F(ReleasePushTest, a_silent_node_is_asked_again_and_given_up) {
  nodes[2].deaf = true;
  run("those");
  EXPECT_EQ(stages[2], Stage::kSilent);
  EXPECT_EQ(problems[2], "no answer");
  EXPECT_EQ(now, kStart + kSilence);
  EXPECT_EQ(count(ReleaseOrder::kState), kSilence / ReleasePush::kAskAgain - 1);
  EXPECT_EQ(last(ReleaseOrder::kState), Nodes{2});
}

TEST_F(ReleasePushTest, a_node_that_works_for_long_and_says_so_is_waited_for) {
  int answers = 0;
  nodes[2].before_answer = [&](const ReleaseQuestion& question) {
    nodes[2].deaf = true;  // the answer is made here
    answers += question.order == ReleaseOrder::kState;
    if (answers < 100) return;
    nodes[2].deaf = false;
    if (answers == 100) nodes[2].check(question.release);
  };
  ReleasePush push(settings("all"), {1, 2, 3});
  for (int steps = 0; steps < 2000 && push.phase() != Phase::kEnded; ++steps) {
    const ReleasePush::Step step = push.next(now);
    if (step.action == Action::kEnd) break;
    take(push, step);
    if (step.action != Action::kOrder || answers >= 100) continue;
    ReleaseState working = nodes[2].state;
    working.number = step.question.number;
    working.phase = ReleasePhase::kChecking;
    push.on_state(2, working, now);
  }
  finish(push);
  EXPECT_TRUE(complete);
  EXPECT_GT(now, kStart + 5 * kSilence);
}

TEST_F(ReleasePushTest, a_file_that_came_damaged_is_fetched_again_alone) {
  nodes[2].damaged = {4};
  run("all");
  EXPECT_TRUE(complete);
  ASSERT_EQ(fetches.size(), 2u);
  EXPECT_EQ(fetches[1].nodes, Nodes{2});
  EXPECT_EQ(fetches[1].files, Files{4});
  EXPECT_EQ(now, kStart + ReleasePush::kSettle);
}

TEST_F(ReleasePushTest, a_file_that_never_matches_ends_the_node_after_three_rounds) {
  nodes[2].before_answer = [&](const ReleaseQuestion&) { nodes[2].missing.insert(4); };
  run("those");
  EXPECT_EQ(fetches.size(), ReleasePush::kMaxRounds);
  EXPECT_EQ(stages[2], Stage::kFailed);
  EXPECT_EQ(problems[2], "1 file is missing after 3 attempts");
  EXPECT_EQ(stages[1], Stage::kConfirmed);
}

TEST_F(ReleasePushTest, what_a_node_still_checks_is_not_fetched_again) {
  ReleasePush push(settings("all"), {1});
  nodes.erase(2);
  nodes.erase(3);
  nodes[1].damaged = {3, 4, 5};  // are told as missing at first
  bool told = false;
  for (int steps = 0; steps < 1000; ++steps) {
    const ReleasePush::Step step = push.next(now);
    if (step.action == Action::kEnd) break;
    take(push, step);
    if (push.phase() != Phase::kVerify || step.action != Action::kWait || std::exchange(told, true))
      continue;
    nodes[1].missing.clear();
    nodes[1].show(ReleasePhase::kReady);
    push.on_state(1, nodes[1].state, now - 1);
  }
  finish(push);
  EXPECT_TRUE(complete);
  EXPECT_EQ(fetches.size(), 1u);
}

TEST_F(ReleasePushTest, a_node_that_goes_back_to_work_has_not_said_it_all) {
  ReleasePush push(settings("all"), {1});
  nodes.erase(2);
  nodes.erase(3);
  while (push.phase() != Phase::kVerify) take(push, push.next(now));
  const auto verify = push.next(now);
  ReleaseState state = nodes[1].state;
  state.number = verify.question.number;
  state.phase = ReleasePhase::kFetching;
  state.missing = 2;
  push.on_state(1, state, now);
  state.phase = ReleasePhase::kChecking;
  push.on_state(1, state, now + 1);
  now += ReleasePush::kSettle + 1;
  EXPECT_EQ(push.next(now).action, Action::kWait);
  EXPECT_EQ(push.phase(), Phase::kVerify);
}

TEST_F(ReleasePushTest, a_node_that_does_not_name_its_files_gets_all) {
  ReleasePush push(settings("all"), {1});
  (void)push.next(now);
  push.described({{1, ""}});
  const auto check = push.next(now);
  ReleaseState state = nodes[1].state;
  state.number = check.question.number;
  state.candidate = release(7);
  state.phase = ReleasePhase::kFetching;
  state.missing = 1;
  push.on_state(1, state, now);
  EXPECT_EQ(push.next(now).files.size(), kFiles);
}

TEST_F(ReleasePushTest, an_order_that_was_lost_is_given_again) {
  nodes[3].deaf_to_orders = 1;
  nodes[2].before_answer = [&](const ReleaseQuestion& question) {
    if (question.order == ReleaseOrder::kActivate)
      nodes[2].deaf_to_orders = count(question.order) == 1;
  };
  run("all");
  EXPECT_TRUE(complete);
  EXPECT_EQ(last(ReleaseOrder::kCheck), Nodes{3});
  EXPECT_EQ(last(ReleaseOrder::kActivate), Nodes{2});
}

TEST_F(ReleasePushTest, a_node_that_answers_and_does_nothing_fails) {
  nodes[2].deaf_to_orders = 1000;
  run("those");
  EXPECT_EQ(stages[2], Stage::kFailed);
  EXPECT_EQ(count(ReleaseOrder::kCheck), 1 + ReleasePush::kMaxOrders - 1);
  EXPECT_EQ(stages[1], Stage::kConfirmed);
}

TEST_F(ReleasePushTest, a_release_that_fails_on_a_node_is_reported_with_its_reason) {
  nodes[2].healthy = false;
  run("all");
  EXPECT_FALSE(complete);
  EXPECT_EQ(stages[2], Stage::kFailed);
  EXPECT_EQ(problems[2], "health command: exit status 1");
  EXPECT_EQ(stages[1], Stage::kConfirmed);
}

TEST_F(ReleasePushTest, an_answer_to_an_earlier_order_decides_nothing) {
  ReleasePush push(settings("all"), {1});
  (void)push.next(now);
  push.described({{1, ""}});
  const auto check = push.next(now);
  ReleaseState old = nodes[1].state;
  old.number = check.question.number - 1;
  old.phase = ReleasePhase::kRefused;
  push.on_state(1, old, now);
  EXPECT_EQ(push.next(now).action, Action::kWait);
  old.location = 2;
  old.number = check.question.number;
  push.on_state(1, old, now);
  EXPECT_EQ(push.next(now).action, Action::kWait);
}

// --- Activation later ---

class ReleaseActivation : public ReleasePushTest {
 protected:
  ReleaseActivation() {
    for (auto& [address, node] : nodes) {
      node.missing.clear();
      node.state.candidate = release(7);
      node.show(ReleasePhase::kReady);
    }
  }
  void activate(const std::string& policy) {
    auto later = settings(policy);
    later.present = true;
    ReleasePush push(later, {1, 2, 3});
    run(push);
  }
};

TEST_F(ReleaseActivation, nodes_that_are_ready_switch_without_any_push) {
  activate("all");
  EXPECT_TRUE(complete);
  EXPECT_TRUE(fetches.empty());
  EXPECT_EQ(count(ReleaseOrder::kCheck), 0u);
}

TEST_F(ReleaseActivation, a_node_with_another_release_or_parts_of_this_keeps_all_from_switching) {
  nodes[1].state.candidate = release(8);
  nodes[2].missing = {1, 2};
  nodes[2].show(ReleasePhase::kFetching);
  activate("all");
  EXPECT_TRUE(held_back);
  EXPECT_EQ(count(ReleaseOrder::kActivate), 0u);
  EXPECT_EQ(problems[1], "does not have this release");
  EXPECT_EQ(problems[2], "2 files are missing");
  activate("those");
  EXPECT_EQ(last(ReleaseOrder::kActivate), Nodes{3});
}

TEST_F(ReleaseActivation, an_order_that_was_refused_for_another_release_is_no_hindrance) {
  nodes[1].state.phase = ReleasePhase::kRefused;
  nodes[1].state.problem = "version 5 is below the installed 6";
  nodes[2].state.phase = ReleasePhase::kRefused;
  nodes[2].state.missing = 1;
  nodes[2].state.problem = "came damaged, 3 times";
  activate("those");
  EXPECT_EQ(stages[1], Stage::kConfirmed);
  EXPECT_EQ(stages[2], Stage::kRefused);
  EXPECT_EQ(problems[2], "came damaged, 3 times");
}

// --- Policies ---

TEST(ActivationPolicy, is_read_and_written) {
  for (const char* text : {"all", "those", "no", "90%"})
    EXPECT_EQ(policy_text(parse_policy(text)), text);
  EXPECT_EQ(parse_policy("50").percent, 50u);
  for (const char* text : {"", "0%", "101%", "-1", "1.5%", "%", "most", "9 %"})
    EXPECT_ANY_THROW((void)parse_policy(text)) << text;
}

TEST(ActivationPolicy, nobody_is_switched_when_nobody_is_ready) {
  for (const char* text : {"all", "those", "1%"})
    EXPECT_FALSE(parse_policy(text).allows(0, 0)) << text;
}

}  // namespace
}  // namespace pkgdist::lead_program
