// A directory of a test's own that goes away with everything in it.
#ifndef TESTS_UNIT_PLATFORM_TEMP_DIR_H
#define TESTS_UNIT_PLATFORM_TEMP_DIR_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

class TempDir {
 public:
  TempDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "platform-test-XXXXXX").string();
    EXPECT_NE(nullptr, mkdtemp(pattern.data()));
    path_ = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

#endif
