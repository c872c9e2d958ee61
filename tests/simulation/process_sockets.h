// The UDP sockets of a simulated process: queues of datagrams behind descriptors of their own.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <span>
#include <vector>

namespace pkgdist::sim {

class Sockets {
 public:
  // Descriptors that no file of the process has, and that a descriptor set can hold.
  static constexpr int kFirst = 512;
  static constexpr int kLast = 1023;

  // -1 when none is left.
  int open();
  bool is_open(int socket) const { return sockets_.contains(socket); }
  void close(int socket) { sockets_.erase(socket); }
  void bind(int socket, uint32_t address, uint16_t port);
  void join(int socket, uint32_t group) { sockets_.at(socket).groups.insert(group); }

  // Puts the datagram into every socket that hears the address and port; tells each.
  template <class Woken>
  void deliver(uint32_t address, uint16_t port, std::span<const uint8_t> bytes, Woken&& woken) {
    for (auto& [descriptor, socket] : sockets_) {
      if (!socket.hears(address, port)) continue;
      socket.queue.emplace_back(bytes.begin(), bytes.end());
      woken(descriptor);
    }
  }
  bool readable(int socket) const;
  // The oldest datagram, cut to `out`. -1 when there is none.
  long receive(int socket, std::span<uint8_t> out);

 private:
  struct Socket {
    uint32_t address = 0;
    uint16_t port = 0;  // 0: not bound
    std::set<uint32_t> groups;
    std::deque<std::vector<uint8_t>> queue;

    bool hears(uint32_t to, uint16_t to_port) const {
      constexpr uint32_t kMulticastMask = 0xF0000000;
      constexpr uint32_t kMulticast = 0xE0000000;
      if (port == 0 || port != to_port || (address != 0 && address != to)) return false;
      return (to & kMulticastMask) != kMulticast || groups.contains(to);
    }
  };

  std::map<int, Socket> sockets_;
};

}  // namespace pkgdist::sim
