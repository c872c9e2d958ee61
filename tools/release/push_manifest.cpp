#include "push_manifest.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <system_error>
#include <unordered_map>

#include "content.h"
#include "file_io.h"
#include "in_parallel.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr char kName[] = "push";
constexpr size_t kLineBytes = 100;  // of an entry, without its path
constexpr char kChanged[] = "it changed while it was read";

std::string error_text(int error) {
  return std::generic_category().message(error);
}

// Unlike open_beneath() of releases, through links that stay inside: a push writes through them.
Fd open_inside(int root, const std::string& name, int flags) {
  open_how how = {};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (;;) {
    const long fd = syscall(SYS_openat2, root, name.c_str(), &how, sizeof how);
    if (fd >= 0 || (errno != EINTR && errno != EAGAIN)) return Fd(static_cast<int>(fd));
  }
}

bool same_change(const struct stat& one, const struct stat& other) {
  return one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
         one.st_ctim.tv_nsec == other.st_ctim.tv_nsec && one.st_size == other.st_size;
}

// Each of these sets what the name is, or throws std::runtime_error with what is wrong.
void read_link(int root, Entry& entry) {
  const Fd link = open_inside(root, entry.path, O_PATH);
  if (!link) throw std::runtime_error(error_text(errno));
  std::string target(kMaxPathBytes + 1, '\0');
  const ssize_t length = readlinkat(link.get(), "", target.data(), target.size());
  if (length < 0) throw std::runtime_error(error_text(errno));
  target.resize(static_cast<size_t>(length));
  entry.kind = Kind::kLink;
  entry.target = std::move(target);
}

void hash_file(int fd, Entry& entry) {
  struct stat before {};
  struct stat after {};
  if (fstat(fd, &before) != 0) throw std::runtime_error(error_text(errno));
  if (!S_ISREG(before.st_mode)) throw std::runtime_error("it is no file");
  if (before.st_size > std::numeric_limits<uint32_t>::max())
    throw std::runtime_error("it has 4 GiB or more");
  entry.size = static_cast<uint32_t>(before.st_size);
  try {
    entry.digest = hash_content(fd, entry.size, kLeafBytes).digest;
  } catch (const Refused&) {
    throw std::runtime_error(kChanged);
  }
  if (fstat(fd, &after) != 0 || !same_change(before, after)) throw std::runtime_error(kChanged);
}

void hash_name(int root, Entry& entry) {
  const Fd file = open_inside(root, entry.path, O_RDONLY | O_NONBLOCK);
  if (file) return hash_file(file.get(), entry);
  if (errno != ELOOP) throw std::runtime_error(error_text(errno));
  read_link(root, entry);
}

// Null: nothing differs.
const char* why_another(const Entry& said, const Entry& found) {
  if (said.kind != found.kind) return said.kind == Kind::kLink ? "it is no link" : "it is a link";
  if (said.size != found.size) return "it has another size";
  if (said.digest != found.digest) return "it has another content";
  return said.target == found.target ? nullptr : "it leads elsewhere";
}

// Entries that become one manifest.
class Piece {
 public:
  // Bytes that the entry adds to the text, about.
  size_t added_by(const Entry& entry) const {
    size_t bytes = line_bytes(entry.path) + escape(entry.target).size();
    visit_above(entry.path, [&](const std::string& above) {
      if (!directories_.contains(above)) bytes += line_bytes(above);
    });
    return bytes;
  }
  void add(const Entry& entry) {
    text_bytes_ += added_by(entry);
    file_bytes_ += entry.size;
    visit_above(entry.path, [&](const std::string& above) { directories_.insert(above); });
    entries_.push_back(entry);
  }
  bool has_room(const Entry& entry, size_t text_bytes, uint64_t file_bytes) const {
    return entries_.empty() ||
           (text_bytes_ + added_by(entry) <= text_bytes && file_bytes_ + entry.size <= file_bytes);
  }
  bool empty() const { return entries_.empty(); }

  PushManifest manifest() const {
    Manifest manifest;
    manifest.name = kName;
    manifest.version = 1;
    manifest.leaf = kLeafBytes;
    manifest.entries = entries_;
    for (const std::string& path : directories_) {
      Entry& directory = manifest.entries.emplace_back();
      directory.kind = Kind::kDirectory;
      directory.path = path;
    }
    std::sort(manifest.entries.begin(), manifest.entries.end(),
              [](const Entry& a, const Entry& b) { return a.path < b.path; });
    return {format(manifest, Names::kAny), file_bytes_};
  }

 private:
  static size_t line_bytes(const std::string& path) { return kLineBytes + escape(path).size(); }
  template <class Visit>
  static void visit_above(const std::string& path, Visit visit) {
    for (size_t at = path.find('/'); at != std::string::npos; at = path.find('/', at + 1))
      visit(path.substr(0, at));
  }

  std::vector<Entry> entries_;
  std::set<std::string> directories_;  // in which they stand
  size_t text_bytes_ = 0;
  uint64_t file_bytes_ = 0;
};

}  // namespace

HashedNames hash_names(const std::string& directory, std::vector<std::string> names,
                       const GoOn& go_on) {
  const Fd root(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root) throw_errno("opening", directory);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  std::vector<Entry> found(names.size());
  std::vector<std::string> problems(names.size());
  in_parallel(names.size(), 0, [&](size_t at) {
    found[at].path = names[at];
    try {
      if (go_on && !go_on()) throw std::runtime_error("it was not read");
      hash_name(root.get(), found[at]);
    } catch (const std::runtime_error& error) {
      problems[at] = error.what();
    }
  });
  HashedNames hashed;
  for (size_t i = 0; i < names.size(); ++i)
    if (problems[i].empty())
      hashed.entries.push_back(std::move(found[i]));
    else
      hashed.problems.push_back({names[i], problems[i]});
  return hashed;
}

std::vector<PushManifest> push_manifests(const std::vector<Entry>& entries, size_t text_bytes,
                                         uint64_t file_bytes) {
  std::vector<PushManifest> manifests;
  Piece piece;
  for (const Entry& entry : entries) {
    if (!piece.has_room(entry, text_bytes, file_bytes))
      manifests.push_back(std::exchange(piece, Piece()).manifest());
    piece.add(entry);
  }
  if (!piece.empty()) manifests.push_back(piece.manifest());
  return manifests;
}

std::vector<Entry> parse_push_manifest(std::string_view text) {
  Manifest manifest = parse(text, SetId::kRefused, Names::kAny);
  if (manifest.name != kName || manifest.leaf != kLeafBytes)
    throw Refused(Reason::kName, "the manifest is not that of a push");
  std::erase_if(manifest.entries,
                [](const Entry& entry) { return entry.kind == Kind::kDirectory; });
  return std::move(manifest.entries);
}

std::vector<NamedProblem> content_differences(const std::vector<Entry>& said,
                                              const std::string& directory, const GoOn& go_on) {
  std::vector<std::string> names;
  for (const Entry& entry : said) names.push_back(entry.path);
  HashedNames found = hash_names(directory, std::move(names), go_on);
  std::unordered_map<std::string_view, const Entry*> by_name;
  for (const Entry& entry : found.entries) by_name[entry.path] = &entry;
  std::vector<NamedProblem> problems = std::move(found.problems);
  for (const Entry& entry : said)
    if (const auto there = by_name.find(entry.path); there != by_name.end())
      if (const char* what = why_another(entry, *there->second); what != nullptr)
        problems.push_back({entry.path, what});
  std::sort(problems.begin(), problems.end(),
            [](const NamedProblem& a, const NamedProblem& b) { return a.name < b.name; });
  return problems;
}

std::string push_comment(uint32_t location) {
  return fmt::format("pkgdist-push 1 location={}", location);
}

}  // namespace pkgdist::release
