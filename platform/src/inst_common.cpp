// Debug switches, the statistics lock and two file-system helpers.
//
// The three variables are ordinary exported symbols: a process that defines them itself is bound to
// its own, so none of them may be reached other than by name.
//
// Bad case of the directories: others create, or have created, the same ones. A failed mkdir is
// therefore judged by what stands at the path afterwards, not by its error number.
#include "platform/inst_common.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

int32_t g_inst_common_debug_verbosity_level = 0;
int32_t g_inst_common_debug_prefix = 0;
#ifdef PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
pthread_mutex_t atomic_mutex = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
#else
pthread_mutex_t atomic_mutex = PTHREAD_MUTEX_INITIALIZER;
#endif

namespace {

struct FreeText {
  void operator()(char* text) const noexcept { std::free(text); }
};

constexpr mode_t kDirectoryMode = 0777;  // the process umask takes away from it

// 0, or an error number.
int make_directory(const char* path) noexcept {
  if (mkdir(path, kDirectoryMode) == 0) return 0;
  const int why = errno;
  struct stat found {};
  const int unseen = stat(path, &found) == 0 ? 0 : errno;
  if (unseen == 0 && S_ISDIR(found.st_mode)) return 0;
  if (why != EEXIST) return why;
  // Something else stands there, also a link to nowhere; or what stands there cannot be examined.
  return unseen == 0 || unseen == ENOENT ? ENOTDIR : unseen;
}

// Makes every directory of `path`, which is cut and restored at each slash on the way.
int make_directories(char* path) noexcept {
  for (char* slash = std::strchr(path, '/'); slash != nullptr;
       slash = std::strchr(slash + 1, '/')) {
    if (slash == path || slash[-1] == '/') continue;
    *slash = '\0';
    const int why = make_directory(path);
    *slash = '/';
    if (why != 0) return why;
  }
  return 0;
}

int make_directories_of(const char* path) noexcept {
  if (path == nullptr) return EINVAL;
  const std::unique_ptr<char, FreeText> copy(strdup(path));
  return copy ? make_directories(copy.get()) : ENOMEM;
}

// The -1 and errno convention of this module.
int result_of(int error) noexcept {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

}  // namespace

int instcomm_create_filepath_dirs(const char* path) {
  return result_of(make_directories_of(path));
}

int inst_symlink(const char* target, const char* link_path) {
  if (target == nullptr || link_path == nullptr) return result_of(EINVAL);
  return symlink(target, link_path);
}
