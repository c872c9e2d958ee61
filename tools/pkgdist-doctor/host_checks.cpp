#include "host_checks.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <fmt/ranges.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <vector>

#include "descriptor.h"

namespace pkgdist::doctor {

namespace {

using cli::format_address;

// IPv4 and UDP headers and the longest datagram.
constexpr int kFullPacket = 1500;
// Statistics and traces of one node, with room to spare.
constexpr uint64_t kSharedMemory = 16'000'000;

int mtu_of(const std::string& name) {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name.c_str());
  return ::ioctl(socket.get(), SIOCGIFMTU, &request) == 0 ? request.ifr_mtu : 0;
}

Interface interface_of(uint32_t address) {
  const cli::NetworkInterface found =
      cli::find_interface(address).value_or(cli::NetworkInterface{});
  return {found, found.exists() ? mtu_of(found.name) : 0};
}

int number_in(const std::string& path) {
  int value = 0;
  std::ifstream(path) >> value;
  return value;
}

// 0 none, 1 strict, 2 loose; the kernel takes the greater one.
int reverse_path_filter(const std::string& interface) {
  const std::string base = "/proc/sys/net/ipv4/conf/";
  return std::max(number_in(base + "all/rp_filter"), number_in(base + interface + "/rp_filter"));
}

struct Route {
  int error = 0;
  uint32_t source = 0;
};

Route route_to(uint32_t peer) {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{}, from{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  to.sin_addr.s_addr = htonl(peer);
  socklen_t length = sizeof from;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 ||
      ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&from), &length) != 0)
    return {errno, 0};
  return {0, ntohl(from.sin_addr.s_addr)};
}

// Bytes that a socket gets, asked for in the way of the role's program.
uint32_t granted_buffer(Role role, uint32_t wanted) {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int value = static_cast<int>(wanted);
  if (role == Role::kNode ||
      ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &value, sizeof value) != 0)
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &value, sizeof value);
  int granted = 0;
  socklen_t length = sizeof granted;
  (void)::getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &granted, &length);
  return static_cast<uint32_t>(granted) / 2;  // the kernel doubles it for its own bookkeeping
}

}  // namespace

Interface check_interface(const DoctorOptions& options, Findings& findings) {
  const Interface found = interface_of(options.common.interface);
  const std::string address = format_address(options.common.interface);
  if (!found.exists()) {
    findings.add({Level::kProblem, "interface", fmt::format("no interface has {}", address),
                  "pkgdist joins its groups and sends by the interface of this address",
                  "ip -4 address show; then give one of these addresses as --interface"});
    return found;
  }
  if (!found.works()) {
    findings.add({Level::kProblem, "interface", fmt::format("{} is down", found.name),
                  "nothing is sent or received by it",
                  fmt::format("ip link set dev {} up; see also that its cable is in", found.name)});
  } else if ((found.flags & IFF_MULTICAST) == 0 && !found.loopback()) {
    findings.add({Level::kProblem, "interface", fmt::format("{} has multicast off", found.name),
                  "everything that the lead tells all nodes is multicast",
                  fmt::format("ip link set dev {} multicast on", found.name)});
  } else {
    findings.ok("interface", fmt::format("{} has {}, MTU {}", found.name, address, found.mtu));
  }
  return found;
}

bool is_small(const Interface& interface) {
  return interface.mtu < kFullPacket;
}

void check_mtu(const Interface& interface, Findings& findings) {
  if (!is_small(interface)) return;
  findings.add({Level::kWarning, "mtu",
                fmt::format("{} has an MTU of {}", interface.name, interface.mtu),
                "datagrams of 1,472 bytes need 1,500; longer ones are cut in two or lost",
                fmt::format("ip link set dev {} mtu 1500", interface.name)});
}

void check_routes(const DoctorOptions& options, const Interface& interface,
                  const std::set<uint32_t>& peers, Findings& findings) {
  constexpr size_t kNamed = 5;
  const std::string own = format_address(options.common.interface);
  const char* other = role_name(options.role == Role::kLead ? Role::kNode : Role::kLead);
  std::map<std::pair<int, uint32_t>, std::vector<std::string>> bad;  // by error and source
  for (const uint32_t peer : peers) {
    const Route route = route_to(peer);
    const std::string to = format_address(peer);
    // Loopback addresses stand for each other.
    if (route.error == 0 && interface.loopback() && route.source >> 24 == 127) continue;
    if (route.error == 0 && route.source == options.common.interface)
      findings.add({Level::kOk,
                    "route",
                    fmt::format("{} is reached from {}", to, own),
                    "",
                    "",
                    fmt::format("{} {}", other, to),
                    {to}});
    else
      bad[{route.error, route.source}].push_back(to);
  }
  for (const auto& [route, hosts] : bad) {
    const auto [error, source] = route;
    const bool filtered = reverse_path_filter(interface.name) == 1;
    std::string to = fmt::format(
        "{}", fmt::join(hosts.begin(),
                        hosts.begin() + static_cast<std::ptrdiff_t>(std::min(kNamed, hosts.size())),
                        ", "));
    if (hosts.size() > kNamed) to += fmt::format(" and {} more", hosts.size() - kNamed);
    const std::string what =
        error != 0 ? fmt::format("{} cannot be reached: {}", to, std::strerror(error))
                   : fmt::format("{} {} reached from {} and not from {}", to,
                                 hosts.size() == 1 ? "is" : "are", format_address(source), own);
    std::string why = "acknowledgements and requests for repair go to single hosts";
    if (filtered) why += "; and rp_filter drops multicast of hosts that are reached another way";
    findings.add({error != 0 || filtered ? Level::kProblem : Level::kWarning, "route", what, why,
                  fmt::format("ip route get {0}; ip route add {0}/32 dev {1} src {2}",
                              hosts.front(), interface.name, own),
                  "", hosts});
  }
}

void check_receive_buffer(const DoctorOptions& options, Findings& findings) {
  const uint32_t usual = options.role == Role::kLead ? kLeadReceiveBuffer : kNodeReceiveBuffer;
  const uint32_t wanted = options.receive_buffer != 0 ? options.receive_buffer : usual;
  const uint32_t granted = granted_buffer(options.role, wanted);
  if (granted >= wanted) {
    findings.ok("buffers", fmt::format("sockets get the {} bytes that they ask for", wanted));
    return;
  }
  findings.add({Level::kWarning, "buffers",
                fmt::format("sockets ask for {} bytes and get {}", wanted, granted),
                options.role == Role::kLead
                    ? "answers of many nodes at once are lost"
                    : "what arrives while the node is busy is lost and has to be sent again",
                fmt::format("sysctl -w net.core.rmem_max={}", wanted)});
}

void check_shared_memory(Findings& findings) {
  struct statvfs space {};
  if (::statvfs("/dev/shm", &space) != 0) {
    findings.add({Level::kProblem, "shm", fmt::format("/dev/shm: {}", std::strerror(errno)),
                  "a node keeps statistics and traces there", "mount -t tmpfs tmpfs /dev/shm"});
    return;
  }
  const uint64_t free = uint64_t{space.f_bavail} * space.f_frsize;
  if (free < kSharedMemory) {
    findings.add({Level::kWarning, "shm", fmt::format("/dev/shm has {} bytes left", free),
                  "a node keeps statistics and traces there; killed ones leave theirs",
                  "ls -l /dev/shm; remove pkgdist-stat.PID and pkgdist-trace.PID of no process"});
    return;
  }
  findings.ok("shm", fmt::format("/dev/shm has {} MB left", free / 1'000'000));
}

}  // namespace pkgdist::doctor
