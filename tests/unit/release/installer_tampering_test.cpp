// Whoever can write the place of a node, or what comes to it, is not believed: everything is found
// before the switch.
#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <set>

#include "installer_fixture.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

// What somebody who can write the place may do to a file of it.
using Change = std::function<void(const std::string& path)>;

void exchange_for_link(const std::string& path) {
  std::filesystem::remove(path);
  EXPECT_EQ(0, symlink("/etc/passwd", path.c_str()));
}

void exchange_for_fifo(const std::string& path) {
  std::filesystem::remove(path);
  EXPECT_EQ(0, mkfifo(path.c_str(), 0644));
}

void exchange_for_directory(const std::string& path) {
  std::filesystem::remove(path);
  EXPECT_EQ(0, mkdir(path.c_str(), 0755));
}

// The same mode and time, in another inode.
void exchange_for_file(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status));
  std::filesystem::remove(path);
  std::ofstream(path) << "9";
  EXPECT_EQ(0, chmod(path.c_str(), status.st_mode));
  const timespec times[2] = {status.st_mtim, status.st_mtim};
  EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

const std::vector<Change> kChanges = {
    exchange_for_link,
    exchange_for_fifo,
    exchange_for_directory,
    exchange_for_file,
    [](const std::string& path) { std::ofstream(path) << "9"; },
    [](const std::string& path) { EXPECT_EQ(0, chmod(path.c_str(), 0777)); },
    [](const std::string& path) { std::filesystem::remove(path); },
    [](const std::string& path) { std::ofstream(path + "-more") << "x"; }};

// Between the check of a file and the end: whoever can write staging is not believed either.
TEST_F(Install, what_changes_in_staging_is_found_before_the_release_is_ready) {
  for (const Change& change : kChanges) {
    start();
    bring_manifest(six_);
    bring("a/one", "1");
    arrive("a/one");
    change(place_ / (".pkgdist/staging/" + directory_name(*node_->candidate()) + "/a/one"));
    bring("same", kSame);
    arrive("same");
    bring("gone", "x");
    EXPECT_EQ(Reason::kTree, refusal([&] { arrive("gone"); }));
    EXPECT_FALSE(node_->ready());
    EXPECT_EQ("", node_->link("current"));
  }
}

// Also in another process than the one that made it ready.
TEST_F(Install, what_changes_in_a_release_that_is_ready_is_found_before_the_switch) {
  start();
  install(six_);
  for (const bool restarted : {false, true}) {
    for (const Change& change : kChanges) {
      bring_manifest(seven_);
      bring_files(seven_);
      ASSERT_TRUE(node_->ready());
      change(place_ / (".pkgdist/releases/" + directory_name(seven_.release()) + "/a/one"));
      if (restarted) start();
      EXPECT_EQ(Reason::kTree, refusal([&] { node_->activate(); }));
      EXPECT_TRUE(current_is(six_));
      EXPECT_FALSE(node_->ready());
    }
  }
  install(seven_);
  EXPECT_TRUE(current_is(seven_)) << "it can come again";
}

TEST_F(Install, another_manifest_in_a_release_that_is_ready_is_found_before_the_switch) {
  start();
  install(six_);
  bring_manifest(seven_);
  bring_files(seven_);
  place_.write(".pkgdist/releases/" + directory_name(seven_.release()) + "/" + kManifestPath,
               six_.text);
  EXPECT_EQ(Reason::kTree, refusal([&] { node_->activate(); }));
  EXPECT_TRUE(current_is(six_));
}

TEST_F(Install, what_has_settled_is_not_read_again_at_the_switch) {
  const std::string large(size_t{1} << 20, 'l');
  const Built big{7, {{"large", large}}, signer_, 0};
  start();
  bring_manifest(big);
  bring_files(big);
  uint64_t before = bytes_read();
  node_->activate();
  EXPECT_LT(bytes_read() - before, large.size());
  node_->fail();
  node_->allow(7);
  bring_manifest(big);
  start();
  ASSERT_TRUE(node_->ready());
  before = bytes_read();
  node_->activate();
  EXPECT_GE(bytes_read() - before, large.size()) << "another process knows nothing of it";
}

TEST_F(Install, what_was_reused_and_changes_before_the_release_is_ready_is_found) {
  start();
  install(six_);
  bring_manifest(seven_);
  const std::string staged = ".pkgdist/staging/" + directory_name(*node_->candidate()) + "/same";
  std::string content = place_.read(staged);
  ASSERT_EQ(kSame, content);
  content[kLeafBytes] ^= 1;
  place_.write(staged, content);
  EXPECT_EQ(Reason::kTree, refusal([&] { bring_files(seven_); }));
  EXPECT_FALSE(node_->ready());
  EXPECT_TRUE(current_is(six_));
}

TEST_F(Install, what_came_is_read_once_before_the_release_is_ready) {
  const std::string large(size_t{256} << 10, 'l');
  Files files{{"last", "x"}};
  for (size_t i = 0; i < Installer::kBatch + 1; ++i) files[fmt::format("part/{}", i)] = large;
  const Built big{7, files, signer_, 0};
  start();
  bring_manifest(big);
  std::vector<std::string> paths;
  for (size_t i = 0; i < Installer::kBatch + 1; ++i) {
    paths.push_back(fmt::format("part/{}", i));
    bring(paths.back(), large);
  }
  const uint64_t at_first = bytes_read();
  EXPECT_TRUE(node_->arrived(paths).empty());
  const uint64_t checked = bytes_read();
  EXPECT_GE(checked - at_first, paths.size() * large.size());
  EXPECT_EQ(1u, node_->missing());
  bring("last", "x");
  EXPECT_EQ("", arrive("last"));
  EXPECT_TRUE(node_->ready());
  EXPECT_LT(bytes_read() - checked, large.size());
}

// All but the text of the signature file's first comment, which nothing protects.
TEST_F(Install, every_flipped_byte_of_what_describes_a_release_is_refused) {
  const size_t comment = std::string("untrusted comment: ").size();
  const size_t comment_end = seven_.signature.find('\n');
  const auto all_refused = [&](const char* name, const std::string& good,
                               const std::set<Reason>& reasons) {
    for (size_t at = 0; at < good.size(); ++at) {
      if (name == kSignaturePath && at >= comment && at < comment_end) continue;
      std::string flipped = good;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << at % 8));
      bring(kManifestPath, seven_.text);
      bring(kSignaturePath, seven_.signature);
      bring(kLeavesPath, seven_.leaves);
      bring(name, flipped);
      const auto reason = refusal([&] { node_->check(); });
      ASSERT_TRUE(reason && reasons.contains(*reason)) << name << " byte " << at;
      ASSERT_EQ(std::nullopt, node_->candidate());
    }
  };
  start();
  install(six_);
  all_refused(kManifestPath, seven_.text, {Reason::kBadSignature});
  all_refused(kSignaturePath, seven_.signature,
              {Reason::kSignature, Reason::kAlgorithm, Reason::kUnknownKey, Reason::kBadSignature,
               Reason::kBadComment});
  all_refused(kLeavesPath, seven_.leaves, {Reason::kLeaves});
  EXPECT_TRUE(current_is(six_));
  install(seven_);
  EXPECT_TRUE(current_is(seven_));
}

// Flips one bit, and leaves mode and time as they were.
void flip(const std::string& path, uint64_t bit) {
  struct stat status {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  const auto at = static_cast<std::streamoff>(bit / 8 % static_cast<uint64_t>(status.st_size));
  file.seekg(at);
  const auto byte = static_cast<char>(file.get() ^ (1 << bit % 8));
  file.seekp(at);
  file.put(byte);
  file.close();
  const timespec times[2] = {status.st_mtim, status.st_mtim};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

// A release of as many files as are checked at a time, of all sizes up to three leaves.
class FlippedBits : public Install {
 protected:
  FlippedBits() {
    for (size_t i = 0; i < Installer::kBatch; ++i) {
      names_.push_back(fmt::format("file{:03}", i));
      files_[names_.back()] = std::string(1 + random_() % (3 * kLeafBytes), 'x');
    }
  }
  void bring_all() {
    for (const auto& [name, content] : files_) bring(name, content);
  }
  std::string staged() const {
    return place_ / (".pkgdist/staging/" + directory_name(*node_->candidate()) + "/");
  }

  std::minstd_rand random_{1};
  std::vector<std::string> names_;
  Files files_;
};

TEST_F(FlippedBits, each_of_a_thousand_in_files_that_come_is_found) {
  const Built built(7, files_, signer_);
  start();
  bring_manifest(built);
  for (size_t flipped = 0; flipped < 1000; flipped += names_.size()) {
    bring_all();
    for (const std::string& name : names_) flip(place_ / (".pkgdist/incoming/" + name), random_());
    ASSERT_EQ(names_.size(), node_->arrived(names_).size());
    ASSERT_EQ(names_.size(), node_->missing());
  }
  bring_all();
  EXPECT_TRUE(node_->arrived(names_).empty());
  EXPECT_TRUE(node_->ready());
}

// While the node is stopped; each of the files is then missing.
TEST_F(FlippedBits, each_of_a_thousand_in_staged_files_is_found_after_a_restart) {
  Files files = files_;
  files["last"] = "comes last";
  const Built built(7, files, signer_);
  start();
  bring_manifest(built);
  for (size_t flipped = 0; flipped < 1000; flipped += names_.size()) {
    bring_all();
    ASSERT_TRUE(node_->arrived(names_).empty());
    ASSERT_EQ(1u, node_->missing());
    for (const std::string& name : names_) flip(staged() + name, random_());
    start();
    ASSERT_EQ(files.size(), node_->missing());
  }
}

// One in a whole tree, while the node runs.
TEST_F(FlippedBits, one_in_a_staged_file_keeps_the_release_from_being_ready) {
  constexpr int kBits = 20;
  Files files = files_;
  files["last"] = "comes last";
  const Built built(7, files, signer_);
  start();
  for (int i = 0; i < kBits; ++i) {
    bring_manifest(built);
    bring_all();
    ASSERT_TRUE(node_->arrived(names_).empty());
    flip(staged() + names_[random_() % names_.size()], random_());
    bring("last", files["last"]);
    ASSERT_EQ(Reason::kTree, refusal([&] { arrive("last"); }));
    ASSERT_FALSE(node_->ready());
  }
}

TEST_F(Install, an_emptied_place_undoes_no_protection_against_older_releases) {
  start();
  install(six_);
  std::filesystem::remove_all(place_ / ".pkgdist");
  std::filesystem::remove(place_ / "current");
  start();
  EXPECT_EQ(Reason::kNotNewer, refused(five_));
  EXPECT_EQ(Reason::kOtherManifest, refused(Built(6, {{"a", "x"}}, signer_)));
}

}  // namespace
