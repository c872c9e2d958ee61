#include "tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <memory>

#include "file_io.h"
#include "in_parallel.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

[[noreturn]] void refuse(const std::string& path, const char* why) {
  throw Refused(Reason::kTree, fmt::format("'{}' {}", path, why));
}

std::string read_link(int directory, const std::string& path) {
  std::string target(kMaxPathBytes + 1, '\0');
  const ssize_t length = readlinkat(directory, path.c_str(), target.data(), target.size());
  if (length < 0) throw_errno("reading link", path);
  target.resize(static_cast<size_t>(length));
  return target;
}

class Scan {
 public:
  Scan(const std::string& directory, const ScanOptions& options)
      : options_(options), root_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!root_) throw_errno("opening", directory);
  }

  ScannedTree run() {
    walk("");
    sort();
    tree_.leaves.resize(tree_.entries.size());
    hash_all();
    return std::move(tree_);
  }

 private:
  struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
  };

  void walk(const std::string& path) {
    Fd fd(path.empty() ? openat(root_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                       : open_beneath(root_.get(), path.c_str(), O_RDONLY | O_DIRECTORY));
    if (!fd) throw_errno("opening", path);
    const std::unique_ptr<DIR, DirectoryCloser> directory(fdopendir(fd.get()));
    if (directory == nullptr) throw_errno("reading", path);
    (void)fd.release();  // closedir() closes it
    std::vector<std::string> names;
    while (const dirent* item = readdir(directory.get())) {
      const std::string name = item->d_name;
      if (name == "." || name == ".." || (path.empty() && name == kReleaseDirectory)) continue;
      names.push_back(name);
    }
    for (const std::string& name : names) add(path.empty() ? name : path + "/" + name);
  }

  void add(const std::string& path) {
    struct stat status {};
    if (fstatat(root_.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
      throw_errno("looking at", path);
    Entry entry;
    entry.path = path;
    entry.mode = status.st_mode & kPermissions;
    if (S_ISDIR(status.st_mode)) {
      entry.kind = Kind::kDirectory;
    } else if (S_ISLNK(status.st_mode)) {
      entry.kind = Kind::kLink;
      entry.mode = 0;
      entry.target = read_link(root_.get(), path);
    } else if (S_ISREG(status.st_mode)) {
      if (!options_.tolerant) set_file(entry, status);
      if (options_.settled != nullptr)
        entry.digest = options_.settled->find(status).value_or(Digest{});
    } else if (!options_.tolerant) {
      refuse(path, "is neither a file nor a directory nor a link");
    }
    tree_.entries.push_back(std::move(entry));
    if (tree_.entries.size() > kMaxEntries)
      throw Refused(Reason::kTooLarge, fmt::format("more than {} entries", kMaxEntries));
    if (S_ISDIR(status.st_mode)) walk(path);
  }

  static void set_file(Entry& entry, const struct stat& status) {
    constexpr auto kMost = std::numeric_limits<uint32_t>::max();
    if (status.st_size > kMost) refuse(entry.path, "has 4 GiB or more");
    if (status.st_mtime < 0 || status.st_mtime > kMost)
      refuse(entry.path, "was changed before 1970 or after 2106");
    entry.size = static_cast<uint32_t>(status.st_size);
    entry.mtime = static_cast<uint32_t>(status.st_mtime);
  }

  void sort() {
    std::sort(tree_.entries.begin(), tree_.entries.end(),
              [](const Entry& a, const Entry& b) { return a.path < b.path; });
  }

  void hash_all() {
    in_parallel(tree_.entries.size(), options_.threads, [this](size_t at) {
      const Entry& entry = tree_.entries[at];
      if (entry.kind != Kind::kFile || entry.digest != Digest{}) return;
      try {
        hash(at);
      } catch (const std::runtime_error&) {
        if (!options_.tolerant) throw;
      }
    });
  }

  void hash(size_t at) {
    Entry& entry = tree_.entries[at];
    const Fd file(open_beneath(root_.get(), entry.path.c_str(), O_RDONLY));
    if (!file) throw_errno("opening", entry.path);
    struct stat before {};
    struct stat after {};
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    if (fstat(file.get(), &before) != 0) throw_errno("looking at", entry.path);
    if (!S_ISREG(before.st_mode)) refuse(entry.path, "changed while it was read");
    set_file(entry, before);
    auto content = options_.cache != nullptr ? options_.cache->find(before) : std::nullopt;
    if (!content) {
      content = hash_content(file.get(), entry.size, options_.leaf);
      if (fstat(file.get(), &after) != 0) throw_errno("looking at", entry.path);
      if (before.st_ctim.tv_sec != after.st_ctim.tv_sec ||
          before.st_ctim.tv_nsec != after.st_ctim.tv_nsec || before.st_size != after.st_size)
        refuse(entry.path, "changed while it was read");
      if (options_.cache != nullptr) options_.cache->add(before, *content, now);
    }
    entry.digest = content->digest;
    tree_.leaves[at] = std::move(content->leaves);
  }

  const ScanOptions options_;
  const Fd root_;
  ScannedTree tree_;
};

}  // namespace

ScannedTree scan_tree(const std::string& directory, const ScanOptions& options) {
  return Scan(directory, options).run();
}

std::string format_leaves(const ScannedTree& tree) {
  std::string bytes;
  for (const auto& leaves : tree.leaves)
    for (const Digest& leaf : leaves)
      bytes.append(reinterpret_cast<const char*>(leaf.data()), leaf.size());
  return bytes;
}

}  // namespace pkgdist::release
