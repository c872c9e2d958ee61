#include "udp_sockets.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "process_object.h"

namespace pkgdist::stat {

namespace {

namespace fs = std::filesystem;

// The address stands as the hexadecimal value of its four bytes as they lie in memory.
std::string address_text(uint32_t address, uint32_t port) {
  unsigned char octets[sizeof address];
  std::memcpy(octets, &address, sizeof address);
  char text[32];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", octets[0], octets[1], octets[2], octets[3],
                port);
  return text;
}

bool parse_line(const std::string& line, UdpSocket& socket) {
  std::istringstream fields(line);
  std::string slot, local, remote, state, queues, timer, retransmits, user, timeout, references,
      pointer;
  if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> user >>
        timeout >> socket.inode >> references >> pointer >> socket.drops))
    return false;
  uint32_t address = 0, port = 0;
  if (std::sscanf(local.c_str(), "%8" SCNx32 ":%4" SCNx32, &address, &port) != 2) return false;
  if (std::sscanf(queues.c_str(), "%*8x:%16" SCNx64, &socket.queued_bytes) != 1) return false;
  socket.local = address_text(address, port);
  return true;
}

// The sockets among the descriptors of a process; nothing when that may not be looked at.
std::optional<std::set<uint64_t>> socket_inodes(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
  const auto descriptors = tools::names_in(directory);
  if (!descriptors) return {};
  std::set<uint64_t> inodes;
  for (const std::string& descriptor : *descriptors) {
    std::error_code error;
    const std::string target = fs::read_symlink(directory + "/" + descriptor, error).string();
    uint64_t inode = 0;
    if (!error && std::sscanf(target.c_str(), "socket:[%" SCNu64 "]", &inode) == 1)
      inodes.insert(inode);
  }
  return inodes;
}

}  // namespace

std::vector<UdpSocket> parse_udp_table(const std::string& text, const std::set<uint64_t>& inodes) {
  std::vector<UdpSocket> sockets;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    UdpSocket socket;
    if (parse_line(line, socket) && inodes.count(socket.inode) != 0) sockets.push_back(socket);
  }
  return sockets;
}

std::optional<std::vector<UdpSocket>> udp_sockets(pid_t pid) {
  const auto inodes = socket_inodes(pid);
  std::ifstream table("/proc/" + std::to_string(pid) + "/net/udp");
  if (!inodes || !table) return {};
  return parse_udp_table({std::istreambuf_iterator<char>(table), {}}, *inodes);
}

}  // namespace pkgdist::stat
