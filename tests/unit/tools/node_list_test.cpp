#include "node_list.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>

namespace pkgdist::lead_program {
namespace {

using Names = std::vector<std::string>;

// Knows "nodeN" as 10.0.0.N.
std::optional<uint32_t> resolve(const std::string& name) {
  if (!name.starts_with("node")) return std::nullopt;
  return 0x0A000000 + static_cast<uint32_t>(std::stoul(name.substr(4)));
}

TEST(NodeList, a_number_is_a_count) {
  EXPECT_EQ(parse_node_list("12").count, 12u);
  EXPECT_TRUE(parse_node_list("12").addresses.empty());
  EXPECT_THROW(parse_node_list("0"), CLI::ValidationError);
  EXPECT_THROW(parse_node_list("12345"), CLI::ValidationError);
}

TEST(NodeList, addresses_and_names_are_mixed_and_each_node_is_there_once) {
  const NodeList list = parse_node_list("10.0.0.9,node2,10.0.0.2,node2", resolve);
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(list.addresses, (std::vector<uint32_t>{0x0A000009, 0x0A000002}));
  EXPECT_EQ(list.names, (std::map<uint32_t, std::string>{{0x0A000002, "node2"}}));
}

TEST(NodeList, what_is_no_node_is_named) {
  for (const char* text : {"", "node1,", ",", "x", "10.0.0.300", "10.0.0", "node[1", "node[]",
                           "node[2-1]", "node[a-b]", "node[1-]", "node[0-70000]", "@"})
    EXPECT_THROW(parse_node_list(text, resolve), CLI::ValidationError) << text;
}

TEST(NodeList, ranges_keep_leading_zeros) {
  EXPECT_EQ(expand_ranges("n"), Names{"n"});
  EXPECT_EQ(expand_ranges("n[08-11]"), (Names{"n08", "n09", "n10", "n11"}));
  EXPECT_EQ(expand_ranges("n[8-11]x"), (Names{"n8x", "n9x", "n10x", "n11x"}));
  EXPECT_EQ(expand_ranges("r[1,3-4]n[01-02]"),
            (Names{"r1n01", "r1n02", "r3n01", "r3n02", "r4n01", "r4n02"}));
}

TEST(NodeList, ranges_have_commas_of_their_own) {
  const NodeList list = parse_node_list("node[1,3-4],node[9-9]", resolve);
  EXPECT_EQ(list.addresses.size(), 4u);
  EXPECT_EQ(list.names.at(0x0A000003), "node3");
}

constexpr const char* kFile =
    "# all of them\n"
    "node1, 10.0.0.2\n"
    "[db]   # two\n"
    "  db[1-2]\tdb7\n"
    "\n"
    "[web]\r\n"
    "web1\r\n"
    "[db]\n"
    "db9";

TEST(NodeList, a_file_has_groups_and_comments) {
  EXPECT_EQ(entries_of(kFile, ""), (Names{"node1", "10.0.0.2", "db[1-2]", "db7", "web1", "db9"}));
  EXPECT_EQ(entries_of(kFile, "db"), (Names{"db[1-2]", "db7", "db9"}));
  EXPECT_EQ(entries_of(kFile, "web"), Names{"web1"});
  EXPECT_TRUE(entries_of(kFile, "mail").empty());
}

TEST(NodeList, files_and_their_groups_are_named_behind_a_sign) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("nodes" + std::to_string(::getpid()))).string();
  std::ofstream(path) << "node1\n[few]\nnode[2-3]\n";
  EXPECT_EQ(parse_node_list("@" + path, resolve).addresses.size(), 3u);
  EXPECT_EQ(parse_node_list("node7,@" + path + ":few", resolve).addresses.size(), 3u);
  EXPECT_THROW(parse_node_list("@" + path + ":none", resolve), CLI::ValidationError);
  std::filesystem::remove(path);
  EXPECT_THROW(parse_node_list("@" + path, resolve), CLI::ValidationError);
}

}  // namespace
}  // namespace pkgdist::lead_program
