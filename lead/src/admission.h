// How much of the lead whoever may have. Everything that others can ask for is bounded here: what
// nodes ask for, honest or forged, leaves the push its places, and each node the others theirs.
#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "node_table.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

// Files in transfer.
struct Slots {
  // Of the push, most of them settling: memory, and patience with what is behind.
  static constexpr size_t kPush = 2048;
  // That nodes asked for, all together and by each of them. Nodes ask again for what found no
  // place.
  static constexpr size_t kRequested = 6144;
  static constexpr size_t kRequestedByNode = 2048;
};

// The places of files that nodes asked for.
class RequestSlots {
 public:
  bool free_for(NodeIndex node) const {
    return taken_ < Slots::kRequested &&
           (node >= by_node_.size() || by_node_[node] < Slots::kRequestedByNode);
  }
  void take(NodeIndex node) {
    if (node >= by_node_.size()) by_node_.resize(node + size_t{1});
    ++by_node_[node];
    ++taken_;
  }
  void give_back(NodeIndex node) {
    --by_node_[node];
    --taken_;
  }
  size_t taken() const { return taken_; }

 private:
  std::vector<size_t> by_node_;
  size_t taken_ = 0;
};

// So much a second for each node, and a stock for those that had nothing for a while.
class Allowance {
 public:
  Allowance(double stock, double per_second) : stock_(stock), per_second_(per_second) {}

  // Whether the node may have that now; it is taken off what it has.
  bool take(NodeIndex node, double amount, Time now) {
    Account& account = accounts_.try_emplace(node, Account{stock_, now}).first->second;
    const double earned = per_second_ * static_cast<double>(elapsed(now, account.at)) / kSecond;
    account.left = std::min(stock_, account.left + earned);
    account.at = now;
    if (account.left < amount) return false;
    account.left -= amount;
    return true;
  }

 private:
  struct Account {
    double left = 0;
    Time at = 0;
  };
  const double stock_;
  const double per_second_;
  std::unordered_map<NodeIndex, Account> accounts_;
};

}  // namespace pkgdist::lead
