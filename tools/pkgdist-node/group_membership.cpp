#include "group_membership.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace pkgdist::node_program {

bool GroupMembership::join(unsigned interface_index) {
  leave();
  fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // unbound: receives nothing itself
  return fd_ >= 0 && std::all_of(groups_.begin(), groups_.end(), [&](uint32_t group) {
           ip_mreqn membership{};
           membership.imr_multiaddr.s_addr = htonl(group);
           membership.imr_ifindex = static_cast<int>(interface_index);
           return ::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                               sizeof membership) == 0;
         });
}

void GroupMembership::leave() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

}  // namespace pkgdist::node_program
