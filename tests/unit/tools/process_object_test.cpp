// Objects of processes: whose they are, whether those run, and what may be removed.
#include "process_object.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <csignal>
#include <set>

#include "child.h"
#include "trace_files.h"

using namespace pkgdist::tools;

namespace {

// A file of some bytes that this process has mapped.
class MappedHere {
 public:
  explicit MappedHere(const std::string& path) {
    write_bytes(path, std::string(4096, 'x'));
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    base_ = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    EXPECT_NE(MAP_FAILED, base_);
  }
  MappedHere(const MappedHere&) = delete;
  MappedHere& operator=(const MappedHere&) = delete;
  ~MappedHere() { munmap(base_, 4096); }

 private:
  void* base_ = nullptr;
};

pid_t dead_process() {
  Child child([] { return 0; });
  EXPECT_EQ(0, child.wait());
  return child.pid();
}

std::string object(const TempDir& directory, const char* kind, pid_t pid) {
  return directory / ("pkgdist-" + std::string(kind) + "." + std::to_string(pid));
}

TEST(ProcessObject, only_names_with_a_number_behind_the_prefix_are_found) {
  const TempDir directory;
  for (const char* name : {"pkgdist-stat.12", "pkgdist-stat.3", "pkgdist-stat.", "pkgdist-stat.1x",
                           "pkgdist-stat.-1", "pkgdist-stat.0", "other.4", "pkgdist-trace.5"})
    write_bytes(directory / name, "");
  const auto found = find_objects(directory.path(), "pkgdist-stat.");
  ASSERT_EQ(2u, found.size());
  EXPECT_EQ(3, found[0].pid);
  EXPECT_EQ(12, found[1].pid);
  EXPECT_EQ(directory / "pkgdist-stat.12", found[1].path);
}

TEST(ProcessObject, a_process_that_has_its_object_mapped_runs) {
  const TempDir directory;
  const std::string path = object(directory, "stat", getpid());
  const MappedHere mapped(path);
  EXPECT_TRUE(owner_runs(getpid(), path, inode_of(path), 0)) << "whatever the time says";
}

TEST(ProcessObject, a_later_process_with_the_number_is_not_the_owner) {
  const TempDir directory;
  const std::string path = object(directory, "stat", getpid());
  write_bytes(path, "of an earlier process with our number");
  EXPECT_FALSE(owner_runs(getpid(), path, inode_of(path), UINT64_MAX / 2));
  const MappedHere replaced(object(directory, "trace", getpid()));
  EXPECT_FALSE(owner_runs(getpid(), path, inode_of(path), UINT64_MAX / 2)) << "another object";
}

TEST(ProcessObject, dead_and_unreaped_processes_do_not_run) {
  const TempDir directory;
  const pid_t dead = dead_process();
  EXPECT_FALSE(owner_runs(dead, object(directory, "stat", dead), 1, UINT64_MAX / 2));
  Child child([] { return raise(SIGKILL); });
  siginfo_t info{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT));
  EXPECT_FALSE(owner_runs(child.pid(), object(directory, "stat", child.pid()), 1, UINT64_MAX / 2));
  child.wait();
}

TEST(ProcessObject, cleaning_removes_what_nobody_uses_and_nothing_else) {
  const TempDir directory;
  setenv("PKGDIST_TRACE_DIR", directory.path().c_str(), 1);
  const pid_t dead = dead_process(), parent = dead_process();
  write_bytes(object(directory, "stat", dead), "short");
  write_bytes(object(directory, "trace", dead), std::string(4096, 'x'));
  write_bytes(object(directory, "stat", getpid()), "of an earlier process with our number");
  write_bytes(directory / "pkgdist-stat.backup", "");
  const MappedHere ours(object(directory, "trace", getpid()));
  const MappedHere of_parent(object(directory, "stat", parent));  // as a forked child has it

  std::vector<std::string> removed;
  for (const Cleaned& cleaned : clean_objects(directory.path())) {
    EXPECT_TRUE(cleaned.removed) << cleaned.problem;
    removed.push_back(cleaned.path);
  }
  trace_directory_of_tests();
  EXPECT_EQ(
      (std::set<std::string>{object(directory, "stat", dead), object(directory, "trace", dead),
                             object(directory, "stat", getpid())}),
      std::set<std::string>(removed.begin(), removed.end()));
  for (const std::string& path : removed) EXPECT_EQ(0u, inode_of(path)) << path;
  for (const std::string& path :
       {directory / "pkgdist-stat.backup", object(directory, "trace", getpid()),
        object(directory, "stat", parent)})
    EXPECT_NE(0u, inode_of(path)) << path;
}

TEST(ProcessObject, what_is_no_regular_file_is_refused) {
  const TempDir directory;
  EXPECT_THROW(ObjectFile(directory.path()), BadObject);
  EXPECT_THROW(ObjectFile(directory / "absent"), BadObject);
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  EXPECT_THROW(ObjectFile{fifo}, BadObject) << "and it does not wait for a writer";
}

}  // namespace
