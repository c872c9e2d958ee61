#include "pkgdist_lead/directory_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace pkgdist::lead {
namespace {

namespace fs = std::filesystem;

class DirectoryStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "lead-store-XXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    root_ = name;
    store_.set_root(1, root_.string());
  }
  void TearDown() override { fs::remove_all(root_); }

  void write(const std::string& name, const std::string& text) {
    fs::create_directories((root_ / name).parent_path());
    std::ofstream(root_ / name) << text;
  }
  int open(const std::string& name) { return store_.open(1, name, attributes_, content_); }
  std::vector<std::string> names(const FileTree& tree) {
    std::vector<std::string> found;
    for (const PushFile& file : tree.files) found.push_back(file.name);
    return found;
  }
  FileTree collect(const std::vector<std::string>& paths) {
    return collect_files(root_.string(), paths);
  }

  fs::path root_;
  DirectoryStore store_;
  FileAttributes attributes_;
  std::unique_ptr<Content> content_;
};

using Names = std::vector<std::string>;

// A file system's clock may stand still between two changes of a test.
void set_times(const fs::path& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(DirectoryStoreTest, a_file_that_is_written_to_cannot_be_read_any_further) {
  write("file", "0123456789");
  set_times(root_ / "file", 1'000'000'000);
  ASSERT_EQ(open("file"), 0);
  std::array<uint8_t, 3> bytes{};
  ASSERT_EQ(content_->read(0, bytes), 0);
  std::fstream(root_ / "file", std::ios::in | std::ios::out) << 'X';
  EXPECT_EQ(content_->read(3, bytes), ESTALE);
  ASSERT_EQ(open("file"), 0);
  ASSERT_EQ(content_->read(0, bytes), 0);
  EXPECT_EQ(bytes[0], 'X');
}

TEST_F(DirectoryStoreTest, a_file_that_takes_the_place_of_another_is_told_apart) {
  write("file", "0123456789");
  write("other", "9876543210");
  set_times(root_ / "file", 1'000'000'000);
  set_times(root_ / "other", 1'000'000'000);
  ASSERT_EQ(open("file"), 0);
  const FileAttributes before = attributes_;
  ASSERT_EQ(open("file"), 0);
  EXPECT_EQ(attributes_, before);
  fs::rename(root_ / "other", root_ / "file");
  std::array<uint8_t, 1> bytes{};
  EXPECT_EQ(content_->read(0, bytes), 0);  // what is open is the old one
  EXPECT_EQ(bytes[0], '0');
  ASSERT_EQ(open("file"), 0);
  EXPECT_NE(attributes_, before);
}

TEST_F(DirectoryStoreTest, reads_a_file_by_offset) {
  write("dir/file", "0123456789");
  ASSERT_EQ(open("dir/file"), 0);
  EXPECT_EQ(attributes_.size, 10u);
  EXPECT_FALSE(attributes_.symlink);
  std::array<uint8_t, 3> bytes{};
  ASSERT_EQ(content_->read(7, bytes), 0);
  EXPECT_EQ(bytes[0], '7');
  EXPECT_EQ(bytes[2], '9');
  EXPECT_EQ(content_->read(8, bytes), EIO);
}

TEST_F(DirectoryStoreTest, a_link_is_itself_not_what_it_points_to) {
  fs::create_symlink("nowhere/at/all", root_ / "link");
  ASSERT_EQ(open("link"), 0);
  EXPECT_TRUE(attributes_.symlink);
  EXPECT_EQ(attributes_.size, 14u);
  std::array<uint8_t, 14> bytes{};
  ASSERT_EQ(content_->read(0, bytes), 0);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "nowhere/at/all");
}

TEST_F(DirectoryStoreTest, tells_why_a_file_cannot_be_had) {
  write("dir/file", "x");
  ASSERT_EQ(::mkfifo((root_ / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(open("missing"), ENOENT);
  EXPECT_EQ(open("dir"), EISDIR);
  EXPECT_EQ(open("pipe"), ENXIO);
  EXPECT_EQ(open("dir/../dir/file"), ENOENT);
  EXPECT_EQ(store_.open(2, "dir/file", attributes_, content_), ENOENT);
}

TEST_F(DirectoryStoreTest, keeps_mode_and_modification_time) {
  write("file", "x");
  ::chmod((root_ / "file").c_str(), 0750);
  const timespec times[2] = {{12345, 0}, {12345, 0}};
  ::utimensat(AT_FDCWD, (root_ / "file").c_str(), times, 0);
  ASSERT_EQ(open("file"), 0);
  EXPECT_EQ(attributes_.mode, 0750u);
  EXPECT_EQ(attributes_.mtime, 12345u);
}

TEST_F(DirectoryStoreTest, collects_directories_and_files_once_in_order) {
  write("b", "x");
  write("a/2", "x");
  write("a/1", "x");
  fs::create_directory(root_ / "empty");
  fs::create_directory_symlink(root_ / "a", root_ / "c");
  EXPECT_EQ(names(collect({"b", "a", "a/1", "c", "empty"})), (Names{"a/1", "a/2", "b", "c"}));
}

TEST_F(DirectoryStoreTest, links_come_behind_the_files_that_make_their_directories) {
  write("z/file", "x");
  fs::create_symlink("file", root_ / "z/a link");
  fs::create_symlink("z", root_ / "a");
  EXPECT_EQ(names(collect({"."})), (Names{"z/file", "a", "z/a link"}));
}

TEST_F(DirectoryStoreTest, the_root_itself_may_be_named) {
  write("a/1", "x");
  for (const std::string& path : {std::string("."), root_.string(), root_.string() + "/"})
    EXPECT_EQ(names(collect({path})), Names{"a/1"}) << path;
}

TEST_F(DirectoryStoreTest, takes_absolute_paths_inside_the_root_only) {
  write("a/1", "x");
  EXPECT_EQ(names(collect({(root_ / "a").string()})), Names{"a/1"});
  EXPECT_EQ(collect({"/etc"}).problems.size(), 1u);
  EXPECT_EQ(collect({"../"}).problems.size(), 1u);
  EXPECT_EQ(collect({"missing"}).problems.size(), 1u);
  EXPECT_EQ(collect({root_.string() + "x"}).problems.size(), 1u);
}

TEST_F(DirectoryStoreTest, leaves_special_files_out_with_a_warning) {
  write("file", "x");
  ASSERT_EQ(::mkfifo((root_ / "pipe").c_str(), 0600), 0);
  const FileTree tree = collect({"."});
  EXPECT_EQ(names(tree), Names{"file"});
  EXPECT_EQ(tree.warnings.size(), 1u);
  EXPECT_TRUE(tree.problems.empty());
}

TEST_F(DirectoryStoreTest, what_cannot_travel_is_a_problem) {
  fs::create_symlink(std::string(255, 'x'), root_ / "link255");
  EXPECT_TRUE(collect({"."}).problems.empty());
  fs::create_symlink(std::string(256, 'x'), root_ / "link256");
  EXPECT_EQ(collect({"."}).problems.size(), 1u);
  write(std::string(200, 'd') + "/" + std::string(40, 'f'), "x");
  EXPECT_EQ(collect({"."}).problems.size(), 2u);
  std::ofstream(root_ / "large");
  fs::resize_file(root_ / "large", uint64_t{1} << 32);
  EXPECT_EQ(collect({"."}).problems.size(), 3u);
  fs::resize_file(root_ / "large", (uint64_t{1} << 32) - 1);
  EXPECT_EQ(collect({"."}).problems.size(), 2u);
}

}  // namespace
}  // namespace pkgdist::lead
