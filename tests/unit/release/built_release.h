// A release as a lead has it: made and signed in a directory of its own.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "install_state.h"
#include "release_signer.h"
#include "release_support.h"
#include "tree.h"

namespace release_test {

using namespace pkgdist::release;

using Files = std::map<std::string, std::string>;

struct Built {
  Built(uint64_t version, const Files& files, const ReleaseSigner& signer, uint64_t floor = 0,
        const std::string& name = "base") {
    constexpr timespec kTimes[] = {{1'700'000'000, 0}, {1'700'000'000, 0}};
    for (const auto& [path, content] : files) {
      tree.write(path, content);
      EXPECT_EQ(0, utimensat(AT_FDCWD, (tree / path).c_str(), kTimes, 0));
    }
    EXPECT_EQ(0, symlink("elsewhere", (tree / "link").c_str()));
    const ScannedTree scanned = scan_tree(tree.path(), {kLeafBytes, 1, nullptr});
    manifest.name = name;
    manifest.version = version;
    manifest.leaf = kLeafBytes;
    manifest.floor = floor;
    manifest.entries = scanned.entries;
    text = format(manifest);
    leaves = format_leaves(scanned);
    signature = signer.sign(text);
  }
  InstalledRelease release() const { return {manifest.version, sha256(bytes_of(text))}; }

  TempTree tree{"/dev/shm"};
  Manifest manifest;
  std::string text;
  std::string leaves;
  std::string signature;
  Files further;  // signatures, by path
};

}  // namespace release_test
