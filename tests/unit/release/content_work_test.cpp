// What a node answers when it is asked to compare contents; the lead is a function of the test.
#include "content_work.h"

#include "push_manifest.h"
#include "release_signer.h"
#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;
using pkgdist::cli::NamedText;
using pkgdist::cli::NodeAnswer;
using pkgdist::cli::NodeQuestion;

namespace {

using Names = std::vector<std::string>;
constexpr size_t kTextBytes = 36'000;
constexpr uint64_t kFileBytes = 1 << 20;

class ContentWork : public testing::Test {
 protected:
  ContentWork() {
    for (const char* name : {"a", "d/b", "d/c"}) tree_.write(name, name);
    question_.kind = NodeQuestion::Kind::kCompare;
    question_.number = 7;
    question_.location = 3;
    const auto entries = hash_names(tree_.path(), {"a", "d/b", "d/c"}).entries;
    question_.manifest = push_manifests(entries, kTextBytes, kFileBytes)[0].text;
  }
  NodeAnswer compare(const std::vector<PublicKey>& keys = {}) {
    return pkgdist::node_program::compare_contents(tree_.path(), question_, keys,
                                                   [this](uint32_t location, const Names& names) {
                                                     EXPECT_EQ(location, 3u);
                                                     asked_.push_back(names);
                                                     for (const std::string& name : names)
                                                       receive(name);
                                                     return troubles_;
                                                   });
  }

  void receive(const std::string& name) {
    const auto wrong = wrong_.find(name);
    if (wrong == wrong_.end())
      tree_.write(name, name);
    else if (wrong->second-- == 1)
      wrong_.erase(wrong);
  }

  const TempTree tree_;
  NodeQuestion question_;
  std::vector<Names> asked_;
  std::map<std::string, unsigned> wrong_;  // so many times they come as they are
  std::map<std::string, std::string> troubles_;
};

TEST_F(ContentWork, nothing_is_asked_for_when_everything_agrees) {
  const NodeAnswer answer = compare();
  EXPECT_EQ(answer.number, 7u);
  EXPECT_EQ(answer.states, Names{"done"});
  EXPECT_TRUE(answer.names.empty());
  EXPECT_TRUE(answer.problems.empty());
  EXPECT_TRUE(asked_.empty());
}

TEST_F(ContentWork, what_differs_is_asked_for_and_nothing_else) {
  tree_.write("d/b", "d/x");
  tree_.write("a", "");
  const NodeAnswer answer = compare();
  EXPECT_EQ(asked_, (std::vector<Names>{{"a", "d/b"}}));
  EXPECT_EQ(answer.states, Names{"done"});
  EXPECT_EQ(answer.names,
            (std::vector<NamedText>{{"a", "received again"}, {"d/b", "received again"}}));
  EXPECT_TRUE(answer.problems.empty());
}

TEST_F(ContentWork, what_comes_wrong_is_asked_for_three_times_and_then_named) {
  tree_.write("a", "x");
  tree_.write("d/c", "d/x");
  wrong_["d/c"] = 3;
  const NodeAnswer answer = compare();
  EXPECT_EQ(asked_, (std::vector<Names>{{"a", "d/c"}, {"d/c"}, {"d/c"}}));
  EXPECT_EQ(answer.states, Names{"done"});
  EXPECT_EQ(answer.names, (std::vector<NamedText>{{"a", "received again"}}));
  EXPECT_EQ(answer.problems,
            (std::vector<NamedText>{{"d/c", "it has another content, received again 3 times"}}));
}

TEST_F(ContentWork, what_comes_right_the_third_time_is_right) {
  tree_.write("a", "x");
  tree_.write("d/b", "d/x");
  wrong_ = {{"a", 1}, {"d/b", 2}};
  const NodeAnswer answer = compare();
  EXPECT_EQ(asked_, (std::vector<Names>{{"a", "d/b"}, {"a", "d/b"}, {"d/b"}}));
  EXPECT_EQ(answer.names,
            (std::vector<NamedText>{{"a", "received again"}, {"d/b", "received again"}}));
  EXPECT_TRUE(answer.problems.empty());
}

TEST_F(ContentWork, why_it_did_not_come_again_is_told_without_asking_once_more) {
  tree_.write("a", "x");
  for (const char* name : {"d/b", "d/c"}) tree_.write(name, "d/x");
  wrong_ = {{"a", 3}, {"d/c", 1}};
  troubles_ = {
      {"b", "of no question"}, {"d/b", "it came all the same"}, {"d/c", "the disk is full"}};
  EXPECT_EQ(compare().problems,
            (std::vector<NamedText>{
                {"a", "it has another content, received again 3 times"},
                {"d/c", "it has another content; receiving it again: the disk is full"}}));
  EXPECT_EQ(asked_, (std::vector<Names>{{"a", "d/b", "d/c"}, {"a"}, {"a"}}));
}

TEST_F(ContentWork, with_keys_only_what_one_of_them_signed_for_the_location_counts) {
  const ReleaseSigner own(1), other(2);
  const auto text_of = [&](const std::string& signature) {
    question_.signature = signature;
    const NodeAnswer answer = compare({own.public_key()});
    EXPECT_EQ(answer.states.size(), 1u);
    return answer.states.at(0);
  };
  EXPECT_EQ(text_of(own.sign(question_.manifest, push_comment(3))), "done");
  tree_.write("a", "x");
  EXPECT_NE(text_of(""), "done");
  EXPECT_NE(text_of(own.sign(question_.manifest)), "done");  // as a release
  EXPECT_NE(text_of(own.sign(question_.manifest, push_comment(2))), "done");
  EXPECT_NE(text_of(other.sign(question_.manifest, push_comment(3))), "done");
  EXPECT_NE(text_of(own.sign(question_.manifest + "x", push_comment(3))), "done");
  EXPECT_TRUE(asked_.empty());
}

TEST_F(ContentWork, a_question_that_makes_no_sense_is_refused_in_words) {
  for (const std::string text :
       {"", "nonsense\n", "pkgdist-release 1 name=push version=1 leaf=1\n"}) {
    question_.manifest = text;
    const NodeAnswer answer = compare();
    ASSERT_EQ(answer.states.size(), 1u);
    EXPECT_NE(answer.states[0], "done");
  }
  EXPECT_TRUE(asked_.empty());
}

}  // namespace
