// Confinement of names to their storage location.
//
// A name has no ".." component, so without symbolic links it cannot leave its location. With them
// it could: a lead pushes `a -> /etc` and then a file `a/shadow`. Therefore a step touches the file
// system for a name only when the directory of the name resolves beneath the directory that the
// location stands in. Links that stay inside keep working. What would leave fails as the call that
// was to follow, with the error of the check: EXDEV when a link leads out, ELOOP when links never
// end.
//
// The check is one call and the step another. No lead can put a link in between: whatever makes,
// follows or removes a name below a location runs with the receive lock held, on DATA_FILE, CTRL_RX
// or a caller's thread. Local users who may write into a location are trusted with it.
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>

#include "pkgdist_data_recv.h"

namespace pkgdist {

// 0 when a call on the path stays below its location, or finds no directory and fails by itself;
// otherwise the error number with which it is to fail.
int confinement_error(const FilePath& path);

// The same by looking at every component, for kernels that cannot resolve beneath a directory.
int confinement_error_by_walk(const FilePath& path);

// The directory of a name, relative to the directory that its location stands in.
struct ConfinedDirectory {
  char base[kFilePathBytes] = {};
  char relative[kFilePathBytes] = {};  // empty: the name stands in that directory itself

  ConfinedDirectory() = default;
  explicit ConfinedDirectory(const FilePath& path);
  bool operator==(const ConfinedDirectory& other) const;
};

// While one exists, its thread checks a directory once and not again for each step: what comes in
// one batch of datagrams is one step for it. A small file takes three checks, mostly of directories
// that the files before stand in or are announced for. Only what passed is remembered.
//
// DATA_FILE has one for each batch. It is the only thread that makes pushed links, and whatever it
// remembers is forgotten then.
class ConfinementMemory {
 public:
  ConfinementMemory();
  ~ConfinementMemory();
  ConfinementMemory(const ConfinementMemory&) = delete;
  ConfinementMemory& operator=(const ConfinementMemory&) = delete;

  // A link was made: what passed before may lead elsewhere now.
  static void forget();

  bool knows(const ConfinedDirectory& directory) const;
  void remember(const ConfinedDirectory& directory);

 private:
  // Files are announced while others, in other directories, are received.
  static constexpr size_t kMost = 4;
  std::array<ConfinedDirectory, kMost> passed_;  // the youngest, in a ring
  size_t count_ = 0;                             // ever remembered
};

// A path that was checked: calls on it fail unless it stays below its location.
class Beneath {
 public:
  explicit Beneath(const FilePath& path) : path_(path.c_str()), error_(confinement_error(path)) {}
  const char* c_str() const { return path_; }

  // `act` with the path, or -1 with errno.
  template <class Act>
  int operator()(Act act) const {
    if (error_ == 0) return act(path_);
    errno = error_;
    return -1;
  }

 private:
  const char* path_;
  int error_;
};

}  // namespace pkgdist
