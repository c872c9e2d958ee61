// Hashes of trees, leaf files, the cache of hashes, and comparisons.
#include "tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_io.h"
#include "quick_check.h"
#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

constexpr size_t kLarge = 3 * kLeafBytes + 5;

Manifest manifest_of(const ScannedTree& tree) {
  Manifest manifest = sample();
  manifest.entries = tree.entries;
  return manifest;
}

class Tree : public testing::Test {
 protected:
  void SetUp() override {
    tree_.write("a/small", "hello");
    tree_.write("big", std::string(kLarge, 'x'));
    tree_.write("exact", std::string(kLeafBytes, 'x'));
    ASSERT_EQ(0, symlink("a/small", (tree_ / "link").c_str()));
    tree_.write(".pkgdist/manifest", "not a part of the tree");
  }
  ScannedTree scan(unsigned threads = 2) const {
    return scan_tree(tree_.path(), {kLeafBytes, threads, nullptr});
  }
  std::vector<std::string> differ(const Manifest& manifest) const {
    return differences(manifest, scan());
  }
  const TempTree tree_;
};

TEST_F(Tree, one_tree_has_one_manifest_whatever_the_number_of_threads) {
  const std::string text = format(manifest_of(scan(1)));
  EXPECT_EQ(text, format(manifest_of(scan(8))));
  EXPECT_EQ(text, format(parse(text)));
  EXPECT_NE(std::string::npos, text.find(" list256:"));
  EXPECT_NE(std::string::npos, text.find("l - 7 - - link a/small\n"));
  EXPECT_EQ(std::string::npos, text.find(".pkgdist"));
}

TEST_F(Tree, what_differs_can_be_told_without_reading) {
  const Manifest manifest = manifest_of(scan());
  EXPECT_TRUE(quick_differences(manifest, tree_.path()).empty());
  ASSERT_EQ(0, unlink((tree_ / "link").c_str()));
  ASSERT_EQ(0, symlink("elsewhere", (tree_ / "link").c_str()));
  ASSERT_EQ(0, unlink((tree_ / "exact").c_str()));
  ASSERT_EQ(0, chmod((tree_ / "big").c_str(), 0600));
  tree_.write("a/small", "hello, longer");
  EXPECT_EQ(quick_differences(manifest, tree_.path()),
            (std::vector<std::string>{"size differs: a/small", "mode differs: big",
                                      "missing: exact", "target differs: link"}));
  ASSERT_EQ(0, rename((tree_ / "a").c_str(), (tree_ / "b").c_str()));
  ASSERT_EQ(0, symlink("b", (tree_ / "a").c_str()));
  const auto behind_a_link = quick_differences(manifest, tree_.path());
  EXPECT_EQ(behind_a_link.at(0), "kind differs: a");
  EXPECT_EQ(behind_a_link.at(1), "missing: a/small");
}

// Computed beside this library, with Python's hashlib.
TEST_F(Tree, digests_are_those_that_are_documented) {
  const ScannedTree tree = scan();
  EXPECT_EQ("bdf8c3b69450c2e69030ccbed5f1931986b20523c6bf429e2ab2f4f5b16b4bf8",
            to_hex(tree.entries[2].digest));
  EXPECT_EQ("1f8745f0d2d1387ec1af2211a3cf417b2e9e885e853472649c1d979d0e9370e3",
            to_hex(tree.entries[3].digest));
  EXPECT_EQ(4u, tree.leaves[2].size());
  EXPECT_TRUE(tree.leaves[3].empty());
}

TEST_F(Tree, every_change_is_found) {
  const Manifest manifest = manifest_of(scan());
  EXPECT_TRUE(differ(manifest).empty());
  tree_.write("new", "");
  EXPECT_EQ(std::vector<std::string>{"not in the manifest: new"}, differ(manifest));
  std::filesystem::remove(tree_ / "new");
  ASSERT_EQ(0, chmod((tree_ / "big").c_str(), 0600));
  EXPECT_EQ(std::vector<std::string>{"mode differs: big"}, differ(manifest));
  std::filesystem::remove(tree_ / "big");
  EXPECT_EQ(std::vector<std::string>{"missing: big"}, differ(manifest));
  ASSERT_EQ(0, symlink("exact", (tree_ / "big").c_str()));
  EXPECT_EQ(std::vector<std::string>{"kind differs: big"}, differ(manifest));
  std::filesystem::remove(tree_ / "link");
  ASSERT_EQ(0, symlink("big", (tree_ / "link").c_str()));
  EXPECT_EQ((std::vector<std::string>{"kind differs: big", "target differs: link"}),
            differ(manifest));
}

TEST_F(Tree, every_flipped_byte_of_a_file_is_found) {
  const Manifest manifest = manifest_of(scan());
  for (const size_t at : {size_t{0}, kLarge / 2, kLarge - 1}) {
    std::string content(kLarge, 'x');
    content[at] = 'y';
    tree_.write("big", content);
    EXPECT_FALSE(differ(manifest).empty()) << at;
  }
}

TEST_F(Tree, what_is_neither_file_nor_directory_nor_link_is_refused) {
  ASSERT_EQ(0, mkfifo((tree_ / "fifo").c_str(), 0600));
  EXPECT_EQ(Reason::kTree, refusal([&] { (void)scan(); }));
}

TEST_F(Tree, every_flipped_byte_of_the_leaf_file_is_found) {
  const ScannedTree tree = scan();
  const Manifest manifest = manifest_of(tree);
  const std::string leaves = format_leaves(tree);
  ASSERT_EQ(4 * sizeof(Digest), leaves.size());
  EXPECT_EQ(tree.leaves[2], parse_leaves(leaves, manifest));
  for (size_t at = 0; at < leaves.size(); ++at) {
    std::string flipped = leaves;
    flipped[at] = static_cast<char>(flipped[at] ^ 1);
    EXPECT_EQ(Reason::kLeaves, refusal([&] { (void)parse_leaves(flipped, manifest); })) << at;
  }
  EXPECT_EQ(Reason::kLeaves, refusal([&] { (void)parse_leaves(leaves + "x", manifest); }));
  EXPECT_EQ(Reason::kLeaves, refusal([&] { (void)parse_leaves("", manifest); }));
}

TEST_F(Tree, a_file_of_another_length_is_refused) {
  const Fd directory(open(tree_.path().c_str(), O_RDONLY));
  const Fd opened(open_beneath(directory.get(), "big", O_RDONLY));
  ASSERT_TRUE(opened);
  for (const uint32_t size : {uint32_t{kLarge} - 1, uint32_t{kLarge} + 1, 5u, 4 * kLeafBytes})
    EXPECT_EQ(Reason::kContent,
              refusal([&] { (void)hash_content(opened.get(), size, kLeafBytes); }))
        << size;
}

TEST_F(Tree, paths_are_not_opened_through_links) {
  ASSERT_EQ(0, symlink("a", (tree_ / "b").c_str()));
  const Fd directory(open(tree_.path().c_str(), O_RDONLY));
  EXPECT_TRUE(Fd(open_beneath(directory.get(), "a/small", O_RDONLY)));
  for (const char* path : {"b/small", "link", "../etc/passwd", "/etc/passwd", "a/../a/small/.."})
    EXPECT_FALSE(Fd(open_beneath(directory.get(), path, O_RDONLY))) << path;
}

// --- The cache ---

TEST(SettledFiles, are_known_until_something_touches_them) {
  const TempTree tree;
  tree.write("file", "content");
  const std::string path = tree / "file";
  struct stat status {};
  const auto look = [&] { return stat(path.c_str(), &status); };
  SettledFiles files;
  ASSERT_EQ(0, look());
  files.add(status, status.st_ctim, sha256(bytes_of("content")));
  EXPECT_EQ(std::nullopt, files.find(status)) << "a change might not show yet";
  SettledFiles::wait();
  files.add(status, SettledFiles::clock(), sha256(bytes_of("content")));
  EXPECT_EQ(sha256(bytes_of("content")), files.find(status));
  tree.write("file", "contenT");
  ASSERT_EQ(0, look());
  EXPECT_EQ(std::nullopt, files.find(status));
}

TEST(HashCache, remembers_what_was_settled_and_nothing_younger) {
  const TempTree tree;
  tree.write("file", "x");
  struct stat status {};
  ASSERT_EQ(0, stat((tree / "file").c_str(), &status));
  ContentHash content;
  content.digest = sha256(bytes_of("x"));
  timespec now = status.st_ctim;  // change times cannot be set: what the cache hears as now can
  {
    HashCache young(tree / "cache", kLeafBytes);
    now.tv_sec += HashCache::kSettledSeconds - 1;
    young.add(status, content, now);
    young.save();
    EXPECT_FALSE(HashCache(tree / "cache", kLeafBytes).find(status));
  }
  HashCache cache(tree / "cache", kLeafBytes);
  now.tv_sec += 1;
  cache.add(status, content, now);
  cache.save();
  HashCache next(tree / "cache", kLeafBytes);
  const auto found = next.find(status);
  ASSERT_TRUE(found);
  EXPECT_EQ(content.digest, found->digest);
  EXPECT_EQ(1u, next.hits());
  struct stat changed = status;
  ++changed.st_ctim.tv_nsec;
  EXPECT_FALSE(next.find(changed));
  changed = status;
  ++changed.st_size;
  EXPECT_FALSE(next.find(changed));
  changed = status;
  ++changed.st_ino;
  EXPECT_FALSE(next.find(changed));
  EXPECT_FALSE(HashCache(tree / "cache", kLeafBytes / 2).find(status)) << "other leaves";
}

TEST(HashCache, a_damaged_file_counts_as_empty) {
  const TempTree tree;
  tree.write("file", "x");
  struct stat status {};
  ASSERT_EQ(0, stat((tree / "file").c_str(), &status));
  tree.write("cache", "pkgdist-hashes 1 leaf=65536\n1 2 3 4 xyz\n");
  EXPECT_FALSE(HashCache(tree / "cache", kLeafBytes).find(status));
}

// --- Updates ---

TEST(Update, only_contents_that_the_old_release_lacks_are_sent) {
  Manifest before = sample();
  before.entries = {file("a", "one"), file("b", "two"), file("gone", "three")};
  Manifest after = sample();
  after.entries = {file("a", "one"), file("b", "new!"), file("moved", "three")};
  const Update update = compare(before, after);
  ASSERT_EQ(1u, update.sent.size());
  EXPECT_EQ("b", update.sent[0]->path);
  EXPECT_EQ(4u, update.bytes);
  ASSERT_EQ(1u, update.removed.size());
  EXPECT_EQ("gone", update.removed[0]->path);
  ASSERT_EQ(1u, update.added.size());
  EXPECT_EQ("moved", update.added[0]->path);
  ASSERT_EQ(1u, update.changed.size());
}

}  // namespace
