// A node's place for releases, and an installer that can be started anew and killed there.
#pragma once

#include <fmt/core.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <string>

#include "built_release.h"
#include "installer.h"

namespace release_test {

// A process that was killed.
struct Stopped : std::runtime_error {
  Stopped() : std::runtime_error("stopped") {}
};

inline const std::string kSame(3 * kLeafBytes, 's');

// Of this process, from files.
inline uint64_t bytes_read() {
  std::ifstream io("/proc/self/io");
  std::string name;
  uint64_t number = 0;
  while (io >> name >> number)
    if (name == "rchar:") return number;
  ADD_FAILURE() << "the kernel does not say";
  return 0;
}

class Install : public testing::Test {
 protected:
  // A new process of the node. It is killed before its operation number `stop_at`.
  void start(size_t stop_at = SIZE_MAX) {
    operations_ = 0;
    const auto before = [this, stop_at](const char*) {
      if (operations_++ >= stop_at) throw Stopped();
    };
    node_ = std::make_unique<Installer>(options(), Disk(before));
    node_->recover();
    node_->resume();
  }
  InstallerOptions options() const {
    InstallerOptions options;
    options.name = "base";
    options.place = place_.path();
    options.state_directory = state_.path();
    options.keys = keys_;
    options.threshold = threshold_;
    options.hard_links = hard_links_;
    options.longest_path = longest_path_;
    if (now_) options.now = [this] { return *now_; };
    return options;
  }

  void let_expire(Built& built, const std::string& time) const {
    built.manifest.expires = time;
    built.text = format(built.manifest);
    built.signature = signer_.sign(built.text);
  }
  void bring(const std::string& path, const std::string& content) {
    place_.write(".pkgdist/incoming/" + path, content);
  }
  void bring_manifest(const Built& built) {
    bring(kManifestPath, built.text);
    bring(kSignaturePath, built.signature);
    for (const auto& [path, text] : built.further) bring(path, text);
    if (!built.leaves.empty()) bring(kLeavesPath, built.leaves);
    node_->check();
  }
  // As a push does: whatever the gate lets through.
  void bring_files(const Built& built) {
    for (const Entry& entry : built.manifest.entries) {
      if (node_->ask(entry.path, std::nullopt) != Installer::kAccept) continue;
      if (node_->ask(entry.path, Installer::Announced{entry.size, entry.mode, false}) !=
          Installer::kAccept)
        continue;
      ++files_sent_;
      bring(entry.path, built.tree.read(entry.path));
      arrive(entry.path);
    }
  }
  // Why it was refused, "" when it was not.
  std::string arrive(const std::string& path) {
    const auto refusals = node_->arrived({path});
    return refusals.empty() ? "" : refusals.at(path);
  }
  void install(const Built& built) {
    bring_manifest(built);
    bring_files(built);
    node_->activate();
    node_->confirm();
  }
  std::optional<Reason> refused(const Built& built) {
    return refusal([&] { bring_manifest(built); });
  }
  bool current_is(const Built& built) const {
    std::error_code error;
    if (!std::filesystem::exists(place_ / "current", error)) return false;
    return differences(built.manifest, scan_tree(place_ / "current", {kLeafBytes, 1, nullptr}))
        .empty();
  }

  const ReleaseSigner signer_{1};
  std::vector<PublicKey> keys_ = {signer_.public_key()};
  size_t threshold_ = 1;
  const TempTree place_{"/dev/shm"};
  const TempTree state_{"/dev/shm"};
  std::optional<std::string> now_;
  bool hard_links_ = false;
  size_t longest_path_ = kMaxPathBytes;
  const Built five_{5, {{"a/one", "0"}}, signer_, 3};
  const Built six_{6, {{"a/one", "1"}, {"same", kSame}, {"gone", "x"}}, signer_, 5};
  const Built seven_{7, {{"a/one", "2"}, {"same", kSame}, {"new/file", "y"}}, signer_, 6};
  std::unique_ptr<Installer> node_;
  size_t operations_ = 0;
  size_t files_sent_ = 0;
};

}  // namespace release_test
