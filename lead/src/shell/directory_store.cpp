#include "pkgdist_lead/directory_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "pkgdist/wire_data.h"
#include "pkgdist_lead/names.h"
#include "shell/beneath.h"

namespace pkgdist::lead {

namespace {

constexpr mode_t kPermissions = 07777;

// Of a file's states: a write moves the time of its last change before it touches a byte, another
// file in its place has another number.
uint64_t version_of(const struct stat& status) {
  constexpr uint64_t kMix = 0x9E3779B97F4A7C15u;
  uint64_t version = status.st_dev;
  for (const uint64_t part : {uint64_t{status.st_ino}, static_cast<uint64_t>(status.st_size),
                              static_cast<uint64_t>(status.st_mtim.tv_sec),
                              static_cast<uint64_t>(status.st_mtim.tv_nsec)})
    version = (version ^ part) * kMix;
  return version;
}

class OpenFile : public Content {
 public:
  explicit OpenFile(Descriptor fd) : fd_(std::move(fd)) {}

  int read(uint64_t offset, std::span<uint8_t> out) override {
    while (!out.empty()) {
      const ssize_t got = ::pread(fd_.get(), out.data(), out.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return got < 0 ? errno : EIO;
      out = out.subspan(static_cast<size_t>(got));
      offset += static_cast<uint64_t>(got);
    }
    // Afterwards: what was read before a change is older than the change.
    struct stat status {};
    if (::fstat(fd_.get(), &status) != 0) return errno;
    return version_of(status) == version_ ? 0 : ESTALE;
  }

  void opened_as(uint64_t version) { version_ = version; }

 private:
  Descriptor fd_;
  uint64_t version_ = 0;
};

class LinkTarget : public Content {
 public:
  explicit LinkTarget(std::string target) : target_(std::move(target)) {}

  int read(uint64_t offset, std::span<uint8_t> out) override {
    if (offset + out.size() > target_.size()) return EIO;
    std::copy_n(target_.begin() + static_cast<ptrdiff_t>(offset), out.size(), out.begin());
    return 0;
  }

 private:
  std::string target_;
};

// Times before 1970 and after 2106 have no place in a file's information.
uint32_t sent_time(time_t time) {
  return static_cast<uint32_t>(std::clamp<int64_t>(time, 0, UINT32_MAX));
}

FileAttributes attributes_of(const struct stat& status) {
  return {static_cast<uint64_t>(status.st_size), status.st_mode & kPermissions,
          sent_time(status.st_mtime), S_ISLNK(status.st_mode), version_of(status)};
}

int open_link(int root, const std::string& name, FileAttributes& attributes,
              std::unique_ptr<Content>& content) {
  const Descriptor link = open_beneath(root, name, O_PATH);
  struct stat status {};
  if (!link || ::fstat(link.get(), &status) != 0) return errno;
  if (!S_ISLNK(status.st_mode)) return ELOOP;
  std::string target;
  if (const int error = read_link(link.get(), PKGDIST_SYMLINK_TARGET_MAX + 1, target); error != 0)
    return error;
  attributes = attributes_of(status);
  attributes.size = target.size();
  content = std::make_unique<LinkTarget>(std::move(target));
  return 0;
}

}  // namespace

void DirectoryStore::set_root(uint32_t location, std::string directory) {
  if (directory.empty())
    roots_.erase(location);
  else
    roots_[location] = std::move(directory);
}

std::string DirectoryStore::root(uint32_t location) const {
  const auto found = roots_.find(location);
  return found != roots_.end() ? found->second : std::string();
}

int DirectoryStore::open(uint32_t location, const std::string& name, FileAttributes& attributes,
                         std::unique_ptr<Content>& content) {
  const auto found = roots_.find(location);
  if (found == roots_.end() || name_problem(name) != nullptr) return ENOENT;
  const std::string plain = plain_name(name);
  if (plain.empty()) return EISDIR;
  // Each time anew: another directory may stand there by now.
  const Descriptor root(::open(found->second.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root) return errno;
  // Not blocking, so that a pipe in the tree does not stop the lead.
  Descriptor fd = open_beneath(root.get(), plain, O_RDONLY | O_NONBLOCK);
  if (!fd) return errno == ELOOP ? open_link(root.get(), plain, attributes, content) : errno;
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return ENXIO;
  auto file = std::make_unique<OpenFile>(std::move(fd));
  attributes = attributes_of(status);
  file->opened_as(attributes.version);
  content = std::move(file);
  return 0;
}

}  // namespace pkgdist::lead
