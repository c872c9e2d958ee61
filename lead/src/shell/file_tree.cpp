// What a push of some paths consists of, see directory_store.h.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>

#include "pkgdist/wire_data.h"
#include "pkgdist_lead/directory_store.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

namespace fs = std::filesystem;

namespace {

std::string error_text(int error) {
  return std::generic_category().message(error);
}

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
    for (const PushFile& file : tree_.files) note_directories(file.name);
    for (auto& [name, walked] : walked_) {
      note_directories(name + '/');
      tree_.walked.push_back(std::move(walked));
    }
    directories_.erase(".");
    tree_.directories.assign(directories_.begin(), directories_.end());
    for (const auto& [name, reason] : left_out_) tree_.left_out.push_back({name, reason});
    if (clamped_ != 0) tree_.warnings.push_back(clamped_text());
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

  std::string name_of(const fs::path& path) const {
    const std::string text = path.string();
    if (text == root_) return ".";
    return text.substr(root_ == "/" ? 1 : root_.size() + 1);
  }

  // A directory that cannot be read costs what is in it, and nothing else.
  void walk(const fs::path& top) {
    std::vector<fs::path> ahead{top};
    while (!ahead.empty()) {
      const fs::path directory = std::move(ahead.back());
      ahead.pop_back();
      if (!note_walked(directory)) continue;
      std::error_code error;
      for (fs::directory_iterator at(directory, error), end; !error && at != end;
           at.increment(error)) {
        std::error_code unknown;  // then lstat() tells why
        if (at->is_directory(unknown) && !at->is_symlink(unknown))
          ahead.push_back(at->path());
        else
          add_entry(at->path());
      }
      if (error) leave_out_directory(directory, error.message());
    }
  }

  void leave_out_directory(const fs::path& directory, const std::string& why) {
    tree_.all_read = false;
    leave_out(name_of(directory), "the directory cannot be read: " + why);
  }

  // False when it was walked already, or cannot be.
  bool note_walked(const fs::path& directory) {
    constexpr mode_t kModeBits = 07777;
    const std::string name = name_of(directory);
    if (walked_.contains(name)) return false;
    if (name_problem(name) != nullptr) return true;  // so have all names in it
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) {
      leave_out_directory(directory, error_text(errno));
      return false;
    }
    walked_[name] = {name, status.st_mode & kModeBits, int64_t{status.st_mtime}};
    return true;
  }

  void add_entry(const fs::path& path) {
    struct stat status {};
    const std::string text = path.string();
    const std::string name = name_of(path);
    if (::lstat(text.c_str(), &status) != 0) return leave_out(name, error_text(errno));
    const bool link = S_ISLNK(status.st_mode);
    if (!S_ISREG(status.st_mode) && !link) return leave_out(name, kind_problem(status.st_mode));
    const auto size = static_cast<uint64_t>(status.st_size);
    if (const char* problem = problem_of(name, size, link)) return leave_out(name, problem);
    if (!link && ::faccessat(AT_FDCWD, text.c_str(), R_OK, AT_EACCESS) != 0)
      return leave_out(name, error_text(errno));
    const bool fresh = (link ? links_ : files_).insert({name, size}).second;
    if (fresh && !link) note_time(name, status.st_mtime);
  }

  static const char* kind_problem(mode_t mode) {
    if (S_ISFIFO(mode)) return "a named pipe cannot be sent";
    return S_ISSOCK(mode) ? "a socket cannot be sent" : "a device cannot be sent";
  }

  static const char* problem_of(const std::string& name, uint64_t size, bool link) {
    if (link && size > PKGDIST_SYMLINK_TARGET_MAX)
      return "the link's target is longer than 255 bytes";
    if (size > UINT32_MAX) return "files of 4 GiB and more cannot be sent";
    return name_problem(name);
  }

  void note_directories(const std::string& name) {
    for (size_t end = name.rfind('/'); end != std::string::npos && end != 0;
         end = name.rfind('/', end - 1))
      if (!directories_.insert(name.substr(0, end)).second) return;  // and so are those above
  }

  void leave_out(const std::string& name, const std::string& reason) {
    left_out_.emplace(name, reason);
  }

  void note_time(const std::string& name, time_t time) {
    if (time >= 0 && time <= time_t{UINT32_MAX}) return;
    if (clamped_++ == 0 || name < first_clamped_) first_clamped_ = name;
  }

  std::string clamped_text() const {
    const std::string more =
        clamped_ > 1 ? " (and those of " + std::to_string(clamped_ - 1) + " more)" : "";
    return first_clamped_ +
           ": its time is not between 1970 and 2106; the nearest that can be told is sent" + more;
  }

  const std::string given_root_;
  const std::string root_;
  FileTree tree_;
  std::set<PushFile, ByName> files_;
  std::set<PushFile, ByName> links_;
  std::set<std::string> directories_;
  std::map<std::string, FileTree::Walked> walked_;  // by name
  std::map<std::string, std::string> left_out_;     // each once
  uint64_t clamped_ = 0;
  std::string first_clamped_;
};

}  // namespace

FileTree collect_files(const std::string& root, const std::vector<std::string>& paths) {
  Collector collector(root);
  for (const std::string& path : paths) collector.add(path);
  return collector.finish();
}

}  // namespace pkgdist::lead
