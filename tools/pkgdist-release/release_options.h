// Options of pkgdist-release.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli_common.h"

namespace pkgdist::release_program {

enum class Command { kMake, kCheck, kShow, kDiff };

struct ReleaseOptions {
  Command command = Command::kMake;
  std::string path;
  std::string other;  // diff
  bool json = false;

  // make
  std::string name;
  uint64_t version = 0;
  uint64_t floor = 0;
  std::optional<std::string> expires;
  bool allow_setuid = false;
  std::string cache;

  // make, check
  unsigned threads = 0;
  std::string keys;      // check
  size_t threshold = 1;  // check: signatures by so many of these keys
  bool entries = false;  // show
};

void add_release_options(CLI::App& app, ReleaseOptions& options);

}  // namespace pkgdist::release_program
