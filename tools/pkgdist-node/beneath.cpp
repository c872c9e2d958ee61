#include "beneath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "file_io.h"

namespace pkgdist::node_program {

cli::Fd open_directory_beneath(int top, const std::string& name, int flags) {
  return cli::Fd(release::open_beneath(top, name.c_str(), flags | O_DIRECTORY));
}

Place open_place_beneath(int top, const std::string& name) {
  const size_t slash = name.rfind('/');
  const bool deeper = slash != std::string::npos;
  return {open_directory_beneath(top, deeper ? name.substr(0, slash) : ".", O_PATH),
          deeper ? name.substr(slash + 1) : name};
}

std::vector<std::string> components_of(const std::string& name) {
  std::vector<std::string> components;
  for (size_t start = 0; start <= name.size();) {
    const size_t end = std::min(name.find('/', start), name.size());
    const std::string& component = components.emplace_back(name.substr(start, end - start));
    if (component.empty() || component == "." || component == ".." ||
        component.find('\0') != std::string::npos)
      return {};
    start = end + 1;
  }
  return components;
}

std::vector<int> own_descriptors() {
  namespace fs = std::filesystem;
  std::vector<int> numbers;
  std::error_code error;
  for (fs::directory_iterator at(kOwnDescriptors, error), end; !error && at != end;
       at.increment(error))
    numbers.push_back(std::stoi(at->path().filename().string()));
  return numbers;
}

bool writes(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_RDONLY;
}

bool is_open_for_writing(dev_t device, ino_t inode) {
  const std::vector<int> numbers = own_descriptors();
  return std::any_of(numbers.begin(), numbers.end(), [&](int fd) {
    struct stat status {};
    return writes(fd) && ::fstat(fd, &status) == 0 && status.st_dev == device &&
           status.st_ino == inode;
  });
}

}  // namespace pkgdist::node_program
