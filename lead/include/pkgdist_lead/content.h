// The lead's view of the files that it distributes: opened by location and name, read by offset, so
// that content never has to be in memory as a whole. Programs back it with directories, tests with
// memory.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace pkgdist::lead {

// What a file's information carries. A symbolic link's content is its target.
struct FileAttributes {
  uint64_t size = 0;   // bytes
  uint32_t mode = 0;   // permission bits
  uint32_t mtime = 0;  // seconds since the epoch
  bool symlink = false;
  // Differs between two states of a file that have different content; never sent.
  uint64_t version = 0;

  bool operator==(const FileAttributes&) const = default;
};

class Content {
 public:
  virtual ~Content() = default;

  // Fills `out` with the bytes from `offset` on, as they were when the content was opened. 0, or an
  // errno value: ESTALE when the file was changed since, EIO when it has become too short.
  virtual int read(uint64_t offset, std::span<uint8_t> out) = 0;
};

class ContentStore {
 public:
  virtual ~ContentStore() = default;

  // Opens a regular file or symbolic link. 0 with attributes and content set, or an errno value.
  virtual int open(uint32_t location, const std::string& name, FileAttributes& attributes,
                   std::unique_ptr<Content>& content) = 0;
};

}  // namespace pkgdist::lead
