#include "push_selection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>

namespace pkgdist::lead_program {
namespace {

using Names = std::vector<std::string>;

TEST(NameFilter, a_pattern_without_a_slash_is_about_every_component) {
  const NameFilter filter{{"*.o", "cache"}, {}};
  EXPECT_FALSE(filter.takes("a.o"));
  EXPECT_FALSE(filter.takes("d/e/a.o"));
  EXPECT_FALSE(filter.takes("d/cache/file"));
  EXPECT_TRUE(filter.takes("a.o2"));
  EXPECT_TRUE(filter.takes("caches/file"));
}

TEST(NameFilter, a_pattern_with_a_slash_is_about_the_whole_name_or_a_directory_of_it) {
  const NameFilter filter{{"d/*.o", "/top", "deep/e/"}, {}};
  EXPECT_FALSE(filter.takes("d/a.o"));
  EXPECT_TRUE(filter.takes("d/e/a.o"));
  EXPECT_TRUE(filter.takes("x/d/a.o"));
  EXPECT_FALSE(filter.takes("top/file"));
  EXPECT_TRUE(filter.takes("x/top"));
  EXPECT_FALSE(filter.takes("deep/e/file"));
}

TEST(NameFilter, what_is_included_comes_back) {
  const NameFilter filter{{"*.log"}, {"keep.log"}};
  EXPECT_FALSE(filter.takes("d/a.log"));
  EXPECT_TRUE(filter.takes("d/keep.log"));
}

TEST(NameFilter, a_tree_loses_names_with_their_directories_and_complaints) {
  lead::FileTree tree;
  for (const char* name : {"a", "b/one.o", "c/d/two", "c/e/three.o"})
    tree.files.push_back({name, 1});
  tree.directories = {"b", "c", "c/d", "c/e"};
  tree.left_out = {{"huge.o", "too large"}, {"huge", "too large"}};
  select(tree, {{"*.o"}, {}});
  Names names;
  for (const lead::PushFile& file : tree.files) names.push_back(file.name);
  EXPECT_EQ(names, (Names{"a", "c/d/two"}));
  EXPECT_EQ(tree.directories, (Names{"c", "c/d"}));
  ASSERT_EQ(tree.left_out.size(), 1u);
  EXPECT_EQ(tree.left_out[0].name, "huge");
}

TEST(NameFilter, an_empty_directory_stays_unless_it_is_left_out) {
  lead::FileTree tree;
  tree.walked = {{".", 0755, 1}, {"cache", 0755, 1}, {"empty", 0755, 1}};
  tree.directories = {"cache", "empty"};
  select(tree, {{"cache"}, {}});
  EXPECT_EQ(tree.directories, (Names{"empty"}));
  ASSERT_EQ(tree.walked.size(), 2u);
  EXPECT_EQ(tree.walked[1].name, "empty");
}

TEST(NamesFrom, a_file_has_one_name_in_a_line) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("names" + std::to_string(::getpid()))).string();
  std::ofstream(path) << "one\n\ntwo words\nlast";
  EXPECT_EQ(names_from(path), (Names{"one", "two words", "last"}));
  std::filesystem::remove(path);
  EXPECT_THROW(names_from(path), CLI::ValidationError);
}

}  // namespace
}  // namespace pkgdist::lead_program
