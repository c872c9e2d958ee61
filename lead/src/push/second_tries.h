// How often a node gets a file of a push again, before what it says about it is the end.
#pragma once

#include <cerrno>
#include <unordered_map>

#include "pkgdist/status.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

class SecondTries {
 public:
  // The file of this transfer has ended on the node. True: it gets it again, because it failed for
  // a reason that may pass: the node gave up waiting, or a link came before the first file of its
  // directory.
  bool after_end(NodeIndex node, const Transfer& transfer, uint64_t status) {
    const bool early_link =
        transfer.attributes.symlink && status == PKGDIST_STATUS_FROM_ERRNO(ENOENT);
    if (!early_link && status != PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT)) return false;
    return ++failures_[key(node, static_cast<uint32_t>(transfer.tag))] <= kMaxRetries;
  }
  // The node does not know the file. True: it is told of it again. A node that was told hardly
  // stays ignorant for long, but it may answer often in that time: both have to pass.
  bool after_ignorance(NodeIndex node, uint32_t file, Time now) {
    Ignorance& one = unknown_[key(node, file)];
    if (one.times++ == 0) one.since = now;
    return one.times <= kMaxUnknown || elapsed(now, one.since) < kUnknownPatience;
  }

 private:
  static constexpr uint32_t kMaxRetries = 2;
  static constexpr uint32_t kMaxUnknown = 8;
  static constexpr Time kUnknownPatience = 10 * kSecond;

  struct Ignorance {
    uint32_t times = 0;
    Time since = 0;
  };
  static uint64_t key(NodeIndex node, uint32_t file) { return uint64_t{node} << 32 | file; }

  std::unordered_map<uint64_t, uint32_t> failures_;
  std::unordered_map<uint64_t, Ignorance> unknown_;
};

}  // namespace pkgdist::lead
