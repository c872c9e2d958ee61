#include "network_interface.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "cli_common.h"

namespace pkgdist::cli {

namespace {

bool has_address(const ifaddrs& entry, uint32_t address) {
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return false;
  const auto* own = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
  const auto* mask = reinterpret_cast<const sockaddr_in*>(entry.ifa_netmask);
  // The loopback interface has every address of its network.
  const bool network = (entry.ifa_flags & IFF_LOOPBACK) != 0 && mask != nullptr;
  const uint32_t bits = network ? mask->sin_addr.s_addr : UINT32_MAX;
  return (own->sin_addr.s_addr & bits) == (htonl(address) & bits);
}

int open_notices() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  sockaddr_nl name{};
  name.nl_family = AF_NETLINK;
  name.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
  if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) return fd;
  ::close(fd);
  return -1;
}

// Reads until nothing is left; that some were lost (ENOBUFS) does not matter.
void discard_notices(int fd) {
  std::array<char, 8192> bytes;
  while (::recv(fd, bytes.data(), bytes.size(), 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
  }
}

}  // namespace

bool NetworkInterface::works() const {
  return exists() && (flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0;
}

bool NetworkInterface::loopback() const {
  return (flags & IFF_LOOPBACK) != 0;
}

std::optional<NetworkInterface> find_interface(uint32_t address) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return std::nullopt;
  NetworkInterface found;
  for (const ifaddrs* i = list; i != nullptr && !found.exists(); i = i->ifa_next) {
    if (!has_address(*i, address)) continue;
    found.name = i->ifa_name;
    found.index = ::if_nametoindex(i->ifa_name);  // 0 when it has just gone
    found.flags = i->ifa_flags;
  }
  ::freeifaddrs(list);
  return found;
}

std::optional<uint32_t> address_of_interface(const std::string& name) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return std::nullopt;
  std::optional<uint32_t> address;
  for (const ifaddrs* i = list; i != nullptr && !address; i = i->ifa_next)
    if (name == i->ifa_name && i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET)
      address = ntohl(reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr);
  ::freeifaddrs(list);
  return address;
}

const char* InterfaceChange::state() const {
  return now.works() ? "up" : now.exists() ? "down" : "gone";
}

std::string InterfaceChange::text() const {
  const std::string own = format_address(address);
  if (now.works()) return fmt::format("interface {} works again with {}", now.name, own);
  if (!now.exists())
    return fmt::format(
        "no interface has {} any more: nothing is sent or received until one has it again", own);
  const bool off = (now.flags & IFF_UP) == 0;
  return fmt::format("interface {} ({}) {}: nothing is sent or received until {}", now.name, own,
                     off ? "is down" : "has no carrier",
                     off ? "it is up again" : "its cable or its peer is back");
}

// Notices first: what changes in between is looked up twice and not missed.
InterfaceWatch::InterfaceWatch(uint32_t address)
    : address_(address),
      fd_(open_notices()),
      known_(find_interface(address).value_or(NetworkInterface{})) {}

InterfaceWatch::~InterfaceWatch() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<InterfaceChange> InterfaceWatch::take() {
  if (fd_ < 0) return std::nullopt;
  discard_notices(fd_);
  std::optional<NetworkInterface> now = find_interface(address_);
  if (!now) return std::nullopt;
  const NetworkInterface before = std::exchange(known_, *now);
  if (before.index == now->index && before.works() == now->works()) return std::nullopt;
  return InterfaceChange{address_, std::move(*now)};
}

}  // namespace pkgdist::cli
