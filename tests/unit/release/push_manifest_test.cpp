// Manifests of what a push brings, and the comparison with a tree.
#include "push_manifest.h"

#include <sys/stat.h>
#include <unistd.h>

#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

using Problems = std::vector<NamedProblem>;
constexpr size_t kLarge = 3 * kLeafBytes + 5;
constexpr size_t kTextBytes = 36'000;
constexpr uint64_t kFileBytes = 1 << 20;

class PushManifests : public testing::Test {
 protected:
  void SetUp() override {
    tree_.write("a/small", "hello");
    tree_.write("a/b/big", std::string(kLarge, 'x'));
    tree_.write("empty", "");
    tree_.write(".pkgdist/manifest", "of a release");
    ASSERT_EQ(0, symlink("a/small", (tree_ / "link").c_str()));
  }
  HashedNames hash(std::vector<std::string> names) const {
    return hash_names(tree_.path(), std::move(names));
  }
  std::vector<Entry> all() const {
    return hash({"link", "a/small", "empty", "a/b/big", ".pkgdist/manifest"}).entries;
  }
  Problems differ(const std::vector<Entry>& said) const {
    return content_differences(said, tree_.path());
  }
  const TempTree tree_;
};

TEST_F(PushManifests, say_what_was_read_whatever_the_name) {
  const std::vector<Entry> entries = all();
  ASSERT_EQ(5u, entries.size());
  const auto manifests = push_manifests(entries, kTextBytes, kFileBytes);
  ASSERT_EQ(1u, manifests.size());
  EXPECT_EQ(kLarge + 5 + 12, manifests[0].bytes);
  EXPECT_EQ(entries, parse_push_manifest(manifests[0].text));
  EXPECT_TRUE(differ(entries).empty());
}

TEST_F(PushManifests, are_no_releases_nor_are_releases_theirs) {
  const std::string text = push_manifests(all(), kTextBytes, kFileBytes)[0].text;
  EXPECT_EQ(Reason::kPath, refusal([&] { (void)parse(text); }));
  EXPECT_EQ(Reason::kName, refusal([&] { (void)parse_push_manifest(format(sample())); }));
  EXPECT_NE(first_line(text), push_comment(1));
}

TEST_F(PushManifests, are_as_many_as_texts_and_files_are_large) {
  std::vector<std::string> names;
  for (int i = 0; i < 50; ++i) {
    names.push_back("d/" + std::string(80, 'n') + std::to_string(i));
    tree_.write(names.back(), std::string(1000, 'x'));
  }
  const std::vector<Entry> entries = hash(names).entries;
  for (const auto& [text_bytes, file_bytes, most] :
       {std::tuple{size_t{2000}, kFileBytes, 12u}, {kTextBytes, uint64_t{10'000}, 10u}}) {
    const auto manifests = push_manifests(entries, text_bytes, file_bytes);
    EXPECT_GT(manifests.size(), 4u);
    std::vector<Entry> together;
    for (const PushManifest& manifest : manifests) {
      EXPECT_LE(manifest.bytes, uint64_t{most} * 1000);
      for (const Entry& entry : parse_push_manifest(manifest.text)) together.push_back(entry);
    }
    EXPECT_EQ(entries, together);
  }
  // One file may be larger than a manifest has to be.
  EXPECT_EQ(50u, push_manifests(entries, kTextBytes, 1).size());
}

TEST_F(PushManifests, every_way_to_differ_has_a_name) {
  const std::vector<Entry> entries = all();
  tree_.write("a/small", "hellO");
  tree_.write("empty", "x");
  ASSERT_EQ(0, unlink((tree_ / "link").c_str()));
  ASSERT_EQ(0, symlink("a/smalL", (tree_ / "link").c_str()));
  ASSERT_EQ(0, unlink((tree_ / "a/b/big").c_str()));
  ASSERT_EQ(0, unlink((tree_ / ".pkgdist/manifest").c_str()));
  ASSERT_EQ(0, symlink("x", (tree_ / ".pkgdist/manifest").c_str()));
  EXPECT_EQ(differ(entries), (Problems{{".pkgdist/manifest", "it is a link"},
                                       {"a/b/big", "No such file or directory"},
                                       {"a/small", "it has another content"},
                                       {"empty", "it has another size"},
                                       {"link", "it leads elsewhere"}}));
}

TEST_F(PushManifests, one_byte_anywhere_in_a_large_file_is_found) {
  const std::vector<Entry> entries = hash({"a/b/big"}).entries;
  for (const size_t at : {size_t{0}, size_t{kLeafBytes} - 1, size_t{kLeafBytes}, kLarge - 1}) {
    std::string content(kLarge, 'x');
    content[at] = 'y';
    tree_.write("a/b/big", content);
    EXPECT_EQ(differ(entries), (Problems{{"a/b/big", "it has another content"}})) << at;
  }
}

TEST_F(PushManifests, what_is_no_file_costs_itself_alone_and_links_lead_nowhere_else) {
  ASSERT_EQ(0, mkfifo((tree_ / "fifo").c_str(), 0600));
  ASSERT_EQ(0, symlink("/etc", (tree_ / "outside").c_str()));
  ASSERT_EQ(0, symlink("a", (tree_ / "inside").c_str()));
  const HashedNames hashed = hash({"fifo", "outside/passwd", "inside/small", "a"});
  ASSERT_EQ(1u, hashed.entries.size());
  EXPECT_EQ("inside/small", hashed.entries[0].path);
  EXPECT_EQ(hashed.problems, (Problems{{"a", "it is no file"},
                                       {"fifo", "it is no file"},
                                       {"outside/passwd", "Invalid cross-device link"}}));
}

TEST_F(PushManifests, what_is_left_when_it_has_to_stop_is_a_problem) {
  const HashedNames hashed = hash_names(tree_.path(), {"a/small", "empty"}, [] { return false; });
  EXPECT_TRUE(hashed.entries.empty());
  EXPECT_EQ(2u, hashed.problems.size());
}

}  // namespace
