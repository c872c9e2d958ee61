#include "pkgdist_lead/directory_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include "pkgdist/wire_data.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

namespace fs = std::filesystem;

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
  explicit OpenFile(int fd) : fd_(fd) {}
  ~OpenFile() override { ::close(fd_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int read(uint64_t offset, std::span<uint8_t> out) override {
    while (!out.empty()) {
      const ssize_t got = ::pread(fd_, out.data(), out.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return got < 0 ? errno : EIO;
      out = out.subspan(static_cast<size_t>(got));
      offset += static_cast<uint64_t>(got);
    }
    // Afterwards: what was read before a change is older than the change.
    struct stat status {};
    if (::fstat(fd_, &status) != 0) return errno;
    return version_of(status) == version_ ? 0 : ESTALE;
  }

  void opened_as(uint64_t version) { version_ = version; }

 private:
  int fd_;
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

FileAttributes attributes_of(const struct stat& status) {
  return {static_cast<uint64_t>(status.st_size), status.st_mode & kPermissions,
          static_cast<uint32_t>(status.st_mtime), S_ISLNK(status.st_mode), version_of(status)};
}

int open_link(const std::string& path, FileAttributes& attributes,
              std::unique_ptr<Content>& content) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return errno;
  std::string target(PKGDIST_SYMLINK_TARGET_MAX + 1, '\0');
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return errno;
  target.resize(static_cast<size_t>(length));
  attributes = attributes_of(status);
  attributes.size = target.size();
  content = std::make_unique<LinkTarget>(std::move(target));
  return 0;
}

}  // namespace

void DirectoryStore::set_root(uint32_t location, std::string directory) {
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
  const std::string path = found->second + '/' + name;
  // Not blocking, so that a pipe in the tree does not stop the lead.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno == ELOOP ? open_link(path, attributes, content) : errno;
  auto file = std::make_unique<OpenFile>(fd);
  struct stat status {};
  if (::fstat(fd, &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return ENXIO;
  attributes = attributes_of(status);
  file->opened_as(attributes.version);
  content = std::move(file);
  return 0;
}

// --- Collecting ---

namespace {

class Collector {
 public:
  explicit Collector(const std::string& root)
      : given_root_(root), root_(fs::weakly_canonical(root).string()) {}

  void add(const std::string& path) {
    const fs::path inside = resolve(path);
    std::error_code error;
    const fs::file_status status = fs::symlink_status(inside, error);
    if (inside.empty() || !fs::exists(status))
      tree_.problems.push_back(path + ": not found below " + given_root_);
    else if (fs::is_directory(status))
      walk(inside);
    else
      add_entry(inside);
  }

  FileTree finish() {
    tree_.files.assign(files_.begin(), files_.end());
    tree_.files.insert(tree_.files.end(), links_.begin(), links_.end());
    return std::move(tree_);
  }

 private:
  struct ByName {
    bool operator()(const PushFile& a, const PushFile& b) const { return a.name < b.name; }
  };

  // The place of a path with its directory's links resolved, empty when it is not below the root.
  fs::path below_root(const fs::path& path) const {
    std::error_code error;
    const fs::path clean = path.lexically_normal();
    fs::path place = clean.has_filename() && clean.filename() != ".."
                         ? fs::weakly_canonical(clean.parent_path(), error) / clean.filename()
                         : fs::weakly_canonical(clean, error);
    if (place.filename() == ".") place = place.parent_path();
    const std::string text = place.string();
    const std::string prefix = root_ == "/" ? root_ : root_ + '/';
    const bool inside = text == root_ || text.compare(0, prefix.size(), prefix) == 0;
    return inside && !error ? place : fs::path();
  }

  fs::path resolve(const std::string& path) const {
    std::error_code error;
    const fs::path given(path);
    if (given.is_relative()) {
      fs::path place = below_root(fs::path(root_) / given);
      if (!place.empty() && fs::exists(fs::symlink_status(place, error))) return place;
    }
    return below_root(fs::absolute(given));
  }

  void walk(const fs::path& directory) {
    std::error_code error;
    auto at = fs::recursive_directory_iterator(directory, error);
    for (; !error && at != fs::recursive_directory_iterator(); at.increment(error))
      if (!at->is_directory(error) || at->is_symlink(error)) add_entry(at->path());
    if (error) tree_.problems.push_back(directory.string() + ": " + error.message());
  }

  void add_entry(const fs::path& path) {
    struct stat status {};
    const std::string text = path.string();
    if (::lstat(text.c_str(), &status) != 0) {
      tree_.problems.push_back(text + ": cannot be examined");
      return;
    }
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
      tree_.warnings.push_back(text + ": neither a file nor a link, left out");
      return;
    }
    const std::string name = text.substr(root_ == "/" ? 1 : root_.size() + 1);
    const auto size = static_cast<uint64_t>(status.st_size);
    if (const char* problem = problem_of(name, size, S_ISLNK(status.st_mode)))
      tree_.problems.push_back(name + ": " + problem);
    else
      (S_ISLNK(status.st_mode) ? links_ : files_).insert({name, size});
  }

  static const char* problem_of(const std::string& name, uint64_t size, bool link) {
    if (link && size > PKGDIST_SYMLINK_TARGET_MAX)
      return "the link's target is longer than 255 bytes";
    if (size > UINT32_MAX) return "files of 4 GiB and more cannot be sent";
    return name_problem(name);
  }

  const std::string given_root_;
  const std::string root_;
  FileTree tree_;
  std::set<PushFile, ByName> files_;
  std::set<PushFile, ByName> links_;
};

}  // namespace

FileTree collect_files(const std::string& root, const std::vector<std::string>& paths) {
  Collector collector(root);
  for (const std::string& path : paths) collector.add(path);
  return collector.finish();
}

}  // namespace pkgdist::lead
