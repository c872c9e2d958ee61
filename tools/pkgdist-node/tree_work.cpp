#include "tree_work.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "beneath.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

using cli::Fd;
using cli::NodeAnswer;

constexpr char kOtherFileSystem[] = "another file system is mounted there";
// A location with this directory holds releases (docs/releases.md), which no push may take for
// leftovers.
constexpr char kReleases[] = ".pkgdist";
constexpr char kNoName[] = "not a name";
constexpr char kStopped[] = "the node was stopped";  // it has two seconds to end
constexpr char kBeingReceived[] = "it is being received";

std::string text_of_error(int error) {
  return std::generic_category().message(error);
}

Fd open_top(const TreePlace& place) {
  return Fd(::open(place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// A path by which calls that take no O_PATH descriptor reach what one stands for.
std::string path_of(const Fd& fd) {
  return std::string(kOwnDescriptors) + '/' + std::to_string(fd.get());
}

std::string join(const std::string& directory, const std::string& name) {
  return directory == "." ? name : directory + '/' + name;
}

using Stream = std::unique_ptr<DIR, int (*)(DIR*)>;

// Null, with errno, when the directory cannot be read. The descriptor stays open.
Stream stream_of(const Fd& directory) {
  const int own = ::fcntl(directory.get(), F_DUPFD_CLOEXEC, 0);
  DIR* const stream = own < 0 ? nullptr : ::fdopendir(own);
  if (stream == nullptr && own >= 0) ::close(own);
  return {stream, ::closedir};
}

bool is_name(const std::string& entry) {
  return entry != "." && entry != "..";
}

// What a reception of this process writes, under its partial name.
bool is_being_received(const std::string& name, const struct stat& status) {
  return name.ends_with(kPartialSuffix) && S_ISREG(status.st_mode) &&
         is_open_for_writing(status.st_dev, status.st_ino);
}

// --- Directories ---

// Made where it is missing, with those above it. Without a descriptor errno says why not.
Fd make_beneath(const Fd& top, const std::string& name) {
  constexpr mode_t kAll = 0777;  // less the process's umask
  Fd there = open_directory_beneath(top.get(), name, O_PATH);
  if (there || errno != ENOENT) return there;
  there = open_directory_beneath(top.get(), ".", O_PATH);
  for (const std::string& component : components_of(name)) {
    if (!there) break;
    if (::mkdirat(there.get(), component.c_str(), kAll) != 0 && errno != EEXIST) return Fd();
    there = open_directory_beneath(there.get(), component, O_PATH);
  }
  return there;
}

// 0, or an errno value.
int set_mode(const TreePlace& place, const Fd& directory, unsigned wanted) {
  constexpr unsigned kOwner = 0700;
  constexpr unsigned kAllBits = 07777;
  struct stat status {};
  if (::fstat(directory.get(), &status) != 0) return errno;
  const unsigned present = status.st_mode & kAllBits;
  const unsigned own = ::geteuid() == 0 ? 0 : kOwner;
  const unsigned mode =
      (wanted & place.mode_mask & ~place.umask) | (present & ~place.mode_mask) | own;
  if (mode == present) return 0;
  return ::chmod(path_of(directory).c_str(), mode) == 0 ? 0 : errno;
}

int set_time(const Fd& directory, int64_t seconds) {
  const timespec times[] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
  return ::utimensat(AT_FDCWD, path_of(directory).c_str(), times, 0) == 0 ? 0 : errno;
}

int set_directory(const TreePlace& place, const Fd& top, const cli::TreeDirectory& wanted) {
  if (components_of(wanted.name).empty()) return EINVAL;
  const Fd directory = make_beneath(top, wanted.name);
  if (!directory) return errno;
  if (const int error = set_mode(place, directory, wanted.mode); error != 0) return error;
  return set_time(directory, wanted.mtime);
}

// --- Names ---

class Lister {
 public:
  Lister(const cli::NodeQuestion& question, size_t most, NodeAnswer& answer)
      : deep_(question.deep), most_(most), answer_(answer) {}

  void list(int top, const cli::KnownNames& known) {
    const Fd directory = open_directory_beneath(top, known.directory, O_RDONLY);
    if (!directory) {
      if (errno != ENOENT) problem(known.directory, text_of_error(errno));
      return;
    }
    if (known.directory == "." && ::faccessat(top, kReleases, F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
      (void)problem(".", "releases are installed there");
      return;
    }
    const std::unordered_set<std::string> names(known.names.begin(), known.names.end());
    (void)read(directory, known.directory, [&](const std::string& name) {
      return (known.after.empty() || name > known.after) &&
             (known.until.empty() || name <= known.until) && !names.contains(name);
    });
  }

 private:
  // True: the rest can be told.
  bool problem(const std::string& name, const std::string& text) {
    answer_.problems.push_back({name, text});
    return true;
  }

  // False when there are too many.
  template <class Wanted>
  bool read(const Fd& fd, const std::string& directory, Wanted&& wanted) {
    struct stat above {};
    (void)::fstat(fd.get(), &above);
    const Stream stream = stream_of(fd);
    if (stream == nullptr) return problem(directory, text_of_error(errno));
    for (;;) {
      if (cli::stop_signal() != 0) return problem(directory, kStopped);
      errno = 0;
      const dirent* entry = ::readdir(stream.get());
      if (entry == nullptr) break;
      const std::string name = entry->d_name;
      if (is_name(name) && wanted(name) && !take(fd, above, directory, name)) return false;
    }
    return errno == 0 || problem(directory, text_of_error(errno));
  }

  bool take(const Fd& at, const struct stat& above, const std::string& directory,
            const std::string& name) {
    struct stat status {};
    const std::string whole = join(directory, name);
    if (::fstatat(at.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
      return errno == ENOENT || problem(whole, text_of_error(errno));
    if (is_being_received(name, status)) return true;
    if (status.st_dev != above.st_dev) return problem(whole, kOtherFileSystem);
    if (answer_.names.size() == most_) {
      problem(directory, "more than " + std::to_string(most_) + " names");
      return false;
    }
    const bool is_directory = S_ISDIR(status.st_mode);
    answer_.names.push_back({whole, is_directory ? cli::kStateDirectory : cli::kStateFile});
    if (!is_directory || !deep_) return true;
    const Fd inside = open_directory_beneath(at.get(), name, O_RDONLY);
    if (!inside) return problem(whole, text_of_error(errno));
    return read(inside, whole, [](const std::string&) { return true; });
  }

  const bool deep_;
  const size_t most_;
  NodeAnswer& answer_;
};

// Empty, or why it is still there.
std::string remove_at(const Fd& parent, const std::string& name, dev_t device);

std::string empty_directory(const Fd& parent, const std::string& name, dev_t device) {
  const Fd directory = open_directory_beneath(parent.get(), name, O_RDONLY);
  if (!directory) return text_of_error(errno);
  const Stream stream = stream_of(directory);
  if (stream == nullptr) return text_of_error(errno);
  std::string first;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string inside = entry->d_name;
    if (!is_name(inside)) continue;
    const std::string why = remove_at(directory, inside, device);
    if (first.empty() && !why.empty()) first = inside + ": " + why;
  }
  return first;
}

std::string remove_at(const Fd& parent, const std::string& name, dev_t device) {
  struct stat status {};
  if (cli::stop_signal() != 0) return kStopped;
  if (::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? "" : text_of_error(errno);
  if (status.st_dev != device) return kOtherFileSystem;
  if (is_being_received(name, status)) return kBeingReceived;
  const bool is_directory = S_ISDIR(status.st_mode);
  std::string why = is_directory ? empty_directory(parent, name, device) : "";
  if (!why.empty()) return why;
  if (::unlinkat(parent.get(), name.c_str(), is_directory ? AT_REMOVEDIR : 0) == 0) return "";
  return errno == ENOENT ? "" : text_of_error(errno);
}

std::string remove_beneath(const Fd& top, const std::string& name) {
  if (components_of(name).empty()) return kNoName;
  const auto [parent, last] = open_place_beneath(top.get(), name);
  struct stat status {};
  if (!parent) return errno == ENOENT || errno == ENOTDIR ? "" : text_of_error(errno);
  if (::fstat(parent.get(), &status) != 0) return text_of_error(errno);
  return remove_at(parent, last, status.st_dev);
}

}  // namespace

NodeAnswer set_directories(const TreePlace& place, const cli::NodeQuestion& question) {
  NodeAnswer answer{.number = question.number};
  const Fd top = open_top(place);
  if (!top) {
    answer.states.push_back(text_of_error(errno));
    return answer;
  }
  for (const cli::TreeDirectory& wanted : question.directories)
    if (const int error = set_directory(place, top, wanted); error != 0)
      answer.problems.push_back({wanted.name, text_of_error(error)});
  answer.states.emplace_back(cli::kStateDone);
  return answer;
}

NodeAnswer list_other_names(const TreePlace& place, const cli::NodeQuestion& question,
                            size_t most) {
  NodeAnswer answer{.number = question.number};
  const Fd top = open_top(place);
  if (!top) {
    answer.states.push_back(text_of_error(errno));
    return answer;
  }
  Lister lister(question, most, answer);
  for (const cli::KnownNames& known : question.known) lister.list(top.get(), known);
  answer.states.emplace_back(cli::kStateDone);
  return answer;
}

NodeAnswer remove_names(const TreePlace& place, const cli::NodeQuestion& question) {
  NodeAnswer answer{.number = question.number};
  const Fd top = open_top(place);
  const int error = errno;
  for (const std::string& name : question.names) {
    std::string why = top ? remove_beneath(top, name) : text_of_error(error);
    answer.states.push_back(why.empty() ? cli::kStateAbsent : std::move(why));
  }
  return answer;
}

std::vector<NodeAnswer> pieces_of(NodeAnswer answer) {
  constexpr size_t kPieceBytes = 48'000;
  constexpr size_t kOverhead = 32;
  std::vector<NodeAnswer> pieces{{.number = answer.number, .states = answer.states}};
  size_t size = 0;
  const auto spread = [&](std::vector<cli::NamedText> NodeAnswer::*list) {
    for (cli::NamedText& entry : answer.*list) {
      const size_t more = entry.name.size() * 4 / 3 + entry.text.size() + kOverhead;
      if (size != 0 && size + more > kPieceBytes) {
        pieces.push_back({.number = answer.number, .states = answer.states});
        size = 0;
      }
      size += more;
      (pieces.back().*list).push_back(std::move(entry));
    }
  };
  spread(&NodeAnswer::names);
  spread(&NodeAnswer::problems);
  for (size_t i = 0; i < pieces.size(); ++i) {
    pieces[i].piece = static_cast<uint32_t>(i);
    pieces[i].pieces = static_cast<uint32_t>(pieces.size());
  }
  return pieces;
}

}  // namespace pkgdist::node_program
