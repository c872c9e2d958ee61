// How a lead and the nodes of a release speak.
#include "release_messages.h"

#include <gtest/gtest.h>

namespace pkgdist::cli {
namespace {

const std::string kDigest(64, 'a');

std::vector<uint8_t> bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

ReleaseQuestion sent_order(ReleaseOrder order) {
  ReleaseQuestion question;
  question.number = 3;
  question.location = 1;
  question.name = "base";
  question.release = {7, kDigest};
  question.order = order;
  return question;
}

TEST(ReleaseOrder, is_one_line_that_people_can_read) {
  EXPECT_EQ(release_order_text(sent_order(ReleaseOrder::kCheck)),
            "pkgdist-release-order 1 {\"number\":3,\"location\":1,\"name\":\"base\",\"version\":7,"
            "\"manifest\":\"" +
                kDigest + "\",\"order\":\"check\"}\n");
}

TEST(ReleaseOrder, arrives_as_it_was_sent) {
  for (const ReleaseOrder order :
       {ReleaseOrder::kCheck, ReleaseOrder::kFetched, ReleaseOrder::kActivate}) {
    const auto found = parse_release_order(bytes(release_order_text(sent_order(order))));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->number, 3u);
    EXPECT_EQ(found->location, 1u);
    EXPECT_EQ(found->name, "base");
    EXPECT_EQ(found->release, (ReleaseId{7, kDigest}));
    EXPECT_EQ(found->order, order);
  }
}

TEST(ReleaseOrder, that_concerns_no_release_need_not_name_one) {
  for (const ReleaseOrder order : {ReleaseOrder::kState, ReleaseOrder::kVerify}) {
    ReleaseQuestion question = sent_order(order);
    question.release = {};
    const auto found = parse_release_order(bytes(release_order_text(question)));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->order, order);
    EXPECT_EQ(found->release, ReleaseId());
  }
}

TEST(ReleaseOrder, without_the_digest_of_a_manifest_is_none) {
  for (const std::string& digest : {std::string(), std::string(63, 'a'), std::string(65, 'a'),
                                    std::string(64, 'A'), std::string(64, '/')}) {
    ReleaseQuestion question = sent_order(ReleaseOrder::kActivate);
    question.release.manifest = digest;
    EXPECT_FALSE(parse_release_order(bytes(release_order_text(question)))) << digest;
  }
}

TEST(ReleaseOrder, that_makes_no_sense_is_another_message) {
  for (
      const std::string text :
      {"", "hello", "pkgdist-release-order 1 ", "pkgdist-release-order 1 {}\n",
       "pkgdist-release-order 2 {\"number\":1,\"location\":1,\"name\":\"a\",\"order\":\"state\"}\n",
       "pkgdist-release-order 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"order\":\"state\"}",
       "pkgdist-release-order 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"order\":\"erase\"}\n",
       "pkgdist-release-order 1 "
       "{\"number\":-1,\"location\":1,\"name\":\"a\",\"order\":\"state\"}\n",
       "pkgdist-release-order 1 "
       "{\"number\":1.5,\"location\":1,\"name\":\"a\",\"order\":\"state\"}\n",
       "pkgdist-release-order 1 "
       "{\"number\":4294967296,\"location\":1,\"name\":\"a\",\"order\":\"state\"}\n",
       "pkgdist-release-order 1 {\"number\":1,\"location\":1,\"name\":7,\"order\":\"state\"}\n"})
    EXPECT_FALSE(parse_release_order(bytes(text))) << text;
}

TEST(ReleaseState, arrives_as_it_was_sent) {
  ReleaseState state;
  state.number = 3;
  state.location = 1;
  state.name = "base";
  state.phase = ReleasePhase::kFetching;
  state.current = ReleaseId{6, std::string(64, 'b')};
  state.candidate = ReleaseId{7, kDigest};
  state.missing = 2;
  state.files = {0x81, 0x00};
  state.problem = "bad \"content\"";
  state.drifted = 1;
  state.drift = {"etc/settings"};
  state.serial = 17;
  const auto found = parse_release_state(bytes(release_state_text(state)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->number, 3u);
  EXPECT_EQ(found->location, 1u);
  EXPECT_EQ(found->name, "base");
  EXPECT_EQ(found->phase, ReleasePhase::kFetching);
  EXPECT_EQ(found->current, state.current);
  EXPECT_EQ(found->candidate, state.candidate);
  EXPECT_EQ(found->missing, 2u);
  EXPECT_EQ(found->files, state.files);
  EXPECT_EQ(found->problem, state.problem);
  EXPECT_EQ(found->drifted, 1u);
  EXPECT_EQ(found->drift, state.drift);
  EXPECT_EQ(found->serial, 17u);
}

TEST(ReleaseState, of_a_node_that_has_nothing_has_nothing) {
  const auto found = parse_release_state(bytes(release_state_text(ReleaseState())));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->phase, ReleasePhase::kIdle);
  EXPECT_FALSE(found->current);
  EXPECT_FALSE(found->candidate);
  EXPECT_TRUE(found->files.empty());
  EXPECT_FALSE(found->drifted);
}

TEST(ReleaseState, after_a_verification_that_found_nothing_says_so) {
  ReleaseState state;
  state.drifted = 0;
  const auto found = parse_release_state(bytes(release_state_text(state)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->drifted, 0u);
}

TEST(ReleaseState, has_every_phase) {
  for (const ReleasePhase phase :
       {ReleasePhase::kIdle, ReleasePhase::kChecking, ReleasePhase::kFetching, ReleasePhase::kReady,
        ReleasePhase::kActivating, ReleasePhase::kConfirmed, ReleasePhase::kVerifying,
        ReleasePhase::kRefused, ReleasePhase::kFailed}) {
    ReleaseState state;
    state.phase = phase;
    const auto found = parse_release_state(bytes(release_state_text(state)));
    ASSERT_TRUE(found) << phase_name(phase);
    EXPECT_EQ(found->phase, phase);
  }
  EXPECT_STREQ(phase_name(ReleasePhase::kFetching), "fetching");
  EXPECT_STREQ(phase_name(ReleasePhase::kFailed), "failed");
}

TEST(ReleaseState, keeps_long_texts_and_lists_short) {
  ReleaseState state;
  state.name = std::string(10'000, 'n');
  state.problem = std::string(10'000, 'p');
  state.drifted = 1000;
  state.drift = std::vector<std::string>(1000, std::string(10'000, 'd'));
  const std::string text = release_state_text(state);
  const auto found = parse_release_state(bytes(text));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name.size(), 256u);
  EXPECT_EQ(found->problem.size(), 256u);
  EXPECT_EQ(found->drifted, 1000u);
  EXPECT_EQ(found->drift.size(), 20u);
  EXPECT_EQ(found->drift.front().size(), 256u);
}

TEST(ReleaseState, has_a_bit_for_each_file_of_the_largest_manifest_and_not_for_more) {
  ReleaseState state;
  state.files.assign(125'000, 0xff);
  EXPECT_TRUE(parse_release_state(bytes(release_state_text(state))));
  state.files.push_back(1);
  EXPECT_FALSE(parse_release_state(bytes(release_state_text(state))));
}

TEST(ReleaseState, of_a_path_that_is_no_text_is_still_one) {
  ReleaseState state;
  state.problem = "\xff\xfe";
  state.drifted = 1;
  state.drift = {"a/\xff"};
  EXPECT_TRUE(parse_release_state(bytes(release_state_text(state))));
}

TEST(ReleaseState, that_makes_no_sense_is_another_message) {
  for (const char* text :
       {"", "pkgdist-release-state 1 {}\n",
        "pkgdist-release-state 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"state\":\"lost\"}\n",
        "pkgdist-release-state 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"state\":\"idle\","
        "\"files\":\"!\"}\n",
        "pkgdist-release-state 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"state\":\"idle\","
        "\"current\":{\"version\":1}}\n",
        "pkgdist-release-state 1 {\"number\":1,\"location\":1,\"name\":\"a\",\"state\":\"idle\","
        "\"drift\":7}\n"})
    EXPECT_FALSE(parse_release_state(bytes(text))) << text;
}

}  // namespace
}  // namespace pkgdist::cli
