// The objects that processes leave for readers outside, statistics (/dev/shm/pkgdist-stat.PID) and
// traces (/dev/shm/pkgdist-trace.PID): finding them, reading them, and telling whether their owner
// still runs.
//
// Rule: everything is read with pread(), never through a mapping. An object that is cut short while
// it is read gives a short read and not a signal, and holes of a sparse file stay holes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace pkgdist::tools {

// What is wrong with an object, in words that begin with its path.
struct BadObject : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One open object.
class ObjectFile {
 public:
  // Throws BadObject.
  explicit ObjectFile(std::string path);
  ObjectFile(const ObjectFile&) = delete;
  ObjectFile& operator=(const ObjectFile&) = delete;
  ~ObjectFile();

  const std::string& path() const { return path_; }
  uint64_t size() const;  // now; it may grow
  uint64_t inode() const { return inode_; }

  // Fills `size` bytes from `offset`; throws BadObject when the object ends before.
  void read(uint64_t offset, void* to, uint64_t size) const;

  [[noreturn]] void refuse(const std::string& why) const;

 private:
  std::string path_;
  int fd_ = -1;
  uint64_t inode_ = 0;
};

struct FoundObject {
  pid_t pid = 0;  // as its name says
  std::string path;
};

// The names in a directory, also while it changes or goes away (/proc/PID/...). Nothing when it is
// not there or may not be looked at.
std::optional<std::vector<std::string>> names_in(const std::string& directory);

// Every object "PREFIX<pid>" of a directory, by pid.
std::vector<FoundObject> find_objects(const std::string& directory, const std::string& prefix);

// Whether the process `pid` of now is the one that made the object, and not a later one with its
// number: it has the object mapped. Where that may not be looked at (another user's process), it
// must have been started before the object was made (`created_ns` of the wall clock).
bool owner_runs(pid_t pid, const std::string& path, uint64_t inode, uint64_t created_ns);

// The inodes of all objects that any process has mapped, of those that may be looked at. A child of
// a process that is gone may still count in its parent's object.
std::vector<uint64_t> mapped_objects();

// What `clean_objects` did with an object: "removed", or why not.
struct Cleaned {
  std::string path;
  bool removed = false;
  std::string problem;  // empty for those that were removed
};

// Removes objects of either kind whose owner no longer runs and that nobody has mapped. Those in
// use are not mentioned. What cannot be read counts as an object of `pid` that was made when its
// file changed last.
std::vector<Cleaned> clean_objects(const std::string& directory);

// Directory of the traces: PKGDIST_TRACE_DIR, or that of shared memory.
std::string trace_directory();
inline constexpr const char* kShmDirectory = "/dev/shm";

// "2026-11-20 17:12:21" in local time, with so many decimals (0, 3 or 6).
std::string local_time(uint64_t realtime_ns, int decimals = 0);

}  // namespace pkgdist::tools
