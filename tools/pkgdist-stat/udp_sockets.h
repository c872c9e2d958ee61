// The UDP sockets of a process as its kernel sees them: what waits in them and what was dropped
// because nobody took it in time. Works across network namespaces: /proc/PID/net is the process's.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace pkgdist::stat {

struct UdpSocket {
  uint64_t inode = 0;
  std::string local;          // "239.255.71.1:7100"
  uint64_t queued_bytes = 0;  // waits to be read, with the kernel's own overhead
  uint64_t drops = 0;         // datagrams, since the socket was opened
};

// Those of `inodes` in a table as /proc/net/udp has it. Lines that are not understood are skipped.
std::vector<UdpSocket> parse_udp_table(const std::string& text, const std::set<uint64_t>& inodes);

// Nothing when the process is gone or belongs to somebody else.
std::optional<std::vector<UdpSocket>> udp_sockets(pid_t pid);

}  // namespace pkgdist::stat
