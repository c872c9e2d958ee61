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
  if (status == kStatusNoLocation) return "the node has no such location";
  if (status == PKGDIST_STATUS_UNKNOWN_FILE)
    return "not wanted by the node; of a push: the name is too long for its location, or it has no "
           "such location";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ETIME))
    return "dropped: less than half as fast as the other nodes";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ECOMM))
    return "answers pings, but nothing on the data channel: check that it has the location, that "
           "packet filters let it reach the lead's --req-port, and its disk";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ENODATA))
    return "asks for files and receives nothing: check that packet filters and switches let the "
           "--data-group through to the node";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ENOMSG))
    return "is heard, but acknowledges no list of files: check the MTU, and that packet filters "
           "let "
           "the --ctrl-group and the lead's --lead-port through";
  if (status == PKGDIST_ERR_SYSTEM)
    return std::string(pkgdist_status_str(status)) + " on the node; its trace names it";
  if (status == PKGDIST_ERR_WRITE)
    return "the disk is full (a write ended short), or a quota is used up";
  if (status == PKGDIST_STATUS_FROM_ERRNO(ENOSPC))
    return std::string(pkgdist_status_str(status)) + ": the disk is full, or has no inodes left";
  return status == 0 ? "received" : pkgdist_status_str(status);
}

}  // namespace pkgdist::cli
