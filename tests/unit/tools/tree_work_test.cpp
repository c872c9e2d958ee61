// What a node's program does with the trees of pushes, in a directory of the test.
#include "tree_work.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace pkgdist::node_program {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class TreeWork : public ::testing::Test {
 protected:
  TreeWork() {
    std::string path = (fs::temp_directory_path() / "tree-work-XXXXXX").string();
    EXPECT_NE(nullptr, ::mkdtemp(path.data()));
    base_ = path;
    place_.directory = path + "/location/";
    fs::create_directories(place_.directory);
  }
  ~TreeWork() override { fs::remove_all(base_); }

  void write(const std::string& name) {
    const fs::path path = fs::path(place_.directory) / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "x";
  }
  void link(const std::string& target, const std::string& name) {
    fs::create_symlink(target, fs::path(place_.directory) / name);
  }
  struct stat status(const std::string& name) const {
    struct stat found {};
    EXPECT_EQ(0, ::lstat((place_.directory + name).c_str(), &found)) << name;
    return found;
  }
  bool exists(const std::string& name) const {
    return fs::exists(fs::symlink_status(place_.directory + name));
  }
  Names other_names(std::vector<cli::KnownNames> known, bool deep = false) {
    cli::NodeQuestion question;
    question.known = std::move(known);
    question.deep = deep;
    answer_ = list_other_names(place_, question);
    Names names;
    for (const cli::NamedText& entry : answer_.names) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    return names;
  }
  Names remove(const Names& names) {
    cli::NodeQuestion question;
    question.names = names;
    return remove_names(place_, question).states;
  }
  cli::NodeAnswer set(std::vector<cli::TreeDirectory> directories) {
    cli::NodeQuestion question;
    question.directories = std::move(directories);
    return set_directories(place_, question);
  }

  fs::path base_;
  TreePlace place_;
  cli::NodeAnswer answer_;
};

constexpr unsigned kModeBits = 07777;

TEST_F(TreeWork, directories_are_made_and_get_mode_and_time) {
  const auto answer = set({{"a/b", 0750, 111}, {"a", 0755, 222}});
  EXPECT_EQ(answer.states, (Names{cli::kStateDone}));
  EXPECT_TRUE(answer.problems.empty());
  EXPECT_EQ(status("a/b").st_mode & kModeBits, 0750u);
  EXPECT_EQ(status("a/b").st_mtime, 111);
  EXPECT_EQ(status("a").st_mtime, 222);
}

TEST_F(TreeWork, the_nodes_rule_decides_about_bits_and_its_own_stay) {
  write("d/file");
  fs::permissions(place_.directory + "d", fs::perms(02700));
  (void)set({{"d", 04777, 1}});
  EXPECT_EQ(status("d").st_mode & kModeBits, 02755u);
  place_.mode_mask = 07777;
  place_.umask = 0;
  (void)set({{"d", 01777, 1}});
  EXPECT_EQ(status("d").st_mode & kModeBits, 01777u);
}

TEST_F(TreeWork, names_that_lead_out_of_the_location_are_refused) {
  fs::create_directories(base_ / "outside");
  link("../outside", "link");
  const auto answer = set({{"../outside", 0700, 1},
                           {"link", 0700, 1},
                           {"link/in", 0700, 1},
                           {"/etc", 0700, 1},
                           {"", 0700, 1},
                           {".", 0700, 1},
                           {"a/../../outside", 0700, 1}});
  EXPECT_EQ(answer.problems.size(), 7u);
  EXPECT_TRUE(fs::is_empty(base_ / "outside"));
  EXPECT_EQ(remove({"../outside", "link/x", "/", ".", ""}).size(), 5u);
  EXPECT_TRUE(fs::exists(base_ / "outside"));
  EXPECT_TRUE(other_names({{"link", "", "", {}}}).empty());
  EXPECT_EQ(answer_.problems.size(), 1u);
  EXPECT_TRUE(other_names({{"..", "", "", {}}}).empty());
}

TEST_F(TreeWork, other_names_are_those_that_are_not_known) {
  for (const char* name : {"a", "b", "d/known", "d/other", "old/x/y"}) write(name);
  link("nowhere", "e");
  EXPECT_EQ(other_names({{".", "", "", {"a", "d"}}, {"d", "", "", {"known"}}, {"no", "", "", {}}}),
            (Names{"b", "d/other", "e", "old"}));
  EXPECT_TRUE(answer_.problems.empty());
  EXPECT_EQ(other_names({{".", "", "", {"a", "b", "d", "e"}}}, true),
            (Names{"old", "old/x", "old/x/y"}));
}

TEST_F(TreeWork, a_part_of_a_directory_is_about_the_names_of_its_range) {
  for (const char* name : {"a", "b", "c", "d"}) write(name);
  EXPECT_EQ(other_names({{".", "a", "c", {"b"}}}), (Names{"c"}));
  EXPECT_EQ(other_names({{".", "", "b", {"b"}}, {".", "b", "", {"d"}}}), (Names{"a", "c"}));
}

TEST_F(TreeWork, too_many_names_are_a_problem_and_not_a_part_of_the_truth) {
  for (int i = 0; i < 5; ++i) write("d/" + std::to_string(i));
  for (const bool deep : {false, true}) {
    cli::NodeQuestion question;
    question.known = {{deep ? "." : "d", "", "", {}}};
    question.deep = deep;
    EXPECT_EQ(list_other_names(place_, question, 3).problems.size(), 1u);
    EXPECT_TRUE(list_other_names(place_, question, 6).problems.empty());
  }
}

TEST_F(TreeWork, a_location_of_releases_is_not_listed) {
  write(".pkgdist/releases/base/file");
  write("d/other");
  EXPECT_TRUE(other_names({{".", "", "", {}}}).empty());
  EXPECT_EQ(answer_.problems.size(), 1u);
  EXPECT_EQ(other_names({{"d", "", "", {}}}), (Names{"d/other"}));
}

TEST_F(TreeWork, names_are_removed_with_what_is_in_them_and_links_as_links) {
  write("old/deep/file");
  write("file");
  fs::create_directories(base_ / "outside/kept");
  link("../outside", "link");
  link("../../outside", "old/link");
  EXPECT_EQ(remove({"old", "file", "link", "never was"}),
            (Names{cli::kStateAbsent, cli::kStateAbsent, cli::kStateAbsent, cli::kStateAbsent}));
  EXPECT_TRUE(fs::is_empty(place_.directory));
  EXPECT_TRUE(fs::exists(base_ / "outside/kept"));
}

TEST_F(TreeWork, what_is_being_received_is_neither_listed_nor_removed) {
  write("d/file.tmp");
  write("d/left.tmp");
  const int fd = ::open((place_.directory + "d/file.tmp").c_str(), O_WRONLY);
  EXPECT_EQ(other_names({{"d", "", "", {}}}), (Names{"d/left.tmp"}));
  EXPECT_EQ(remove({"d/file.tmp"}), (Names{"it is being received"}));
  EXPECT_NE(remove({"d"})[0], cli::kStateAbsent);
  EXPECT_TRUE(exists("d/file.tmp"));
  EXPECT_FALSE(exists("d/left.tmp"));
  ::close(fd);
  EXPECT_EQ(remove({"d"}), (Names{cli::kStateAbsent}));
}

TEST(PiecesOf, hold_everything_once_and_fit_into_messages) {
  cli::NodeAnswer answer{.number = 7, .states = {cli::kStateDone}};
  for (int i = 0; i < 3000; ++i) answer.names.push_back({std::to_string(i), cli::kStateFile});
  answer.problems.push_back({"d", "Permission denied"});
  const auto pieces = pieces_of(answer);
  EXPECT_GT(pieces.size(), 1u);
  size_t names = 0, problems = 0;
  for (const cli::NodeAnswer& piece : pieces) {
    EXPECT_EQ(piece.states, answer.states);
    EXPECT_EQ(piece.pieces, pieces.size());
    EXPECT_LT(cli::answer_text(piece).size(), 60'000u);
    names += piece.names.size();
    problems += piece.problems.size();
  }
  EXPECT_EQ(names, 3000u);
  EXPECT_EQ(problems, 1u);
  EXPECT_EQ(pieces_of({.number = 1, .states = {"x"}}).size(), 1u);
}

}  // namespace
}  // namespace pkgdist::node_program
