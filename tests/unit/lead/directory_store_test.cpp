#include "pkgdist_lead/directory_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "shell/beneath.h"

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

TEST_F(DirectoryStoreTest, special_files_are_left_out_by_name) {
  write("d/file", "x");
  ASSERT_EQ(::mkfifo((root_ / "d/pipe").c_str(), 0600), 0);
  const FileTree tree = collect({"."});
  EXPECT_EQ(names(tree), Names{"d/file"});
  ASSERT_EQ(tree.left_out.size(), 1u);
  EXPECT_EQ(tree.left_out[0].name, "d/pipe");
  EXPECT_EQ(tree.left_out[0].reason, "a named pipe cannot be sent");
  EXPECT_TRUE(tree.warnings.empty());
  EXPECT_TRUE(tree.problems.empty());
}

TEST_F(DirectoryStoreTest, what_cannot_travel_is_left_out_by_name_and_the_rest_stays) {
  write("file", "x");
  const auto left_out = [&] { return collect({"."}).left_out.size(); };
  fs::create_symlink(std::string(255, 'x'), root_ / "link255");
  EXPECT_EQ(left_out(), 0u);
  fs::create_symlink(std::string(256, 'x'), root_ / "link256");
  EXPECT_EQ(left_out(), 1u);
  const std::string longest = std::string(200, 'd') + "/" + std::string(40, 'f');
  write(longest, "x");
  EXPECT_EQ(left_out(), 2u);
  std::ofstream(root_ / "large");
  fs::resize_file(root_ / "large", uint64_t{1} << 32);
  const FileTree tree = collect({".", "large"});
  EXPECT_TRUE(tree.problems.empty());
  EXPECT_EQ(names(tree), (Names{"file", "link255"}));
  ASSERT_EQ(tree.left_out.size(), 3u);
  EXPECT_EQ(tree.left_out[0].name, longest);
  EXPECT_EQ(tree.left_out[1].name, "large");
  EXPECT_NE(tree.left_out[1].reason.find("4 GiB"), std::string::npos);
  EXPECT_EQ(tree.left_out[2].name, "link256");
  fs::resize_file(root_ / "large", (uint64_t{1} << 32) - 1);
  EXPECT_EQ(left_out(), 2u);
}

TEST_F(DirectoryStoreTest, tells_the_directories_of_what_it_collects_upper_ones_first) {
  write("b/c/file", "x");
  write("b/file", "x");
  write("a/d/other", "x");
  write("top", "x");
  fs::create_directories(root_ / "empty");
  fs::create_directories(root_ / "links");
  fs::create_symlink("x", root_ / "links/link");
  EXPECT_EQ(collect({"."}).directories, (Names{"a", "a/d", "b", "b/c", "empty", "links"}));
  EXPECT_EQ(collect({"b/c", "top"}).directories, (Names{"b", "b/c"}));
}

TEST_F(DirectoryStoreTest, tells_mode_and_time_of_what_it_walks_and_of_nothing_above_it) {
  write("above/walked/file", "x");
  fs::create_directories(root_ / "above/walked/empty");
  fs::permissions(root_ / "above/walked/empty", fs::perms(02750));
  ASSERT_EQ(::mkfifo((root_ / "above/walked/pipe").c_str(), 0600), 0);
  set_times(root_ / "above/walked/empty", 4711);
  const FileTree tree = collect({"above/walked", "above/walked/empty", "above/walked/file"});
  ASSERT_EQ(tree.walked.size(), 2u);
  EXPECT_EQ(tree.walked[0].name, "above/walked");
  EXPECT_EQ(tree.walked[1].name, "above/walked/empty");
  EXPECT_EQ(tree.walked[1].mode, 02750u);
  EXPECT_EQ(tree.walked[1].mtime, 4711);
  ASSERT_EQ(tree.left_out.size(), 1u);
  EXPECT_EQ(tree.left_out[0].name, "above/walked/pipe");
  EXPECT_TRUE(tree.all_read);
  EXPECT_EQ(collect({"."}).walked[0].name, ".");
  EXPECT_TRUE(collect({"above/walked/file"}).walked.empty());
}

TEST_F(DirectoryStoreTest, times_that_do_not_travel_are_clamped_and_told_once) {
  const int64_t last = UINT32_MAX;
  for (const auto& [name, time] : {std::pair{"a", int64_t{-5}}, {"b", last + 1}, {"c", last}}) {
    write(name, "x");
    set_times(root_ / name, time);
  }
  ASSERT_EQ(open("a"), 0);
  EXPECT_EQ(attributes_.mtime, 0u);
  ASSERT_EQ(open("b"), 0);
  EXPECT_EQ(attributes_.mtime, UINT32_MAX);
  const FileTree tree = collect({".", "a"});
  ASSERT_EQ(tree.warnings.size(), 1u);
  EXPECT_EQ(tree.warnings[0].substr(0, 2), "a:");
  EXPECT_NE(tree.warnings[0].find("1 more"), std::string::npos);
  EXPECT_TRUE(collect({"c"}).warnings.empty());
}

// As root everything can be read: a child process that is not root looks.
class UnreadableTree : public DirectoryStoreTest {
 protected:
  // The number of the first expectation that `look` finds wrong, 0 when there is none.
  template <class Look>
  int as_nobody(Look&& look) {
    fs::permissions(root_, fs::perms(0755));
    const pid_t child = ::fork();
    if (child == 0) {
      constexpr uid_t kNobody = 65534;
      if (::getuid() == 0 && ::setuid(kNobody) != 0) ::_exit(99);
      ::_exit(look());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(UnreadableTree, costs_what_is_unreadable_and_names_it) {
  write("a/file", "x");
  write("closed/file", "x");
  write("open/deep/closed/file", "x");
  write("open/file", "x");
  write("secret", "x");
  for (const char* name : {"closed", "open/deep/closed", "secret"})
    fs::permissions(root_ / name, fs::perms::none);
  EXPECT_EQ(as_nobody([&] {
              const FileTree tree = collect({"."});
              if (names(tree) != Names{"a/file", "open/file"}) return 1;
              if (tree.left_out.size() != 3 || !tree.problems.empty()) return 2;
              if (tree.left_out[0].name != "closed") return 3;
              if (tree.left_out[1].name != "open/deep/closed") return 4;
              if (tree.left_out[2].name != "secret") return 5;
              return tree.all_read || !collect({"a", "secret"}).all_read ? 6 : 0;
            }),
            0);
  for (const char* name : {"closed", "open/deep/closed"})
    fs::permissions(root_ / name, fs::perms::owner_all);
}

// --- Links of directories ---

class LinkedDirectories : public DirectoryStoreTest {
 protected:
  void SetUp() override {
    DirectoryStoreTest::SetUp();
    write("real/file", "inside");
    write("real/deep/file", "inside");
    outside_ = root_.string() + "-outside";
    fs::create_directories(outside_);
    std::ofstream(outside_ / "secret") << "outside";
    descriptor_ = ::open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  void TearDown() override {
    ::close(descriptor_);
    fs::remove_all(outside_);
    DirectoryStoreTest::TearDown();
  }
  void link(const std::string& name, const std::string& target) {
    fs::create_symlink(target, root_ / name);
  }
  // By the kernel and by the walk, which must agree.
  int beneath(const std::string& name) {
    const auto outcome = [](const Descriptor& opened) { return opened ? 0 : errno; };
    const int by_kernel = outcome(open_beneath(descriptor_, name, O_RDONLY));
    EXPECT_EQ(outcome(open_beneath_by_walk(descriptor_, name, O_RDONLY)), by_kernel) << name;
    return by_kernel;
  }
  fs::path outside_;
  int descriptor_ = -1;
};

TEST_F(LinkedDirectories, that_lead_out_of_the_root_are_not_followed) {
  link("absolute", outside_.string());
  link("relative", "../" + outside_.filename().string());
  link("real/up", "../../" + outside_.filename().string());
  link("chain", "real/up");
  link("back", "../" + root_.filename().string() + "/real");
  for (const char* name :
       {"absolute/secret", "relative/secret", "real/up/secret", "chain/secret"}) {
    EXPECT_EQ(open(name), EXDEV) << name;
    EXPECT_EQ(beneath(name), EXDEV) << name;
  }
  EXPECT_EQ(beneath("back/file"), EXDEV);
}

TEST_F(LinkedDirectories, that_stay_inside_are_followed) {
  link("current", "real");
  link("real/self", "../real/./deep");
  link("hop", "current/self");
  for (const char* name : {"current/file", "real/self/file", "hop/file", "current/deep/file"}) {
    EXPECT_EQ(open(name), 0) << name;
    EXPECT_EQ(beneath(name), 0) << name;
  }
  EXPECT_EQ(open("//current/./file"), 0);
}

TEST_F(LinkedDirectories, that_never_end_or_lead_nowhere_fail) {
  link("loop", "loop");
  link("nowhere", "missing");
  link("to a file", "real/file");
  EXPECT_EQ(beneath("loop/file"), ELOOP);
  EXPECT_EQ(beneath("nowhere/file"), ENOENT);
  EXPECT_EQ(beneath("to a file/x"), ENOTDIR);
  EXPECT_EQ(beneath("to a file"), ELOOP);
  EXPECT_EQ(beneath("missing"), ENOENT);
}

TEST_F(LinkedDirectories, the_root_itself_may_be_a_link) {
  const std::string way = root_.string() + "-way";
  fs::create_symlink(root_, way);
  store_.set_root(1, way);
  EXPECT_EQ(open("real/file"), 0);
  fs::remove(way);
}

}  // namespace
}  // namespace pkgdist::lead
