#include "storage_trouble.h"

#include <fmt/core.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "beneath.h"
#include "last_error.h"
#include "pkgdist/status.h"

namespace pkgdist::node_program {

namespace {

constexpr char kMemoryDirectory[] = "/dev/shm";
// Bytes of a whole path in the library.
constexpr size_t kMaxWholePath = 255;
// A write that ended short with more room than this was not stopped by a full disk: a batch of
// datagrams has less.
constexpr uint64_t kRoomOfOneWrite = 1 << 20;

struct FileSystem {
  std::string directory;  // the one that was looked at
  uint64_t free_bytes = 0;
  uint64_t bytes = 0;
  bool no_inodes = false;
  bool read_only = false;

  std::string full() const {
    return fmt::format("the disk is full: {} of {} bytes are free at {}", free_bytes, bytes,
                       directory);
  }
  std::string out_of_inodes() const { return "no inodes are left at " + directory; }
  std::string sealed() const { return directory + " is on a read-only file system"; }
};

FileSystem file_system_of(const std::string& directory, const struct statvfs& found) {
  const bool root = ::geteuid() == 0;  // what is reserved is for root
  FileSystem result;
  result.directory = directory;
  result.free_bytes = uint64_t{root ? found.f_bfree : found.f_bavail} * found.f_frsize;
  result.bytes = uint64_t{found.f_blocks} * found.f_frsize;
  // Some file systems make inodes as they are needed, and count none.
  result.no_inodes = found.f_files != 0 && (root ? found.f_ffree : found.f_favail) == 0;
  result.read_only = (found.f_flag & ST_RDONLY) != 0;
  return result;
}

// Of the directory of `path`, or of what there is of it.
FileSystem file_system_at(const std::string& path) {
  std::filesystem::path at = path;
  while (at.has_relative_path()) {
    at = at.parent_path();
    const std::string directory = at.empty() ? "." : at.string();
    struct statvfs found {};
    if (::statvfs(directory.c_str(), &found) == 0) return file_system_of(directory, found);
  }
  return {};
}

size_t longest_component(const std::string& name) {
  size_t longest = 0;
  for (const auto& part : std::filesystem::path(name))
    longest = std::max(longest, part.string().size());
  return longest;
}

bool is_status_of(uint64_t status, int error) {
  return status == PKGDIST_STATUS_FROM_ERRNO(static_cast<uint64_t>(error));
}

}  // namespace

void StorageTrouble::add_location(uint32_t number, const std::string& path, bool memory) {
  locations_[number] = {path, memory};
}

std::string StorageTrouble::reason(uint32_t location, const std::string& name,
                                   uint64_t status) const {
  const auto found = locations_.find(location);
  if (status == 0 || found == locations_.end()) return "";
  if (is_status_of(status, ENAMETOOLONG))
    return fmt::format("a part of the name has {} bytes, {} of them for a partial file's suffix",
                       longest_component(name) + sizeof kPartialSuffix - 1,
                       sizeof kPartialSuffix - 1);
  if (status == PKGDIST_ERR_INVALID) return refusal(location, name);
  const bool memory = found->second.memory;
  const FileSystem at =
      file_system_at(memory ? std::string(kMemoryDirectory) + "/" : found->second.path + name);
  const bool short_write = status == PKGDIST_ERR_WRITE;
  if (is_status_of(status, ENOSPC)) return at.no_inodes ? at.out_of_inodes() : at.full();
  if (short_write && at.free_bytes < kRoomOfOneWrite) return at.full();
  if (short_write)
    return fmt::format(
        "{} bytes are free at {}: a quota is used up, or the size of files is limited",
        at.free_bytes, at.directory);
  if (is_status_of(status, EDQUOT))
    return fmt::format("the quota of user {} is used up at {}", ::geteuid(), at.directory);
  if (is_status_of(status, EROFS)) return at.sealed();
  // What becomes of a file when its directory cannot be made, or its partial file is gone.
  if (!is_status_of(status, ENOENT) && !is_status_of(status, EACCES)) return "";
  if (at.read_only) return at.sealed();
  if (at.free_bytes == 0 && at.bytes != 0) return at.full();
  return at.no_inodes ? at.out_of_inodes() : "";
}

std::string StorageTrouble::text(uint32_t location, const std::string& name,
                                 uint64_t status) const {
  const std::string why = reason(location, name, status);
  return status_with_error(status) + (why.empty() ? "" : ": " + why);
}

std::string StorageTrouble::refusal(uint32_t location, const std::string& name) const {
  const auto found = locations_.find(location);
  if (found == locations_.end()) return fmt::format("there is no --location {}", location);
  const size_t suffix = found->second.memory ? 0 : sizeof kPartialSuffix - 1;
  const size_t length = found->second.path.size() + name.size() + suffix;
  if (length <= kMaxWholePath) return "";
  return fmt::format("the name is too long: {} bytes with its location{}, {} at most", length,
                     suffix == 0 ? "" : " and .tmp", kMaxWholePath);
}

}  // namespace pkgdist::node_program
