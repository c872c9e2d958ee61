#include "quick_check.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <array>
#include <climits>

#include "file_io.h"

namespace pkgdist::release {

namespace {

mode_t type_of(Kind kind) {
  return kind == Kind::kDirectory ? S_IFDIR : kind == Kind::kLink ? S_IFLNK : S_IFREG;
}

std::string target_of(int link) {
  std::array<char, PATH_MAX> target;
  const ssize_t size = readlinkat(link, "", target.data(), target.size());
  return size < 0 ? std::string() : std::string(target.data(), static_cast<size_t>(size));
}

// What the first thing is in which the entry differs; null when nothing does.
const char* difference_on_disk(const Entry& entry, int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return "kind";
  if ((status.st_mode & S_IFMT) != type_of(entry.kind)) return "kind";
  if (entry.kind == Kind::kLink) return target_of(fd) == entry.target ? nullptr : "target";
  if (entry.kind == Kind::kFile && status.st_size != off_t{entry.size}) return "size";
  return (status.st_mode & kPermissions) == entry.mode ? nullptr : "mode";
}

}  // namespace

std::vector<std::string> quick_differences(const Manifest& manifest, const std::string& directory) {
  const Fd root(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) throw_errno("opening", directory);
  std::vector<std::string> texts;
  for (const Entry& entry : manifest.entries) {
    const Fd found(open_beneath(root.get(), entry.path.c_str(), O_PATH | O_NOFOLLOW));
    if (!found)
      texts.push_back("missing: " + entry.path);
    else if (const char* what = difference_on_disk(entry, found.get()); what != nullptr)
      texts.push_back(fmt::format("{} differs: {}", what, entry.path));
  }
  return texts;
}

}  // namespace pkgdist::release
