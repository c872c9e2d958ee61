// Why a file could not be stored, as far as its file system tells: a full disk shows as three
// different statuses, and the same status may mean another thing.
//
// Looked at when the end of a file is told, on the thread of the callbacks. What a full disk held
// of the file may be gone by then, so a status that says "full" is believed, and numbers beside it
// are those of that moment.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace pkgdist::node_program {

class StorageTrouble {
 public:
  // `path` as the library has it: a directory that ends with a slash, or the prefix of memory
  // objects.
  void add_location(uint32_t number, const std::string& path, bool memory);

  // "the disk is full: 0 of 1048576 bytes are free at /srv/data"; empty when the file system has
  // nothing to do with the status. `name`: of the file, in its location.
  std::string reason(uint32_t location, const std::string& name, uint64_t status) const;

  // The status in words, with the reason if there is one.
  std::string text(uint32_t location, const std::string& name, uint64_t status) const;

  // Why the library does not take a file that a list names; empty when it does.
  std::string refusal(uint32_t location, const std::string& name) const;

 private:
  struct Location {
    std::string path;
    bool memory = false;
  };
  std::map<uint32_t, Location> locations_;
};

}  // namespace pkgdist::node_program
