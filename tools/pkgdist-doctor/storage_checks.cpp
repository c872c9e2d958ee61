// A location of a node is tried out with a small file, which is removed again; a lead reads its
// content roots and needs no more.
#include "storage_checks.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "counted.h"
#include "descriptor.h"

namespace pkgdist::doctor {

namespace {

// Written to try the location out: the length of a segment's content.
constexpr size_t kTrial = 1400;
// Times of files have whole seconds on the wire.
constexpr double kClockTolerance = 2;
// 2001-09-09, a time that no file gets by itself.
constexpr time_t kOldTime = 1'000'000'000;

class Trial {
 public:
  Trial(const cli::Location& location, Findings& findings)
      : findings_(findings),
        location_(location),
        check_(fmt::format("location {}", location.number)) {}

  void reads() {
    const bool readable = ::access(location_.path.c_str(), R_OK | X_OK) == 0;
    struct stat info {};
    if (readable && ::stat(location_.path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      findings_.ok(check_, location_.path + " can be read");
      return;
    }
    problem(fmt::format("{} cannot be read: {}", location_.path,
                        readable ? "it is no directory" : std::strerror(errno)),
            "the lead reads its files there", "ls -ld " + location_.path);
  }

  void takes(uint64_t need) {
    if (!open()) return;
    const bool written = write();
    if (written && !location_.memory) clock();
    if (written) space(need);
    remove();
  }

 private:
  void problem(const std::string& what, const std::string& why, const std::string& mend) {
    findings_.add({Level::kProblem, check_, what, why, mend});
  }
  std::string space_place() const { return location_.memory ? "/dev/shm" : location_.path; }

  bool open() {
    if (location_.memory) {
      name_ = fmt::format("{}pkgdist-doctor-{}", location_.path, ::getpid());
      file_ = Descriptor(::shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
    } else {
      name_ = location_.path + "/.pkgdist-doctor-XXXXXX";
      file_ = Descriptor(::mkostemp(name_.data(), O_CLOEXEC));
    }
    if (file_.valid()) return true;
    const int error = errno;
    problem(fmt::format("{}: no file can be made: {}", location_.path, std::strerror(error)),
            "files that arrive for it fail",
            error == ENOENT   ? "mkdir -p " + location_.path
            : error == ENOSPC ? "df -h -i " + space_place()
                              : fmt::format("ls -ld {0}; id; findmnt -T {0}", space_place()));
    return false;
  }

  bool write() {
    const std::string bytes(kTrial, 'x');
    before_ = now();
    const ssize_t written = ::write(file_.get(), bytes.data(), bytes.size());
    after_ = now();
    if (written == static_cast<ssize_t>(bytes.size())) return true;
    problem(fmt::format("{}: {} of {} bytes were written: {}", location_.path,
                        written < 0 ? 0 : written, bytes.size(),
                        written < 0 ? std::strerror(errno) : "no space left"),
            "files that arrive for it fail", "df -h -i " + space_place());
    return false;
  }

  // The library sets the time of a file and compares times to tell whether it has the file.
  void clock() {
    struct stat info {};
    if (::fstat(file_.get(), &info) != 0) return;
    const double time = seconds(info.st_mtim);
    if (time < before_ - kClockTolerance || time > after_ + kClockTolerance)
      findings_.add({Level::kWarning, check_,
                     fmt::format("a file written now has a time {:.0f} s from this host's clock",
                                 time - after_),
                     "another host keeps the times of these files, and its clock differs",
                     "timedatectl; on both hosts"});
    const timespec times[2] = {{kOldTime, 0}, {kOldTime, 0}};
    if (::futimens(file_.get(), times) == 0 && ::fstat(file_.get(), &info) == 0 &&
        info.st_mtim.tv_sec == kOldTime)
      return;
    problem(fmt::format("{} does not keep the time that a file is given", location_.path),
            "a file that is there already is known by its time: each push would send it again",
            "findmnt -T " + location_.path);
  }

  void space(uint64_t need) {
    struct statvfs space {};
    if (::statvfs(space_place().c_str(), &space) != 0) return;
    const uint64_t free = uint64_t{space.f_bavail} * space.f_frsize;
    if (free < need)
      findings_.add({Level::kWarning, check_,
                     fmt::format("{} takes files; {} bytes are left", location_.path, free),
                     fmt::format("less than {} bytes (--need): files fail when it is full", need),
                     "df -h " + space_place()});
    else
      findings_.ok(check_,
                   fmt::format("{} takes files; {} MB are left", location_.path, free / 1'000'000));
    if (space.f_files != 0 && space.f_favail < 1000)
      findings_.add({Level::kWarning, check_,
                     fmt::format("{} has room for {}", location_.path,
                                 cli::counted(space.f_favail, "more file")),
                     "each file needs an inode", "df -i " + space_place()});
  }

  void remove() const {
    if (location_.memory)
      (void)::shm_unlink(name_.c_str());
    else
      (void)::unlink(name_.c_str());
  }

  static double seconds(const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }
  static double now() {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return seconds(time);
  }

  Findings& findings_;
  const cli::Location& location_;
  const std::string check_;
  std::string name_;
  Descriptor file_;
  double before_ = 0, after_ = 0;
};

}  // namespace

void check_locations(const DoctorOptions& options, Findings& findings) {
  if (options.common.locations.empty())
    findings.note("location", "none was given",
                  "--location N=DIR has a storage location tried out");
  for (const auto& [number, location] : options.common.locations) {
    Trial trial(location, findings);
    if (options.role == Role::kLead)
      trial.reads();
    else
      trial.takes(options.need_bytes);
  }
}

}  // namespace pkgdist::doctor
