// What the programs of leads and nodes say to each other.
#include "introduction.h"

#include <gtest/gtest.h>

namespace pkgdist::cli {
namespace {

std::vector<uint8_t> bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST(Introduction, arrives_as_it_was_sent) {
  Introduction own;
  own.pid = 4711;
  own.host = "web-3";
  own.version = "0.1.0";
  own.answers = own.trees = own.compares = true;
  own.complete_seconds = 2.5;
  own.places = {{1, false, 123'456'789'012, "base"}, {3, true, std::nullopt, std::nullopt}};
  const auto found = parse_introduction(bytes(introduction_text(own)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->pid, 4711u);
  EXPECT_EQ(found->host, "web-3");
  EXPECT_EQ(found->version, "0.1.0");
  EXPECT_TRUE(found->answers);
  EXPECT_TRUE(found->trees);
  EXPECT_TRUE(found->compares);
  EXPECT_EQ(found->complete_seconds, 2.5);
  ASSERT_EQ(found->places.size(), 2u);
  EXPECT_EQ(found->places[0].free_bytes, 123'456'789'012u);
  EXPECT_EQ(found->places[0].releases, "base");
  EXPECT_FALSE(found->places[1].free_bytes);
  EXPECT_FALSE(found->places[1].releases);
  EXPECT_TRUE(found->has(3));
  EXPECT_FALSE(found->has(2));
}

TEST(Introduction, of_a_host_whose_name_is_no_text_is_still_one) {
  Introduction own;
  own.host = "\xff\xfe";
  EXPECT_TRUE(parse_introduction(bytes(introduction_text(own))));
}

TEST(Introduction, that_makes_no_sense_is_another_message) {
  for (const char* text :
       {"", "hello", "pkgdist-introduction 1 ", "pkgdist-introduction 1 {}\n",
        "pkgdist-introduction 2 {\"pid\":1,\"host\":\"a\",\"version\":\"b\",\"locations\":[]}\n",
        "pkgdist-introduction 1 {\"pid\":-1,\"host\":7,\"version\":\"b\",\"locations\":[]}\n",
        "pkgdist-introduction 1 [1]\n", "pkgdist-introduction 1 {\"pid\":1,\"host\":\"a\"}"})
    EXPECT_FALSE(parse_introduction(bytes(text))) << text;
}

TEST(Introduction, keeps_long_texts_and_lists_short) {
  Introduction own;
  own.host = std::string(10'000, 'x');
  for (uint32_t i = 0; i < 100; ++i) own.places.push_back({i, false, 1, std::nullopt});
  const auto found = parse_introduction(bytes(introduction_text(own)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->host.size(), 256u);
  EXPECT_EQ(found->places.size(), 6u);
}

TEST(NodeQuestion, carries_names_that_are_no_text) {
  NodeQuestion asked;
  asked.number = 3;
  asked.kind = NodeQuestion::Kind::kRemove;
  asked.location = 2;
  asked.names = {"a", "\xff\n\"", ""};
  const auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->number, 3u);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kRemove);
  EXPECT_EQ(found->location, 2u);
  EXPECT_EQ(found->names, asked.names);
}

TEST(NodeQuestion, about_a_transaction_names_it) {
  NodeQuestion asked;
  asked.kind = NodeQuestion::Kind::kTransaction;
  asked.transaction = 0x8000'0007;
  const auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kTransaction);
  EXPECT_EQ(found->transaction, 0x8000'0007u);
}

TEST(NodeQuestion, about_directories_has_their_modes_and_times) {
  NodeQuestion asked;
  asked.kind = NodeQuestion::Kind::kDirectories;
  asked.location = 2;
  asked.directories = {{"d/\xff", 02755, -3}, {"d", 0700, 1'700'000'000}};
  const auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kDirectories);
  EXPECT_EQ(found->location, 2u);
  EXPECT_EQ(found->directories, asked.directories);
}

TEST(NodeQuestion, for_a_list_has_the_known_names) {
  NodeQuestion asked;
  asked.kind = NodeQuestion::Kind::kList;
  asked.location = 1;
  asked.deep = true;
  asked.known = {{".", "", "m", {"a", "m"}}, {"d", "\xfe", "", {}}};
  const auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kList);
  EXPECT_TRUE(found->deep);
  EXPECT_EQ(found->known, asked.known);
}

TEST(NodeQuestion, that_compares_contents_has_the_manifest_and_a_signature_when_there_is_one) {
  NodeQuestion asked;
  asked.kind = NodeQuestion::Kind::kCompare;
  asked.location = 2;
  asked.manifest = "names may have any byte: \xff\n";
  auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kCompare);
  EXPECT_EQ(found->location, 2u);
  EXPECT_EQ(found->manifest, asked.manifest);
  EXPECT_EQ(found->signature, "");
  asked.signature = "of somebody\n";
  found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->signature, asked.signature);
}

TEST(NodeQuestion, about_the_end_of_a_push_says_how_it_ended) {
  NodeQuestion asked;
  asked.kind = NodeQuestion::Kind::kComplete;
  asked.location = 3;
  asked.transaction = 0x8000'0001;
  asked.status = 1;
  const auto found = parse_question(bytes(question_text(asked)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->kind, NodeQuestion::Kind::kComplete);
  EXPECT_EQ(found->transaction, 0x8000'0001u);
  EXPECT_EQ(found->status, 1u);
}

TEST(NodeQuestion, about_something_unknown_is_another_message) {
  EXPECT_FALSE(parse_question(bytes("pkgdist-question 1 {\"number\":1,\"weather\":{}}\n")));
}

TEST(NodeAnswer, comes_in_pieces) {
  const auto found = parse_answer(bytes(
      answer_text({7, {kStateDone}, {{"\xff", kStateFile}}, {{"d", "Permission denied"}}, 1, 3})));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->names, (std::vector<NamedText>{{"\xff", "file"}}));
  EXPECT_EQ(found->problems, (std::vector<NamedText>{{"d", "Permission denied"}}));
  EXPECT_EQ(found->piece, 1u);
  EXPECT_EQ(found->pieces, 3u);
}

TEST(NodeAnswer, may_be_that_the_question_is_worked_on) {
  const auto found = parse_answer(bytes(working_text(7)));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->number, 7u);
  EXPECT_TRUE(found->working);
  EXPECT_TRUE(found->states.empty());
  EXPECT_FALSE(parse_answer(bytes(answer_text({7, {kStateDone}})))->working);
}

TEST(NodeAnswer, arrives_as_it_was_sent) {
  const auto found = parse_answer(bytes(answer_text({7, {kStateFile, "Permission denied"}})));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->number, 7u);
  EXPECT_EQ(found->states, (std::vector<std::string>{"file", "Permission denied"}));
  EXPECT_FALSE(parse_answer(bytes("pkgdist-answer 1 {\"number\":7,\"states\":[1]}\n")));
  EXPECT_FALSE(parse_question(bytes(answer_text({7, {}}))));
}

TEST(Unset, names_the_location) {
  EXPECT_EQ(parse_unset(bytes(unset_text(4))), 4u);
  EXPECT_FALSE(parse_unset(bytes("pkgdist-unset 1 {\"location\":\"x\"}\n")));
}

}  // namespace
}  // namespace pkgdist::cli
