// The life of the trace file: processes that end, crash, fork and run out of space.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "child.h"
#include "platform/qtrace.h"
#include "small_filesystem.h"
#include "temp_dir.h"
#include "trace_reader.h"

namespace {

int open_ring(const char* name, uint32_t records, qtrace_handle_t* handle) {
  return qtrace_open_internal(name, records, 1, "path", "id", 0, handle);
}

// Runs in a child: opens a ring in `directory` and writes one record.
int record_one(const TempDir& directory, uint32_t point) {
  setenv("PKGDIST_TRACE_DIR", directory.path().c_str(), 1);
  qtrace_handle_t handle = 0;
  if (open_ring("ring", 8, &handle) != 0) return 1;
  qtrace_internal(handle, point, 0, 0, "s", "unused", "text");
  return 0;
}

TEST(QtraceProcesses, file_survives_a_kill) {
  const TempDir dir;
  Child child([&] { return record_one(dir, 5) + kill(getpid(), SIGKILL); });
  EXPECT_EQ(-SIGKILL, child.wait());
  const TraceReader trace(dir.path(), child.pid());
  ASSERT_TRUE(trace);
  const auto record = trace.record(*trace.ring("ring"), 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(5u, record->point);
  EXPECT_EQ(static_cast<uint32_t>(child.pid()), record->thread);
}

TEST(QtraceProcesses, file_is_removed_on_orderly_exit) {
  const TempDir dir;
  Child child([&] { return record_one(dir, 5); }, true);
  EXPECT_EQ(0, child.wait());
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(QtraceProcesses, the_environment_can_keep_the_file) {
  const TempDir dir;
  Child child(
      [&] {
        setenv("PKGDIST_KEEP_TRACE", "1", 1);
        return record_one(dir, 5);
      },
      true);
  EXPECT_EQ(0, child.wait());
  EXPECT_TRUE(TraceReader(dir.path(), child.pid()));
}

TEST(QtraceProcesses, default_directory_is_dev_shm) {
  Child child(
      [&] {
        unsetenv("PKGDIST_TRACE_DIR");
        qtrace_handle_t handle = 0;
        if (open_ring("ring", 8, &handle) != 0) return 1;
        return TraceReader("/dev/shm", getpid()) ? 0 : 2;
      },
      true);
  EXPECT_EQ(0, child.wait());
  EXPECT_FALSE(TraceReader("/dev/shm", child.pid()));
}

TEST(QtraceProcesses, a_leftover_of_a_recycled_pid_is_replaced) {
  const TempDir dir;
  Child child([&] {
    std::ofstream(dir / (QTRACE_LAYOUT_FILE_PREFIX + std::to_string(getpid()))) << "old bytes";
    if (record_one(dir, 5) != 0) return 1;
    const TraceReader trace(dir.path(), getpid());
    return trace && trace.header().ring_count == 1 ? 0 : 2;
  });
  EXPECT_EQ(0, child.wait());
}

// A directory stands for another user's leftover: not even the superuser can unlink it.
TEST(QtraceProcesses, a_leftover_that_cannot_be_removed_costs_the_name_and_not_the_trace) {
  const TempDir dir;
  Child child([&] {
    const std::string name = dir / (QTRACE_LAYOUT_FILE_PREFIX + std::to_string(getpid()));
    if (mkdir(name.c_str(), 0700) != 0) return 1;
    if (record_one(dir, 5) != 0) return 2;
    struct stat status {};
    return stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? 0 : 3;
  });
  EXPECT_EQ(0, child.wait());
}

TEST(QtraceProcesses, open_failures_are_reported) {
  const TempDir dir;
  Child child([&] {
    qtrace_handle_t handle = 7;
    setenv("PKGDIST_TRACE_DIR", (dir / "missing").c_str(), 1);
    if (open_ring("ring", 8, &handle) != ENOENT) return 1;
    setenv("PKGDIST_TRACE_DIR", (dir / std::string(5000, 'n')).c_str(), 1);
    if (open_ring("ring", 8, &handle) != ENAMETOOLONG) return 2;
    if (handle != 7) return 3;
    return record_one(dir, 1);  // and a later attempt may succeed
  });
  EXPECT_EQ(0, child.wait());
}

TEST(QtraceProcesses, a_process_has_room_for_64_rings) {
  const TempDir dir;
  Child child([&] {
    setenv("PKGDIST_TRACE_DIR", dir.path().c_str(), 1);
    qtrace_handle_t handle = 0;
    for (int i = 0; i < 64; ++i) {
      if (open_ring(std::to_string(i).c_str(), 1, &handle) != 0) return 1;
    }
    return open_ring("another", 1, &handle) == ENOSPC ? 0 : 2;
  });
  EXPECT_EQ(0, child.wait());
}

TEST(QtraceProcesses, a_forked_child_opens_a_file_of_its_own) {
  const TempDir dir;
  Child parent([&] {
    setenv("PKGDIST_TRACE_DIR", dir.path().c_str(), 1);
    qtrace_handle_t before = 0;
    if (open_ring("ring", 8, &before) != 0) return 1;
    qtrace_internal(before, 1, 0, 0, "", "unused");
    Child child(
        [&] {
          qtrace_handle_t mine = 0;
          if (open_ring("ring", 8, &mine) != 0 || mine == before) return 1;
          qtrace_internal(mine, 2, 0, 0, "", "unused");
          qtrace_internal(before, 3, 0, 0, "", "unused");  // still the parent's ring
          const TraceReader own(dir.path(), getpid());
          if (!own || own.ring("ring")->next != 1) return 2;
          return own.record(*own.ring("ring"), 0)->point == 2 ? 0 : 3;
        },
        true);
    if (child.wait() != 0) return 2;
    const TraceReader own(dir.path(), getpid());  // the child's exit left it alone
    if (!own || own.ring("ring")->next != 2) return 3;
    const auto from_child = own.record(*own.ring("ring"), 1);
    if (!from_child || from_child->point != 3) return 4;
    return from_child->thread == static_cast<uint32_t>(child.pid()) ? 0 : 5;
  });
  EXPECT_EQ(0, parent.wait());
}

// A full file system must cost records, never the process. Runs in a child.
int trace_without_space(const TempDir& dir) {
  // Space for the header and one chunk of 256 records, 64 KiB each, and half of the next.
  if (!mount_small_filesystem(dir.path(), "160k")) return kNoSmallFilesystem;
  setenv("PKGDIST_TRACE_DIR", dir.path().c_str(), 1);
  qtrace_handle_t handle = 0;
  if (open_ring("ring", 1000, &handle) != 0) return 1;
  for (uint32_t i = 0; i < 300; ++i) qtrace_internal(handle, i, 0, 0, "", "unused");
  const TraceReader trace(dir.path(), getpid());
  const qtrace_layout_ring* ring = trace.ring("ring");
  if (ring->next != 300 || ring->lost != 300 - 256) return 2;
  if (!trace.record(*ring, 255)) return 3;
  if (!resize_small_filesystem(dir.path(), "1m")) return 4;
  qtrace_internal(handle, 300, 0, 0, "", "unused");
  return trace.record(*ring, 300) ? 0 : 5;  // with space again, recording goes on
}

TEST(QtraceProcesses, without_space_records_are_left_out_and_counted) {
  const TempDir dir;
  Child child([&] { return trace_without_space(dir); });
  if (child.wait() == kNoSmallFilesystem) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(0, child.wait());
}

TEST(QtraceProcesses, without_space_for_the_header_open_fails_and_leaves_no_file) {
  const TempDir dir;
  Child child([&] {
    if (!mount_small_filesystem(dir.path(), "32k")) return kNoSmallFilesystem;
    setenv("PKGDIST_TRACE_DIR", dir.path().c_str(), 1);
    qtrace_handle_t handle = 0;
    if (open_ring("ring", 8, &handle) != ENOSPC) return 1;
    return std::filesystem::is_empty(dir.path()) ? 0 : 2;
  });
  if (child.wait() == kNoSmallFilesystem) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(0, child.wait());
}

}  // namespace
