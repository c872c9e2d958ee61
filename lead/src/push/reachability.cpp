#include "push/reachability.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::lead {

namespace {

constexpr Time kReachPeriod = kSecond;
// How long a node may leave all of its lists unacknowledged: they are sent again every second.
constexpr Time kListPatience = 45 * kSecond;
// One that is not heard at all for so long may be away and come back, which is for the node
// time-out to judge; longer than the pauses in which a node repeats a request.
constexpr Time kAway = 25 * kSecond;

}  // namespace

std::vector<std::pair<NodeIndex, uint64_t>> Reachability::look(Time now) {
  std::vector<std::pair<NodeIndex, uint64_t>> unreachable;
  if (now < next_look_) return unreachable;
  next_look_ = now + kReachPeriod;
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    if (!members_[node].present || members_[node].left == 0) continue;
    if (const uint64_t status = judge(node, now); status != 0)
      unreachable.emplace_back(node, status);
  }
  return unreachable;
}

// One that has no list does not listen to the data channel: it has given the list up, as its
// acknowledgement point says.
uint64_t Reachability::judge(NodeIndex node, Time now) {
  if (elapsed(now, nodes_[node].last_heard) >= kAway) {
    data_.restart_contact(node);
    announcer_.excuse(node, now);
    return 0;
  }
  const uint64_t status = data_.out_of_contact(node, now);
  const bool unheeded = announcer_.unheeded(node, now) >= kListPatience;
  const bool listless = unheeded || (status != 0 && !announcer_.reached(node));
  return listless ? PKGDIST_STATUS_FROM_ERRNO(ENOMSG) : status;
}

}  // namespace pkgdist::lead
