// A UDP socket of the lead: its options, and how it reaches a group of nodes.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

namespace pkgdist::lead {

// Address and port in host byte order.
inline sockaddr_in endpoint(uint32_t address, uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(address);
  return name;
}

// What fails in the constructor and in functions without a result throws std::system_error, whose
// text begins with `what`, the socket's purpose.
class UdpSocket {
 public:
  explicit UdpSocket(const char* what) : what_(what) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) fail(std::string(what) + ": socket");
  }
  ~UdpSocket() { ::close(fd_); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  int fd() const { return fd_; }

  template <class T>
  void option(int level, int name, const T& value, const char* step) const {
    if (::setsockopt(fd_, level, name, &value, sizeof value) != 0)
      fail(std::string(what_) + ": " + step);
  }
  // Forced beyond the system's limit where privileges allow it, else as far as the limit goes.
  void buffer(int forced, int plain, int bytes) const {
    if (::setsockopt(fd_, SOL_SOCKET, forced, &bytes, sizeof bytes) != 0)
      (void)::setsockopt(fd_, SOL_SOCKET, plain, &bytes, sizeof bytes);
  }
  void bind(uint32_t address, uint16_t port) const {
    const sockaddr_in name = endpoint(address, port);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
      fail(std::string(what_) + ": cannot use port " + std::to_string(port) + " of the interface");
  }
  // Receives what is sent to the group. Beside a node on the same host, which has it, too.
  bool join(uint32_t group, uint16_t port, uint32_t interface_address) const {
    const int on = 1;
    const int off = 0;
    const sockaddr_in name = endpoint(group, port);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(interface_address);
    return ::setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0 &&
           ::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) == 0 &&
           ::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 &&
           ::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
  }
  bool leave_by(uint32_t address) const {
    const in_addr interface { htonl(address) };
    return ::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) == 0;
  }
  void multicast_from(uint32_t address, uint8_t ttl) const {
    const unsigned char on = 1;
    if (!leave_by(address)) fail(std::string(what_) + ": setsockopt IP_MULTICAST_IF");
    option(IPPROTO_IP, IP_MULTICAST_LOOP, on, "setsockopt IP_MULTICAST_LOOP");
    option(IPPROTO_IP, IP_MULTICAST_TTL, ttl, "setsockopt IP_MULTICAST_TTL");
  }

 private:
  [[noreturn]] static void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
  }

  const char* what_;
  int fd_ = -1;
};

}  // namespace pkgdist::lead
