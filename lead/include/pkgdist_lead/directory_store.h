// The lead's content in directories: one root for each storage location.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "pkgdist_lead/content.h"
#include "pkgdist_lead/push.h"

namespace pkgdist::lead {

class DirectoryStore : public ContentStore {
 public:
  // Empty: the location has none any longer.
  void set_root(uint32_t location, std::string directory);
  // The root of a location, empty when it has none.
  std::string root(uint32_t location) const;

  // Regular files and symbolic links (as links, never what they point to). ENOENT also for a
  // location without a root; EISDIR for a directory, ENXIO for other kinds of files, EXDEV for what
  // lies behind a link of a directory that leads out of the root.
  int open(uint32_t location, const std::string& name, FileAttributes& attributes,
           std::unique_ptr<Content>& content) override;

 private:
  std::map<uint32_t, std::string> roots_;
};

// What a push of some paths consists of.
struct FileTree {
  // Each once, sorted by name, links behind everything else: a node makes a file's directories, but
  // not a link's.
  std::vector<PushFile> files;
  // Below the root: that these are in, and those that were walked.
  std::vector<std::string> directories;
  // A directory that was walked because it, or one above it, is among the paths.
  struct Walked {
    std::string name;   // "." for the root
    uint32_t mode = 0;  // permissions and the three bits above them
    int64_t mtime = 0;  // seconds
  };
  std::vector<Walked> walked;         // sorted by name
  bool all_read = true;               // each of them could be read
  std::vector<std::string> warnings;  // times that do not travel
  // What cannot travel or be read, by name; the rest can be pushed without it.
  struct LeftOut {
    std::string name;  // of a file, or of a directory with all that is in it
    std::string reason;
  };
  std::vector<LeftOut> left_out;
  std::vector<std::string> problems;  // paths that are wrong: the push must not begin
};

// Collects regular files and symbolic links below `root`. A path is a file or directory, relative
// to the root, or absolute or relative to the working directory and inside the root. Directories
// are walked without following links. What cannot travel (a name that is too long, a file of 4 GiB
// and more, a link target of more than 255 bytes, a pipe, a socket, a device) or may not be read is
// left out and named; what changes until its turn comes fails then.
FileTree collect_files(const std::string& root, const std::vector<std::string>& paths);

}  // namespace pkgdist::lead
