// A memory file system of a given size that only the calling process sees, to run out of space in.
#ifndef TESTS_UNIT_PLATFORM_SMALL_FILESYSTEM_H
#define TESTS_UNIT_PLATFORM_SMALL_FILESYSTEM_H

#include <sched.h>
#include <sys/mount.h>

#include <string>

// Mounts it over `directory`; for child processes. False where neither privileges nor user
// namespaces allow that.
inline bool mount_small_filesystem(const std::string& directory, const std::string& size) {
  if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  return mount("none", directory.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

inline bool resize_small_filesystem(const std::string& directory, const std::string& size) {
  return mount("none", directory.c_str(), "tmpfs", MS_REMOUNT, ("size=" + size).c_str()) == 0;
}

constexpr int kNoSmallFilesystem = 77;  // exit status of a child that could not mount it

#endif
