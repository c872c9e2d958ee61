// Keeps this host in the multicast groups when its interface was made anew.
//
// The library's sockets have joined by the number of an interface that no longer exists. They need
// not be opened again: a socket that is bound to a group receives what arrives for any socket of
// the host that has joined it (IP_MULTICAST_ALL, on unless switched off). So one more member on the
// new interface is enough, and files under way go on.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace pkgdist::node_program {

class GroupMembership {
 public:
  explicit GroupMembership(std::vector<uint32_t> groups) : groups_(std::move(groups)) {}
  ~GroupMembership() { leave(); }
  GroupMembership(const GroupMembership&) = delete;
  GroupMembership& operator=(const GroupMembership&) = delete;

  // Joins the groups on this interface, and leaves them on the one before. False and errno when the
  // system refuses.
  bool join(unsigned interface_index);

 private:
  void leave();

  const std::vector<uint32_t> groups_;
  int fd_ = -1;
};

}  // namespace pkgdist::node_program
