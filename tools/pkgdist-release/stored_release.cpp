#include "stored_release.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>

namespace pkgdist::release_program {

using release::Fd;
using release::throw_errno;

Fd open_directory(const std::string& path) {
  Fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) throw_errno("opening", path);
  return directory;
}

std::string read_manifest(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw_errno("looking at", path);
  if (S_ISDIR(status.st_mode))
    return release::read_beneath(open_directory(path).get(), release::kManifestPath,
                                 release::kMaxManifestBytes);
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return release::read_beneath(open_directory(parent).get(), name.c_str(),
                               release::kMaxManifestBytes);
}

void replace_file(int directory, const std::string& path, std::string_view text) {
  const std::string next = path + ".new";
  constexpr unsigned kMode = 0644;
  const Fd file(
      release::open_beneath(directory, next.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kMode));
  if (!file) throw_errno("opening", next);
  release::write_all(file.get(), text, next);
  if (fsync(file.get()) != 0) throw_errno("writing", next);
  if (renameat(directory, next.c_str(), directory, path.c_str()) != 0)
    throw_errno("renaming", next);
}

}  // namespace pkgdist::release_program
