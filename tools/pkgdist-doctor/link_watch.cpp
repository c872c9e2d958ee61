#include "link_watch.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <linux/filter.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/if_ether.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace pkgdist::doctor {

namespace {

// Between join and leave: the kernel's report has to have gone out.
constexpr double kMemberSeconds = 1.5;
constexpr double kArpPeriod = 1;
// Questions for addresses of others: at most so many, so often. Hundreds of hosts get their turn
// within the seconds that an examination takes.
constexpr double kQuestionPeriod = 0.1;
constexpr size_t kQuestions = 20;
// More hosts than these are not looked after.
constexpr size_t kMaxOthers = 1000;
constexpr uint8_t kIgmpQuery = 0x11;

std::string hardware_text(const uint8_t* mac) {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3],
                     mac[4], mac[5]);
}

sockaddr_ll link_address(const Interface& interface, uint16_t protocol) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(protocol);
  address.sll_ifindex = static_cast<int>(interface.index);
  return address;
}

Descriptor packet_socket(const Interface& interface, uint16_t protocol) {
  // Protocol 0: nothing is taken before the socket is bound and its filter set.
  Descriptor socket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid()) return socket;
  if (protocol == ETHERTYPE_IP) {
    sock_filter igmp_only[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(iphdr, protocol)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_IGMP, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, UINT16_MAX),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program{std::size(igmp_only), igmp_only};
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    // A query about a group that was left goes to that group.
    packet_mreq everything{};
    everything.mr_ifindex = static_cast<int>(interface.index);
    everything.mr_type = PACKET_MR_ALLMULTI;
    (void)::setsockopt(socket.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &everything,
                       sizeof everything);
  }
  const sockaddr_ll address = link_address(interface, protocol);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Descriptor();
  return socket;
}

}  // namespace

LinkWatch::LinkWatch(const Interface& interface, uint32_t address, uint32_t scratch_group)
    : interface_(interface), address_(address), scratch_group_(scratch_group) {
  if (interface.index == 0)
    obstacle_ = "there is no interface";
  else if (interface.loopback())
    obstacle_ = "the loopback network has none";
  else
    open_sockets();
}

void LinkWatch::open_sockets() {
  arp_ = packet_socket(interface_, ETHERTYPE_ARP);
  if (!arp_.valid()) {
    obstacle_ = errno == EPERM ? "needs CAP_NET_RAW" : std::strerror(errno);
    return;
  }
  igmp_ = packet_socket(interface_, ETHERTYPE_IP);
  member_ = Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface_.name.c_str());
  if (::ioctl(member_.get(), SIOCGIFHWADDR, &request) == 0)
    std::memcpy(hardware_.data(), request.ifr_hwaddr.sa_data, hardware_.size());
  const ip_mreqn membership{{htonl(scratch_group_)}, {}, static_cast<int>(interface_.index)};
  (void)::setsockopt(member_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
}

void LinkWatch::run(double seconds) {
  if (!obstacle_.empty()) return;
  if (seconds >= next_arp_) {
    // With no address of its own in it, nobody learns anything wrong from the question.
    ask_for(address_, 0);
    next_arp_ = seconds + kArpPeriod;
  }
  if (seconds >= next_question_) {
    ask_for_others();
    next_question_ = seconds + kQuestionPeriod;
  }
  if (!left_ && seconds >= kMemberSeconds) {
    left_ = true;
    const ip_mreqn membership{{htonl(scratch_group_)}, {}, static_cast<int>(interface_.index)};
    (void)::setsockopt(member_.get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership,
                       sizeof membership);
  }
  take_arp();
  take_igmp();
}

void LinkWatch::look_after(uint32_t address) {
  if (address != address_ && owners_.size() < kMaxOthers) (void)owners_[address];
}

std::map<uint32_t, std::set<std::string>> LinkWatch::shared_addresses() const {
  std::map<uint32_t, std::set<std::string>> shared;
  for (const auto& [address, owners] : owners_)
    if (owners.size() > 1) shared[address] = owners;
  return shared;
}

void LinkWatch::ask_for_others() {
  for (size_t i = 0; i < std::min(kQuestions, owners_.size()); ++i) {
    auto next = owners_.upper_bound(last_asked_);
    if (next == owners_.end()) next = owners_.begin();
    last_asked_ = next->first;
    ask_for(last_asked_, address_);
  }
}

void LinkWatch::ask_for(uint32_t wanted, uint32_t asker) {
  ether_arp question{};
  question.arp_hrd = htons(ARPHRD_ETHER);
  question.arp_pro = htons(ETHERTYPE_IP);
  question.arp_hln = 6;
  question.arp_pln = 4;
  question.arp_op = htons(ARPOP_REQUEST);
  std::memcpy(question.arp_sha, hardware_.data(), hardware_.size());
  const uint32_t address = htonl(wanted), from = htonl(asker);
  std::memcpy(question.arp_tpa, &address, sizeof address);
  std::memcpy(question.arp_spa, &from, sizeof from);
  sockaddr_ll to = link_address(interface_, ETHERTYPE_ARP);
  to.sll_halen = 6;
  std::memset(to.sll_addr, 0xFF, to.sll_halen);
  (void)::sendto(arp_.get(), &question, sizeof question, 0, reinterpret_cast<const sockaddr*>(&to),
                 sizeof to);
}

void LinkWatch::take_arp() {
  const uint32_t address = htonl(address_);
  ether_arp packet{};
  while (::recv(arp_.get(), &packet, sizeof packet, 0) == static_cast<ssize_t>(sizeof packet)) {
    if (std::memcmp(packet.arp_sha, hardware_.data(), hardware_.size()) == 0) continue;
    uint32_t owned = 0;
    std::memcpy(&owned, packet.arp_spa, sizeof owned);
    if (owned == address) {
      duplicate_ = hardware_text(packet.arp_sha);
      continue;
    }
    const auto other = owners_.find(ntohl(owned));
    if (other != owners_.end()) other->second.insert(hardware_text(packet.arp_sha));
  }
}

void LinkWatch::take_igmp() {
  std::array<uint8_t, 2048> packet;
  for (;;) {
    const ssize_t length = ::recv(igmp_.get(), packet.data(), packet.size(), 0);
    if (length < 0) return;
    const size_t header = size_t{packet[0] & 15u} * 4;
    if (static_cast<size_t>(length) < header + 8 || header < sizeof(iphdr)) continue;
    if (packet[header] != kIgmpQuery) continue;
    uint32_t source = 0;
    std::memcpy(&source, &packet[offsetof(iphdr, saddr)], sizeof source);
    querier_ = ntohl(source);
  }
}

bool kernel_has_group(const std::string& interface, uint32_t group) {
  // Groups stand below their interface, in the byte order of the machine.
  const std::string wanted = fmt::format("{:08X}", htonl(group));
  std::ifstream file("/proc/net/igmp");
  bool ours = false;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string first, second;
    words >> first >> second;
    if (!line.empty() && line[0] != '\t')
      ours = second == interface;
    else if (ours && first == wanted)
      return true;
  }
  return false;
}

}  // namespace pkgdist::doctor
