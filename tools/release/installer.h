// Installs signed releases in one place, so that at any moment, also after a crash, the link
// `current` names one whole and checked tree.
//
//   PLACE/current -> .pkgdist/releases/7-...     PLACE/previous -> .pkgdist/releases/6-...
//   PLACE/.pkgdist/incoming/                     what the network delivers; nothing there is
//   believed PLACE/.pkgdist/staging/7-.../                the tree that is being made, mode 0700
//   PLACE/.pkgdist/releases/7-.../               whole and checked trees
//
//   check()      the manifest, its signature and leaf file come out of incoming, and everything
//   that
//                `current` has already is copied into staging
//   arrived()    a file came: it is checked and moved to staging. The last one makes the release
//                ready: staging is compared with the manifest, written to the disk, and renamed
//   activate()   on trial: `current` names the release
//   confirm()    it stays: its floor counts from now on
//   fail()       `current` names the previous one again, and this manifest is never taken again
//
// A trial that a restart interrupts has failed. The files of staging are hashed again after a
// restart, whatever an earlier process knew of them.
//
// ask() may be called from any thread; everything else from one. Functions throw Refused with the
// reason, std::runtime_error when the disk fails; what was current stays.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "content.h"
#include "disk.h"
#include "file_io.h"
#include "install_state.h"
#include "manifest.h"
#include "minisign.h"

namespace pkgdist::release {

struct InstallerOptions {
  std::string name;             // of the releases that are taken
  std::string place;            // exists
  std::string state_directory;  // exists; outside of the place
  std::vector<PublicKey> keys;
  SetId set_id = SetId::kRefused;
  // 2027-11-21T00:00:00Z: releases that have expired by then are refused.
  std::optional<std::string> now;
};

class Installer {
 public:
  Installer(InstallerOptions options, Disk disk);

  // Once, first: ends what a crash interrupted.
  void recover();

  void check();
  void arrived(const std::string& path);
  void activate();
  void confirm();
  void fail();
  // By command of the host's owner: the previous release is the installed one. Returns it.
  InstalledRelease roll_back();
  // By command: every file of the current release is read again. What differs; nothing when it is
  // whole.
  std::vector<std::string> verify() const;

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

  const InstallState& state() const { return state_; }
  // The release that is being fetched, or is ready.
  const std::optional<InstalledRelease>& candidate() const { return candidate_; }
  bool ready() const { return ready_; }
  size_t missing() const;  // files
  // Target of a link of the place, "" when there is none.
  std::string link(const char* name) const;

 private:
  struct Expected {
    Entry entry;
    bool present = false;
  };
  struct Incoming {
    std::string manifest;
    std::string signature;
    std::string leaves;
  };

  Incoming take_incoming() const;
  void check_rules(const Manifest& manifest, const InstalledRelease& release,
                   const std::string& key) const;
  Manifest read_release(const std::string& directory) const;
  std::string key_of(const std::string& directory) const;
  void expect(const Manifest& manifest, bool present);
  void stage(const Incoming& incoming, const Manifest& manifest, const InstalledRelease& release);
  void build_staging(const Manifest& manifest);
  bool is_staged(const Entry& entry) const;
  bool reuse(const Entry& entry, const std::unordered_map<std::string, std::string>& current) const;
  std::unordered_map<std::string, std::string> contents_of_current() const;
  void seal(const Entry& entry, int fd) const;
  std::string staging_problem(const Manifest& manifest) const;
  void complete();
  void point(const char* name, const std::string& target) const;
  void save() const;
  void remove_old_releases() const;
  void forget_candidate();
  void find_candidate();
  bool adopt(const std::string& directory, bool ready);
  std::string staging() const;
  std::string target_of(const InstalledRelease& release) const;

  const InstallerOptions options_;
  const Disk disk_;
  const Fd place_;
  const Fd state_directory_;
  InstallState state_;
  std::optional<InstalledRelease> candidate_;
  uint32_t leaf_ = kLeafBytes;  // of the candidate
  bool ready_ = false;
  mutable std::mutex mutex_;  // guards what ask() reads
  std::unordered_map<std::string, Expected> expected_;
};

}  // namespace pkgdist::release
