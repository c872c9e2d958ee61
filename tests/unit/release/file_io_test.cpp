// Opening beneath a directory: by the kernel, and step by step where it cannot.
#include "file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "release_support.h"

namespace pkgdist::release {
namespace {

namespace fs = std::filesystem;
using release_test::TempTree;
using Opens = int (*)(int, const char*, int, unsigned);

class OpenBeneath : public testing::TestWithParam<Opens> {
 protected:
  void SetUp() override {
    fs::create_directories(top() / "a/b");
    std::ofstream(top() / "a/b/file") << "text";
    std::ofstream(fs::path(tree_.path()) / "outside") << "text";
    fs::create_directory_symlink("a", top() / "link");
    fs::create_symlink("file", top() / "a/b/last");
    ASSERT_EQ(mkfifo((top() / "pipe").c_str(), 0600), 0);
    directory_ = Fd(::open(top().c_str(), O_PATH | O_DIRECTORY));
  }
  fs::path top() const { return fs::path(tree_.path()) / "top"; }
  // 0, or the error.
  int error_of(const std::string& path, int flags = O_RDONLY) const {
    const Fd file(GetParam()(directory_.get(), path.c_str(), flags, 0600));
    return file ? 0 : errno;
  }

  TempTree tree_;
  Fd directory_;
};

INSTANTIATE_TEST_SUITE_P(Ways, OpenBeneath, testing::Values(open_beneath, open_beneath_by_steps));

TEST_P(OpenBeneath, finds_what_is_there) {
  for (const char* path : {"a/b/file", "./a/./b/file", "a//b/file"})
    EXPECT_EQ(error_of(path), 0) << path;
  EXPECT_EQ(error_of("a/b", O_RDONLY | O_DIRECTORY), 0);
  EXPECT_EQ(error_of(".", O_PATH | O_DIRECTORY), 0);
}

TEST_P(OpenBeneath, makes_a_file_with_its_mode) {
  EXPECT_EQ(error_of("a/new", O_WRONLY | O_CREAT | O_EXCL), 0);
  EXPECT_EQ(fs::status(top() / "a/new").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(error_of("a/new", O_WRONLY | O_CREAT | O_EXCL), EEXIST);
}

TEST_P(OpenBeneath, follows_no_link) {
  EXPECT_EQ(error_of("link/b/file"), ELOOP);
  EXPECT_EQ(error_of("link/b", O_PATH | O_DIRECTORY), ELOOP);
  EXPECT_EQ(error_of("a/b/last"), ELOOP);
  EXPECT_EQ(error_of("a/b/last", O_PATH), 0) << "the link itself";
}

TEST_P(OpenBeneath, does_not_lead_out) {
  EXPECT_EQ(error_of("../outside"), EXDEV);
  EXPECT_EQ(error_of("a/../../outside"), EXDEV);
  EXPECT_EQ(error_of((top() / "a/b/file").string()), EXDEV);
}

TEST_P(OpenBeneath, says_what_is_missing_and_what_is_no_directory) {
  EXPECT_EQ(error_of(""), ENOENT);
  EXPECT_EQ(error_of("a/none/file"), ENOENT);
  EXPECT_EQ(error_of("a/b/file/deeper"), ENOTDIR);
}

TEST_P(OpenBeneath, does_not_wait_for_a_pipe) {
  EXPECT_EQ(error_of("pipe"), 0);
}

}  // namespace
}  // namespace pkgdist::release
