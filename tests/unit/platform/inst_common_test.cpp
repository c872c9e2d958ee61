#include "platform/inst_common.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(InstCommon, switches_start_silent_and_the_lock_is_ready) {
  EXPECT_EQ(0, g_inst_common_debug_verbosity_level);
  EXPECT_EQ(0, g_inst_common_debug_prefix);
  EXPECT_EQ(0, pthread_mutex_trylock(&atomic_mutex));
  EXPECT_EQ(0, pthread_mutex_unlock(&atomic_mutex));
}

TEST(InstCommon, creates_every_missing_directory_but_not_the_file) {
  const TempDir dir;
  const std::string path = dir / "a/b/c/file";
  EXPECT_EQ(0, instcomm_create_filepath_dirs(path.c_str()));
  EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
  EXPECT_FALSE(fs::exists(path));
}

TEST(InstCommon, a_path_that_ends_in_a_slash_names_directories_only) {
  const TempDir dir;
  EXPECT_EQ(0, instcomm_create_filepath_dirs((dir / "a/b/").c_str()));
  EXPECT_TRUE(fs::is_directory(dir / "a/b"));
}

TEST(InstCommon, existing_directories_are_no_error) {
  const TempDir dir;
  const std::string path = dir / "a/b/file";
  EXPECT_EQ(0, instcomm_create_filepath_dirs(path.c_str()));
  EXPECT_EQ(0, instcomm_create_filepath_dirs(path.c_str()));
}

TEST(InstCommon, repeated_slashes_are_one) {
  const TempDir dir;
  EXPECT_EQ(0, instcomm_create_filepath_dirs((dir / "//a///b//file").c_str()));
  EXPECT_TRUE(fs::is_directory(dir / "a/b"));
}

TEST(InstCommon, paths_without_a_directory_create_nothing) {
  EXPECT_EQ(0, instcomm_create_filepath_dirs("file"));
  EXPECT_EQ(0, instcomm_create_filepath_dirs("/file"));
  EXPECT_EQ(0, instcomm_create_filepath_dirs(""));
  EXPECT_FALSE(fs::exists("file"));
}

TEST(InstCommon, relative_paths_start_at_the_working_directory) {
  const TempDir dir;
  Child child([&] {
    if (chdir(dir.path().c_str()) != 0) return 1;
    return instcomm_create_filepath_dirs("x/./y/../z/file") == 0 ? 0 : 2;
  });
  EXPECT_EQ(0, child.wait());
  EXPECT_TRUE(fs::is_directory(dir / "x/y"));
  EXPECT_TRUE(fs::is_directory(dir / "x/z"));
}

TEST(InstCommon, follows_a_symbolic_link_to_a_directory) {
  const TempDir dir;
  fs::create_directory(dir / "real");
  fs::create_directory_symlink(dir / "real", dir / "link");
  EXPECT_EQ(0, instcomm_create_filepath_dirs((dir / "link/a/file").c_str()));
  EXPECT_TRUE(fs::is_directory(dir / "real/a"));
}

TEST(InstCommon, a_file_in_place_of_a_directory_is_enotdir) {
  const TempDir dir;
  std::ofstream(dir / "plain") << "x";
  errno = 0;
  EXPECT_EQ(-1, instcomm_create_filepath_dirs((dir / "plain/file").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
  errno = 0;
  EXPECT_EQ(-1, instcomm_create_filepath_dirs((dir / "plain/a/file").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST(InstCommon, reports_why_a_directory_cannot_be_made) {
  const TempDir dir;
  errno = 0;
  EXPECT_EQ(-1, instcomm_create_filepath_dirs((dir / std::string(300, 'n') + "/file").c_str()));
  EXPECT_EQ(ENAMETOOLONG, errno);
  errno = 0;
  EXPECT_EQ(-1, instcomm_create_filepath_dirs(nullptr));
  EXPECT_EQ(EINVAL, errno);
}

TEST(InstCommon, directories_have_every_permission_that_the_umask_leaves) {
  const TempDir dir;
  const mode_t before = umask(027);
  EXPECT_EQ(0, instcomm_create_filepath_dirs((dir / "a/file").c_str()));
  umask(before);
  struct stat found = {};
  ASSERT_EQ(0, stat((dir / "a").c_str(), &found));
  EXPECT_EQ(0750u, found.st_mode & 0777u);
}

TEST(InstCommon, threads_that_create_the_same_directories_all_succeed) {
  const TempDir dir;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        const std::string path = dir / std::to_string(i) + "/a/b/file";
        if (instcomm_create_filepath_dirs(path.c_str()) != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
  EXPECT_TRUE(fs::is_directory(dir / "99/a/b"));
}

TEST(InstCommon, symlink_points_to_the_target_as_written) {
  const TempDir dir;
  EXPECT_EQ(0, inst_symlink("../some/where", (dir / "link").c_str()));
  EXPECT_EQ("../some/where", fs::read_symlink(dir / "link"));
}

TEST(InstCommon, symlink_leaves_what_stands_at_its_place) {
  const TempDir dir;
  std::ofstream(dir / "taken") << "x";
  errno = 0;
  EXPECT_EQ(-1, inst_symlink("target", (dir / "taken").c_str()));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_TRUE(fs::is_regular_file(dir / "taken"));
}

TEST(InstCommon, symlink_rejects_null) {
  EXPECT_EQ(-1, inst_symlink(nullptr, "link"));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, inst_symlink("target", nullptr));
  EXPECT_EQ(EINVAL, errno);
}

}  // namespace
