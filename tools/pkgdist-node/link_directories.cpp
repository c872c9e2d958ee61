#include "link_directories.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/inst_common.h"

namespace pkgdist::node_program {

namespace {

std::vector<std::string>& directories() {
  static std::vector<std::string> list;
  return list;
}

// Names with a parent component never get this far: the library refuses them.
bool is_below_one(const std::string& path) {
  return std::any_of(directories().begin(), directories().end(), [&](const std::string& directory) {
    return path.compare(0, directory.size(), directory) == 0;
  });
}

}  // namespace

void make_directories_of_links_below(std::string directory) {
  directories().push_back(std::move(directory));
}

}  // namespace pkgdist::node_program

extern "C" __attribute__((visibility("default"))) int inst_symlink(const char* target,
                                                                   const char* link_path) {
  if (target == nullptr || link_path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (symlink(target, link_path) == 0) return 0;
  if (errno != ENOENT || !pkgdist::node_program::is_below_one(link_path)) return -1;
  if (instcomm_create_filepath_dirs(link_path) != 0) return -1;
  return symlink(target, link_path);
}
