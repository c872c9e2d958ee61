#include "process_object.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/qtrace_layout.h"
#include "platform/ship_layout.h"

namespace pkgdist::tools {

namespace {

namespace fs = std::filesystem;
constexpr uint64_t kNsPerSecond = 1'000'000'000;
// By so much a process may seem to have started after it made its object: the kernel tells the
// start in hundredths, and the wall clock is corrected while machines run.
constexpr uint64_t kClockSlackNs = 2 * kNsPerSecond;

std::string base_name(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::optional<pid_t> pid_of_name(const std::string& name, const std::string& prefix) {
  if (name.rfind(prefix, 0) != 0) return {};
  pid_t pid = 0;
  const char* end = name.data() + name.size();
  const auto parsed = std::from_chars(name.data() + prefix.size(), end, pid);
  if (parsed.ec != std::errc() || parsed.ptr != end || pid <= 0) return {};
  return pid;
}

struct MappedFile {
  uint64_t inode = 0;
  std::string name;  // without directories
};

// What a process has mapped under one of our names. Nothing when that may not be looked at.
std::optional<std::vector<MappedFile>> mapped_files(const std::string& pid) {
  std::ifstream maps("/proc/" + pid + "/maps");
  if (!maps) return {};
  std::vector<MappedFile> found;
  for (std::string line; std::getline(maps, line);) {
    const size_t at = line.find("/pkgdist-");
    if (at == std::string::npos) continue;
    std::istringstream fields(line);
    std::string range, mode, offset, device;
    MappedFile mapped;
    fields >> range >> mode >> offset >> device >> mapped.inode;
    mapped.name = line.substr(line.rfind('/') + 1);
    mapped.name = mapped.name.substr(0, mapped.name.find(" (deleted)"));
    found.push_back(mapped);
  }
  return found;
}

uint64_t clock_ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// The wall-clock time at which a process started; nothing when it is not there or only its exit
// status is still waiting to be taken.
std::optional<uint64_t> started_ns(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return {};
  const size_t name_end = line.rfind(')');  // the name may hold anything
  if (name_end == std::string::npos) return {};
  std::istringstream fields(line.substr(name_end + 1));
  std::string state, field;
  fields >> state;
  if (state == "Z" || state == "X") return {};
  constexpr int kBeforeStart = 18;  // fields 4 to 21
  for (int i = 0; i < kBeforeStart; ++i) fields >> field;
  uint64_t ticks = 0;
  if (!(fields >> ticks)) return {};
  const uint64_t since_boot = ticks * (kNsPerSecond / static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
  return clock_ns(CLOCK_REALTIME) - clock_ns(CLOCK_BOOTTIME) + since_boot;
}

// When the owner says it made the object; when that cannot be read, when the file changed last.
uint64_t created_ns(const ObjectFile& file, bool trace) {
  try {
    if (trace) {
      qtrace_layout_header header{};
      file.read(0, &header, sizeof header);
      if (header.magic == QTRACE_LAYOUT_MAGIC) return header.created_realtime_ns;
    } else {
      ship_layout_header header{};
      file.read(0, &header, sizeof header);
      if (header.magic == SHIP_LAYOUT_MAGIC) return header.created_ns;
    }
  } catch (const BadObject&) {
    // Too short for a header.
  }
  struct stat info {};
  if (stat(file.path().c_str(), &info) != 0) return 0;
  return static_cast<uint64_t>(info.st_mtim.tv_sec) * kNsPerSecond;
}

// Nothing for an object that is in use.
std::optional<Cleaned> clean(const FoundObject& found, bool trace,
                             const std::vector<uint64_t>& mapped) {
  try {
    const ObjectFile file(found.path);
    if (owner_runs(found.pid, found.path, file.inode(), created_ns(file, trace))) return {};
    if (std::find(mapped.begin(), mapped.end(), file.inode()) != mapped.end()) return {};
  } catch (const BadObject& bad) {
    return Cleaned{found.path, false, bad.what()};
  }
  if (unlink(found.path.c_str()) == 0) return Cleaned{found.path, true, ""};
  return Cleaned{found.path, false, found.path + ": " + std::strerror(errno)};
}

}  // namespace

ObjectFile::ObjectFile(std::string path) : path_(std::move(path)) {
  fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd_ < 0) throw BadObject(path_ + ": " + std::strerror(errno));
  struct stat info {};
  const bool regular = fstat(fd_, &info) == 0 && S_ISREG(info.st_mode);
  inode_ = info.st_ino;
  if (regular) return;
  close(fd_);
  throw BadObject(path_ + ": not a regular file");
}

ObjectFile::~ObjectFile() {
  close(fd_);
}

uint64_t ObjectFile::size() const {
  struct stat info {};
  return fstat(fd_, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

void ObjectFile::read(uint64_t offset, void* to, uint64_t size) const {
  auto* at = static_cast<char*>(to);
  if (size > INT64_MAX || offset > INT64_MAX - size)
    refuse("corrupt: something should stand far behind its end");
  while (size > 0) {
    const ssize_t got = pread(fd_, at, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) refuse(std::strerror(errno));
    if (got == 0) refuse("truncated: it ends at byte " + std::to_string(offset));
    at += got;
    offset += static_cast<uint64_t>(got);
    size -= static_cast<uint64_t>(got);
  }
}

void ObjectFile::refuse(const std::string& why) const {
  throw BadObject(path_ + ": " + why);
}

std::optional<std::vector<std::string>> names_in(const std::string& directory) {
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  if (error) return {};
  std::vector<std::string> names;
  for (; !error && entry != fs::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename().string());
  return names;
}

std::vector<FoundObject> find_objects(const std::string& directory, const std::string& prefix) {
  std::vector<FoundObject> found;
  for (const std::string& name : names_in(directory).value_or(std::vector<std::string>()))
    if (const auto pid = pid_of_name(name, prefix)) found.push_back({*pid, directory + "/" + name});
  std::sort(found.begin(), found.end(),
            [](const FoundObject& a, const FoundObject& b) { return a.pid < b.pid; });
  return found;
}

bool owner_runs(pid_t pid, const std::string& path, uint64_t inode, uint64_t created) {
  const auto started = started_ns(pid);
  if (!started) return false;
  const auto mapped = mapped_files(std::to_string(pid));
  if (!mapped) return *started <= created + kClockSlackNs;
  const std::string name = base_name(path);
  return std::any_of(mapped->begin(), mapped->end(), [&](const MappedFile& file) {
    return file.inode == inode && file.name == name;
  });
}

std::vector<uint64_t> mapped_objects() {
  std::vector<uint64_t> inodes;
  for (const std::string& pid : names_in("/proc").value_or(std::vector<std::string>())) {
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    for (const MappedFile& file : mapped_files(pid).value_or(std::vector<MappedFile>()))
      inodes.push_back(file.inode);
  }
  return inodes;
}

std::vector<Cleaned> clean_objects(const std::string& directory) {
  const std::vector<uint64_t> mapped = mapped_objects();
  std::vector<Cleaned> done;
  const auto clean_all = [&](const std::string& where, const char* prefix, bool trace) {
    for (const FoundObject& found : find_objects(where, prefix))
      if (auto cleaned = clean(found, trace, mapped)) done.push_back(*cleaned);
  };
  clean_all(directory, &SHIP_LAYOUT_OBJECT_PREFIX[1], false);  // without the slash
  clean_all(directory, QTRACE_LAYOUT_FILE_PREFIX, true);
  if (trace_directory() != directory) clean_all(trace_directory(), QTRACE_LAYOUT_FILE_PREFIX, true);
  return done;
}

std::string trace_directory() {
  const char* directory = std::getenv("PKGDIST_TRACE_DIR");
  return directory == nullptr || directory[0] == '\0' ? kShmDirectory : directory;
}

std::string local_time(uint64_t realtime_ns, int decimals) {
  const auto seconds = static_cast<time_t>(realtime_ns / kNsPerSecond);
  tm local{};
  char text[40];
  if (localtime_r(&seconds, &local) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
    return "unknown time";
  if (decimals == 0) return text;
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%09u",
                static_cast<unsigned>(realtime_ns % kNsPerSecond));
  return std::string(text) + std::string(fraction, static_cast<size_t>(1 + decimals));
}

}  // namespace pkgdist::tools
