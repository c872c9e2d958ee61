// Questions about the directories of a push, and what a mirror removes.
#include "push_tree.h"

#include <gtest/gtest.h>

#include <set>

namespace pkgdist::lead_program {
namespace {

using Names = std::vector<std::string>;

PushTree tree_of(const Names& directories) {
  PushTree tree;
  for (const std::string& name : directories) tree.directories.push_back({name, 0755, 1});
  return tree;
}

std::vector<cli::NamedText> listed(const Names& names) {
  std::vector<cli::NamedText> entries;
  for (const std::string& name : names) entries.push_back({name, "file"});
  return entries;
}

TEST(DirectoryQuestions, what_is_inside_comes_first_and_the_location_is_left_alone) {
  const auto questions = directory_questions(tree_of({".", "a", "a-b", "a/b", "a/b/c"}), 3);
  ASSERT_EQ(questions.size(), 1u);
  Names names;
  for (const cli::TreeDirectory& one : questions[0].directories) names.push_back(one.name);
  EXPECT_EQ(names, (Names{"a/b/c", "a/b", "a-b", "a"}));
  EXPECT_EQ(questions[0].location, 3u);
  EXPECT_TRUE(directory_questions(tree_of({"."}), 1).empty());
}

TEST(DirectoryQuestions, a_long_list_goes_in_several) {
  Names names;
  for (int i = 10'000; i < 15'000; ++i) names.push_back("directory " + std::to_string(i));
  const auto questions = directory_questions(tree_of(names), 1);
  EXPECT_GT(questions.size(), 3u);
  size_t count = 0;
  for (const cli::NodeQuestion& question : questions) {
    count += question.directories.size();
    EXPECT_LT(cli::question_text(question).size(), kQuestionBytes + 1000);
  }
  EXPECT_EQ(count, names.size());
}

TEST(ListQuestions, have_what_the_lead_has_in_each_directory_that_was_walked) {
  PushTree tree = tree_of({"d", "d/e"});
  tree.others = {"d/pipe"};
  const auto questions =
      list_questions(tree, {{"d/file", 1}, {"d/e/file", 1}, {"above", 1}, {"x/y", 1}}, 1);
  ASSERT_EQ(questions.size(), 1u);
  EXPECT_FALSE(questions[0].deep);
  EXPECT_EQ(questions[0].known, (std::vector<cli::KnownNames>{{"d", "", "", {"e", "file", "pipe"}},
                                                              {"d/e", "", "", {"file"}}}));
}

TEST(ListQuestions, ask_for_what_is_in_other_directories_where_names_are_protected) {
  PushTree tree = tree_of({"."});
  tree.filter.exclude = {"*.log"};
  const auto questions = list_questions(tree, {}, 1);
  ASSERT_EQ(questions.size(), 1u);
  EXPECT_TRUE(questions[0].deep);
  EXPECT_EQ(questions[0].known, (std::vector<cli::KnownNames>{{".", "", "", {}}}));
}

// Every name falls into the range of one part, and that part knows it.
TEST(ListQuestions, of_a_large_directory_its_parts_leave_nothing_between_them) {
  for (const size_t padding : {size_t{1}, size_t{7}, size_t{200}}) {
    std::vector<lead::PushFile> files;
    for (int i = 10'000; i < 14'000; ++i)
      files.push_back({"d/" + std::to_string(i) + std::string(padding, 'x'), 1});
    const auto questions = list_questions(tree_of({"a", "d", "z"}), files, 1);
    EXPECT_GT(questions.size(), 1u);
    std::string last;
    std::set<std::string> names;
    bool open = false;
    for (const cli::NodeQuestion& question : questions) {
      EXPECT_LT(cli::question_text(question).size(), kQuestionBytes + 1000);
      for (const cli::KnownNames& part : question.known) {
        if (part.directory != "d") continue;
        EXPECT_EQ(part.after, last);
        ASSERT_FALSE(part.names.empty());
        for (const std::string& name : part.names) {
          EXPECT_TRUE(name > part.after && (part.until.empty() || name <= part.until));
          names.insert(name);
        }
        last = part.until;
        open = part.until.empty();
      }
    }
    EXPECT_TRUE(open);
    EXPECT_EQ(names.size(), files.size());
  }
}

TEST(NamesToRemove, are_those_that_were_listed) {
  EXPECT_EQ(names_to_remove(listed({"d/old", "a"}), {}), (Names{"a", "d/old"}));
}

TEST(NamesToRemove, are_not_those_that_a_filter_protects_nor_directories_that_hold_them) {
  const NameFilter filter{{"*.log", "cache"}, {}};
  EXPECT_EQ(names_to_remove(listed({"old", "old/a.log", "old/gone", "old/sub", "old/sub/gone",
                                    "cache", "cache/x", "b.log", "older", "older/gone"}),
                            filter),
            (Names{"old/gone", "old/sub", "older"}));
}

TEST(PushTree, knows_what_the_lead_has_and_does_not_push) {
  lead::FileTree whole;
  whole.files = {{"d/a", 1}, {"d/b.log", 1}};
  whole.walked = {{"d", 0750, 9}, {"d/cache", 0755, 1}};
  whole.left_out = {{"d/huge", "too large"}};
  whole.left_out.push_back({"d/pipe", "a named pipe cannot be sent"});
  const NameFilter filter{{"*.log", "cache"}, {}};
  lead::FileTree selected = whole;
  select(selected, filter);
  const PushTree tree = push_tree(selected, whole, filter);
  EXPECT_TRUE(tree.mirror);
  EXPECT_EQ(tree.directories, (std::vector<cli::TreeDirectory>{{"d", 0750, 9}}));
  EXPECT_EQ(tree.others, (Names{"d/b.log", "d/cache", "d/huge", "d/pipe"}));
  EXPECT_FALSE(push_tree(selected, std::nullopt, filter).mirror);
}

}  // namespace
}  // namespace pkgdist::lead_program
