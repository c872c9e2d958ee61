// Remembers the digests of files that this process has hashed, for as long as nothing touches them:
// by inode, size and time of the last change.
//
// A change within the resolution of that time would not show. So only files are remembered that
// nobody had touched for a tick of the clock before they were hashed, and none of a file system
// whose times are whole seconds.
//
// A link to a file, or the removal of one, is a change of the file. Around those of this process
// take() and put_back() keep what is known: a write in between shows by its time, unless somebody
// sets that back.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <tuple>

#include "crypto.h"

namespace pkgdist::release {

class SettledFiles {
 public:
  // The clock that file systems take their times from.
  static timespec clock();
  // Until files that were touched before the call are settled: some milliseconds.
  static void wait();

  // `began`: what clock() said before the file was hashed, after `status` was taken.
  void add(const struct stat& status, const timespec& began, const Digest& digest);
  std::optional<Digest> find(const struct stat& status) const;
  void clear() { known_.clear(); }

  struct Known {
    uint64_t device = 0, inode = 0;
    int64_t size = 0;
    timespec modified{};
    Digest digest{};
  };
  // What is known of a file is no longer known here.
  std::optional<Known> take(const struct stat& status);
  // It is again, when the file is still the same one with the same size and time.
  void put_back(const Known& known, const struct stat& status);

 private:
  // device, inode, size, change time
  using Key = std::tuple<uint64_t, uint64_t, int64_t, int64_t, int64_t>;
  static Key key_of(const struct stat& status);

  std::map<Key, Digest> known_;
};

}  // namespace pkgdist::release
