// The partial files that this process would leave behind: "NAME.tmp" of a reception that failed
// while it wrote or when the file was to get its final name, and at the end of the process those
// that it is still writing.
//
// Only what is surely a partial file of this process is removed: a plain file with one name, owned
// by this process's user and changed since this process began, beneath its location without a link
// on the way. It stays when a newer reception has it open, and when the lead has listed a file of
// that very name, which then is a file like any other.
//
// Locations are added before anything is received; everything else may be called from any thread.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace pkgdist::node_program {

class PartialFiles {
 public:
  PartialFiles();
  ~PartialFiles();
  PartialFiles(const PartialFiles&) = delete;
  PartialFiles& operator=(const PartialFiles&) = delete;

  void add_location(uint32_t number, const std::string& directory);
  // A list of the lead names this file.
  void note_listed(uint32_t location, const std::string& name);
  // A reception ended; after a failure to write or to rename its partial file goes.
  void on_ended(uint32_t location, const std::string& name, uint64_t status);
  // Those that this process has open for writing go. To be called when nothing is wanted any more.
  void remove_open();

 private:
  bool may_be_listed(uint32_t location, const std::string& name) const;
  void remove_open_at(uint32_t location, int directory, int fd);

  timespec since_{};                                   // when this process began
  std::map<uint32_t, int> locations_;                  // descriptors of their directories
  mutable std::mutex mutex_;                           // guards these
  std::set<std::pair<uint32_t, std::string>> listed_;  // names that end like a partial file's
};

}  // namespace pkgdist::node_program
