#include "status_text.h"

#include <cerrno>

#include "pkgdist/status.h"

namespace pkgdist::cli {

std::string status_text(uint64_t status) {
  // What a lead concludes from a node's answers; errors of system calls on nodes have other
  // numbers.
  if (status == PKGDIST_STATUS_FROM_ERRNO(EMSGSIZE))
    return "segments do not arrive, small datagrams do: check the MTU";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ECONNRESET))
    return "the node's process restarted again and again";
  if (status == PKGDIST_STATUS_UNKNOWN_FILE)
    return "not wanted by the node; of a push: the name is too long for its location, or it has no "
           "such location";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ETIME))
    return "dropped: less than half as fast as the other nodes";
  return status == 0 ? "received" : pkgdist_status_str(status);
}

}  // namespace pkgdist::cli
