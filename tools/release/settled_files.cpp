#include "settled_files.h"

namespace pkgdist::release {

namespace {

bool is_before(const timespec& one, const timespec& other) {
  return std::tie(one.tv_sec, one.tv_nsec) < std::tie(other.tv_sec, other.tv_nsec);
}

}  // namespace

timespec SettledFiles::clock() {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now;
}

// Times of files may be finer than that clock, and the clock may tick late.
void SettledFiles::wait() {
  constexpr int kMostTicks = 100;  // a clock that was set back may not get there for long
  timespec start{};
  timespec tick{};
  (void)clock_gettime(CLOCK_REALTIME, &start);
  (void)clock_getres(CLOCK_REALTIME_COARSE, &tick);
  for (int i = 0; i < kMostTicks && !is_before(start, clock()); ++i)
    (void)nanosleep(&tick, nullptr);  // a signal only has it look at the clock early
}

SettledFiles::Key SettledFiles::key_of(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec,
          status.st_ctim.tv_nsec};
}

void SettledFiles::add(const struct stat& status, const timespec& began, const Digest& digest) {
  if (status.st_ctim.tv_nsec == 0 || !is_before(status.st_ctim, began)) return;
  known_.insert_or_assign(key_of(status), digest);
}

std::optional<SettledFiles::Known> SettledFiles::take(const struct stat& status) {
  const auto taken = known_.extract(key_of(status));
  if (taken.empty()) return std::nullopt;
  return Known{status.st_dev, status.st_ino, status.st_size, status.st_mtim, taken.mapped()};
}

void SettledFiles::put_back(const Known& known, const struct stat& status) {
  const auto fields = [](uint64_t device, uint64_t inode, int64_t size, const timespec& modified) {
    return std::tuple(device, inode, size, modified.tv_sec, modified.tv_nsec);
  };
  if (fields(known.device, known.inode, known.size, known.modified) ==
      fields(status.st_dev, status.st_ino, status.st_size, status.st_mtim))
    known_.insert_or_assign(key_of(status), known.digest);
}

std::optional<Digest> SettledFiles::find(const struct stat& status) const {
  const auto at = known_.find(key_of(status));
  return at == known_.end() ? std::nullopt : std::optional(at->second);
}

}  // namespace pkgdist::release
