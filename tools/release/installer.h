// Installs signed releases in one place, so that at any moment, also after a crash, the link
// `current` names one whole and checked tree.
//
//   PLACE/current -> .pkgdist/releases/7-...     PLACE/previous -> .pkgdist/releases/6-...
//   PLACE/.pkgdist/incoming/       what the network delivers; nothing there is believed
//   PLACE/.pkgdist/staging/7-.../  the tree that is being made, mode 0700
//   PLACE/.pkgdist/releases/7-.../ whole and checked trees
//
//   check()      the manifest, its signatures and leaf file come out of incoming, and everything
//                that `current` has already is copied into staging
//   arrived()    files came: they are moved to staging and checked. The last one makes the release
//                ready: staging is compared with the manifest, written to the disk, and renamed
//   activate()   the tree is compared once more; what has settled is not read again. On trial:
//                `current` names the release
//   confirm()    it stays: its floor counts from now on
//   fail()       `current` names the previous one again, and this manifest is not taken again
//
// A trial that a restart interrupts has failed. The files of staging are hashed again after a
// restart, whatever an earlier process knew of them, and after a failure of the disk: the next
// check() goes on with what is whole. What this process has hashed and nobody has touched since is
// not read again, also when a later release has it by a hard link.
//
// Of a partial file in incoming, of an earlier process or from an earlier lead, the leaves that are
// right need not come again (take_good_parts()).
//
// ask() may be called from any thread; everything else from one. Functions throw Refused with the
// reason, std::runtime_error when the disk fails; what was current stays.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "content.h"
#include "disk.h"
#include "file_io.h"
#include "install_state.h"
#include "manifest.h"
#include "settled_files.h"
#include "signatures.h"

namespace pkgdist::release {

struct InstallerOptions {
  std::string name;             // of the releases that are taken
  std::string place;            // exists
  std::string state_directory;  // exists; outside of the place
  std::vector<PublicKey> keys;
  size_t threshold = 1;  // of them, so many have to have signed
  SetId set_id = SetId::kRefused;
  // Files that a release has in common with the current one share their inodes: for trees that
  // nobody writes. Otherwise they share blocks where the file system can, and are copied elsewhere.
  bool hard_links = false;
  // Bytes of the longest path that the network can deliver.
  size_t longest_path = kMaxPathBytes;
  // The time, as 2027-11-21T00:00:00Z: releases that have expired are refused. Null: they are not.
  std::function<std::string()> now;
};

class Installer {
 public:
  Installer(InstallerOptions options, Disk disk);

  // Once, first: ends what a crash interrupted. Quick.
  void recover();
  // Once, next: goes on with a release that an earlier process was making. May take long.
  void resume();

  // `ordered`: the release that is expected. Nothing is done when it is the installed one or the
  // candidate already, and one that was begun earlier needs no manifest in incoming.
  void check(const std::optional<InstalledRelease>& ordered = std::nullopt);
  // Paths that are not expected, or not there, are passed over. What has another content than
  // signed is deleted, and returned with the reason. Takes some milliseconds for each kBatch files,
  // however small: so it is best called for all that have come.
  static constexpr size_t kBatch = 64;
  using Refusals = std::map<std::string, std::string>;  // reasons, by path
  Refusals arrived(const std::vector<std::string>& paths);
  // arrived() for everything of the candidate that stands in incoming.
  Refusals collect();
  void activate();
  void confirm();
  void fail();
  // By command of the host's owner: the previous release is the installed one, when its tree is
  // that of its manifest; by force in any case. What differs, in words; "" when nothing does.
  enum class RollBack { kWhenWhole, kForced };
  std::string roll_back(RollBack how = RollBack::kWhenWhole);
  // By command: this version is taken once, although it is older, below the floor, or failed.
  void allow(uint64_t version);
  // By command: every file of the current release is read again. What differs; nothing when it is
  // whole.
  std::vector<std::string> verify();

  // What may be written into incoming: PKGDIST_GATE_ACCEPT, PKGDIST_GATE_PRESENT or an errno.
  static constexpr int kAccept = 0;
  static constexpr int kPresent = -1;
  // `size` and `mode` are unknown while a file is only listed.
  struct Announced {
    uint32_t size = 0;
    uint32_t mode = 0;
    bool link = false;
  };
  int ask(const std::string& path, const std::optional<Announced>& announced) const;
  // From any thread, when the transfer of a file begins that may be written. A manifest of the
  // same size and time as an earlier one would be taken for that one.
  void make_way(const std::string& path) const;
  // The same: what of the partial file of a missing one is good, when a transfer goes on with it.
  // Takes a second at most; what check() and resume() have found costs nothing.
  struct Part {
    uint64_t first = 0, size = 0;  // bytes
  };
  std::vector<Part> take_good_parts(const std::string& path) const;

  const InstallState& state() const { return state_; }
  // The release that is being fetched, or is ready.
  const std::optional<InstalledRelease>& candidate() const { return candidate_; }
  bool ready() const { return ready_; }
  // What the link `current` names.
  std::optional<InstalledRelease> current() const;
  // Of it; empty: never, or it cannot be read.
  std::string expires() const;
  // The keys that signed it, as far as that was remembered; not of one on trial.
  std::vector<std::string> signers() const;
  // Both from any thread, too.
  size_t missing() const;  // files
  // A bit for each file of the candidate in the order of its manifest, set when it is missing, from
  // the least significant bit of the first byte.
  std::vector<uint8_t> missing_files() const;
  // Target of a link of the place, "" when there is none.
  std::string link(const char* name) const;

 private:
  struct Expected {
    Entry entry;
    bool present = false;
  };
  struct Incoming {
    std::string manifest;
    std::vector<SignatureFile> signatures;
    std::string leaves;
  };
  // A file of the current release.
  struct Reusable {
    std::string path;
    uint32_t mode = 0;
    uint32_t mtime = 0;
  };
  using Contents = std::unordered_map<std::string, Reusable>;  // by digest

  // check
  Incoming take_incoming() const;
  void check_rules(const Manifest& manifest, const InstalledRelease& release,
                   const std::vector<std::string>& keys) const;
  void check_paths(const Manifest& manifest) const;
  void check_floors(const InstalledRelease& release, const std::vector<std::string>& keys) const;
  void stage(const Incoming& incoming, const std::vector<Signer>& signers, const Manifest& manifest,
             const InstalledRelease& release);
  void stage_signatures(const Incoming& incoming, const std::vector<Signer>& signers,
                        const std::string& directory) const;
  bool resume_staged(const InstalledRelease& release);

  // staging
  void expect(const Manifest& manifest, bool present);
  void build_staging(const Manifest& manifest);
  void make_entry(const Entry& entry, const Contents& current);
  void require_room() const;
  void check_staged(const Manifest& manifest, const Contents& current);
  bool is_staged(const Entry& entry);
  bool reuse(const Entry& entry, const Contents& current);
  bool link_known(const std::string& from, const std::string& to);
  Contents contents_of_current() const;
  void set_mode_and_time(const Entry& entry, const struct stat& status, int fd) const;
  void check_content(const Entry& entry, int fd);
  std::string tree_problem(const std::string& directory, const Manifest& manifest) const;
  void complete();

  // fetching
  struct Taken {  // from incoming into staging
    Entry entry;
    Fd file;
  };
  void take_batch(std::span<const std::string> paths, Refusals& refusals);
  std::optional<Entry> wanted(const std::string& path) const;
  std::optional<Taken> take(const std::string& path) const;
  void check_taken(const Taken& taken);
  void mark_present(const std::string& path);
  Expected* find(const std::string& path);
  const Expected* find(const std::string& path) const;

  // switching
  void require_still_ready();
  std::vector<std::string> drift_of(const std::string& directory) const;
  InstalledRelease release_named(const std::string& directory) const;
  void point(const char* name, const std::string& target) const;
  void switch_to(const std::string& target) const;
  void save(const InstallState& state);
  void remove_old_releases();

  // partial files
  struct LargeFile {
    Entry entry;
    std::string leaves;  // path of the leaf file
    size_t first_leaf = 0;
    uint32_t leaf = kLeafBytes;
  };
  std::vector<LargeFile> missing_large(const std::string* only) const;
  std::vector<Part> look_at_partial(const LargeFile& file,
                                    std::chrono::steady_clock::time_point end) const;
  void find_good_parts() const;
  void forget_parts_of_nothing(const std::string& path) const;
  uint64_t partial_bytes() const;

  // recovering
  void clear_incoming() const;
  void clear_incoming(const std::string& below, const std::set<std::string>& kept) const;
  void find_candidate();
  bool adopt(const std::string& directory, bool ready);
  void go_on_with(const std::string& directory, bool ready);
  void forget_candidate();

  bool is_installed(const InstalledRelease& release) const;
  const InstalledRelease* installed_that_counts() const;
  bool has_manifest(const std::string& directory) const;
  Manifest read_release(const std::string& directory) const;
  Manifest manifest_of_current() const;
  InstalledRelease release_in(const std::string& directory) const;
  std::vector<std::string> keys_of(const std::string& directory) const;
  std::string staging_of(const InstalledRelease& release) const;
  std::string target_of(const InstalledRelease& release) const;
  std::vector<std::string> directories_in(const char* where) const;

  const InstallerOptions options_;
  const Disk disk_;
  const Fd place_;
  const Fd state_directory_;
  InstallState state_;
  std::optional<InstalledRelease> candidate_;
  bool ready_ = false;
  SettledFiles settled_;            // of the tree that is being made, or was made ready
  SettledFiles earlier_;            // of the one before, while a tree is begun
  mutable std::mutex mutex_;        // guards what ask() reads, which the one thread writes:
  uint32_t leaf_ = kLeafBytes;      // of the release that is listed here
  std::string coming_;              // directory of the tree that is being made, "" when none is
  std::vector<Expected> expected_;  // in the order of the manifest, which is that of the paths
  size_t missing_ = 0;              // files
  mutable std::map<std::string, std::vector<Part>> parts_;  // of partial files, by path
};

}  // namespace pkgdist::release
