#include "conversation.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

#include "pkgdist/wire_fields.hpp"
#include "stop_signals.h"

namespace pkgdist::doctor {

namespace {

constexpr double kSendPeriod = 0.1;
// Hosts that get probes of their own in one round; of more, each gets its turn.
constexpr size_t kPeersInRound = 20;
constexpr int kTickMs = 20;
// The oldest are forgotten when more than these are heard.
constexpr size_t kMaxPeers = 1000;

double monotonic_seconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

sockaddr_in endpoint(uint32_t address, uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(address);
  return name;
}

Descriptor udp_socket() {
  return Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool bind_to(const Descriptor& socket, uint32_t address, uint16_t port) {
  const sockaddr_in name = endpoint(address, port);
  return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}

}  // namespace

Counts Peer::expected() const {
  Counts counts{};
  for (size_t path = 0; path < kPaths; ++path)
    counts[path] = now[path] - std::min(now[path], began[path]);
  return counts;
}

Conversation::Conversation(const DoctorOptions& options, const Interface& interface)
    : options_(options) {
  std::random_device random;
  token_ = uint64_t{random()} << 20 | static_cast<uint64_t>(::getpid());
  for (const uint32_t address : options.peers) {
    Peer peer;
    peer.address = address;
    peer.role = options.role == Role::kLead ? Role::kNode : Role::kLead;
    peers_.push_back(peer);
  }
  if (interface.index == 0) {
    deaf_.fill("no interface");
    return;
  }
  mouth_ = udp_socket();
  const in_addr own{htonl(options.common.interface)};
  const int on = 1;
  // Answers of a node leave from the address that the route has, as the library's do.
  if (options.role == Role::kLead) (void)bind_to(mouth_, options.common.interface, 0);
  const int ttl = static_cast<int>(options.ttl);
  const int unfragmented = IP_PMTUDISC_PROBE;
  (void)::setsockopt(mouth_.get(), IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own);
  (void)::setsockopt(mouth_.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &on, sizeof on);
  (void)::setsockopt(mouth_.get(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
  (void)::setsockopt(mouth_.get(), IPPROTO_IP, IP_MTU_DISCOVER, &unfragmented, sizeof unfragmented);
  if (options.role == Role::kLead)
    open_lead();
  else
    open_node();
}

void Conversation::open_lead() {
  const cli::CommonOptions& common = options_.common;
  listen_to_group(common.ctrl_group, false);
  listen_to(common.interface, common.lead_port, {kUnicast, kUnicastFull});
  listen_to(common.interface, common.req_port, {kRequest});
}

void Conversation::open_node() {
  const cli::CommonOptions& common = options_.common;
  listen_to_group(common.ctrl_group, false);
  // A node that runs here opens its data socket when a file comes, and must be able to.
  const bool node_runs = port_in_use(INADDR_ANY, common.node_port);
  if (node_runs)
    deaf_[kData] = deaf_[kDataFull] = "a node runs here, which needs the port for itself";
  else
    listen_to_group(common.data_group, true);
  listen_to(INADDR_ANY, common.node_port, {kUnicast, kUnicastFull});
}

bool Conversation::port_in_use(uint32_t address, uint16_t port) const {
  return !bind_to(udp_socket(), address, port);
}

void Conversation::listen_to_group(cli::Endpoint group, bool data) {
  Descriptor socket = udp_socket();
  const int on = 1, off = 0;
  // Everybody on this host who has a group's port gets his own copy.
  if (!data) (void)::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  (void)::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
  const ip_mreq membership{{htonl(group.address)}, {htonl(options_.common.interface)}};
  std::string problem;
  if (!bind_to(socket, group.address, group.port))
    problem = fmt::format("{}:{}: {}", cli::format_address(group.address), group.port,
                          std::strerror(errno));
  else if (::setsockopt(socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                        sizeof membership) != 0)
    join_error_[data ? 1 : 0] = problem =
        fmt::format("joining {}: {}", cli::format_address(group.address), std::strerror(errno));
  deaf_[data ? kData : kControl] = deaf_[data ? kDataFull : kControlFull] = problem;
  if (problem.empty()) ears_.push_back({std::move(socket), !data});
}

void Conversation::listen_to(uint32_t address, uint16_t port, std::initializer_list<Path> paths) {
  Descriptor socket = udp_socket();
  const bool bound = bind_to(socket, address, port);
  const std::string problem =
      bound ? ""
            : fmt::format("port {}: {}", port,
                          errno == EADDRINUSE
                              ? fmt::format("a {} runs here", role_name(options_.role))
                              : std::strerror(errno));
  for (const Path path : paths) deaf_[path] = problem;
  if (bound) ears_.push_back({std::move(socket), false});
}

void Conversation::run(LinkWatch& watch) {
  const double began = monotonic_seconds();
  double next_round = 0;
  std::vector<pollfd> fds;
  for (const Ear& ear : ears_) fds.push_back({ear.socket.get(), POLLIN, 0});
  for (;;) {
    seconds_ = monotonic_seconds() - began;
    const bool waits = last_new_ == 0 && seconds_ < options_.wait_seconds;
    if (!waits && seconds_ >= last_new_ + options_.seconds) return;
    if (seconds_ >= next_round) {
      send_round();
      next_round = seconds_ + kSendPeriod;
    }
    introduce(watch);
    watch.run(seconds_);
    (void)::poll(fds.data(), fds.size(), kTickMs);
    if (cli::stop_signal() != 0) throw std::runtime_error(cli::stop_text());
    for (const Ear& ear : ears_) receive(ear);
  }
}

void Conversation::introduce(LinkWatch& watch) const {
  for (const Peer& peer : peers_) watch.look_after(peer.address);
  for (const auto& [key, lead] : leads_) watch.look_after(lead.address);
}

// --- Sending ---

void Conversation::send_round() {
  if (!mouth_.valid()) return;
  const bool lead = options_.role == Role::kLead;
  send(kControl, nullptr);
  if (lead)
    for (const Path path : {kControlFull, kData, kDataFull}) send(path, nullptr);
  for (size_t i = 0; i < std::min(kPeersInRound, peers_.size()); ++i) {
    Peer& peer = peers_[next_peer_++ % peers_.size()];
    if (peer.role == options_.role) continue;
    send(kUnicast, &peer);
    send(kUnicastFull, &peer);
    if (!lead) send(kRequest, &peer);
  }
}

Probe Conversation::probe_for(Path path, const Peer* peer) {
  Probe probe;
  probe.role = options_.role;
  probe.token = token_;
  probe.address = options_.common.interface;
  probe.pid = static_cast<uint32_t>(::getpid());
  probe.path = path;
  for (uint32_t i = 0; i < kPaths; ++i)
    if (deaf_[i].empty()) probe.listens |= 1u << i;
  probe.sent = sent_;
  const auto mention = [&](const Peer& one) {
    if (one.token != 0)
      probe.others.push_back({one.address, one.token, one.sent, one.expected(), one.heard});
  };
  if (peer != nullptr) {
    mention(*peer);
    return probe;
  }
  for (size_t i = 0; i < std::min(kOthersInProbe, peers_.size()); ++i)
    mention(peers_[turn_++ % peers_.size()]);
  return probe;
}

sockaddr_in Conversation::destination(Path path, uint32_t host) const {
  const cli::CommonOptions& common = options_.common;
  if (path == kControl || path == kControlFull)
    return endpoint(common.ctrl_group.address, common.ctrl_group.port);
  if (path == kData || path == kDataFull)
    return endpoint(common.data_group.address, common.data_group.port);
  if (path == kRequest) return endpoint(host, common.req_port);
  return endpoint(host, options_.role == Role::kLead ? common.node_port : common.lead_port);
}

void Conversation::send(Path path, Peer* peer) {
  uint64_t& count = peer != nullptr ? peer->sent[path] : sent_[path];
  ++count;
  const std::string bytes = encode(probe_for(path, peer));
  const sockaddr_in to = destination(path, peer != nullptr ? peer->address : 0);
  if (::sendto(mouth_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to) >= 0)
    return;
  --count;
  // The other side refuses when nobody listens there, which its own doctor tells.
  if (errno != ECONNREFUSED && errno != EAGAIN) errors_[path] = errno;
}

// --- Receiving ---

void Conversation::receive(const Ear& ear) {
  std::array<uint8_t, 65536> bytes;
  for (;;) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t length = ::recvfrom(ear.socket.get(), bytes.data(), bytes.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from), &size);
    if (length < 0) return;
    const auto count = static_cast<size_t>(length);
    if (const auto probe = decode({reinterpret_cast<const char*>(bytes.data()), count}))
      take(*probe, ntohl(from.sin_addr.s_addr));
    else if (ear.control_group)
      take_ping(bytes.data(), count);
  }
}

Peer& Conversation::peer_of(const Probe& probe) {
  for (Peer& peer : peers_) {
    if (peer.address != probe.address || peer.role != probe.role) continue;
    if (peer.token == probe.token) return peer;
    if (peer.token != 0) continue;
    peer.token = probe.token;  // one that was waited for
    peer.first = 0;
    return peer;
  }
  if (peers_.size() == kMaxPeers) peers_.erase(peers_.begin());
  Peer& peer = peers_.emplace_back();
  peer.address = probe.address;
  peer.token = probe.token;
  peer.role = probe.role;
  return peer;
}

void Conversation::take(const Probe& probe, uint32_t source) {
  if (probe.token == token_) return;
  if (probe.address == options_.common.interface && probe.role == options_.role) {
    another_of_us_ = true;
    return;
  }
  Peer& peer = peer_of(probe);
  const Tally* ours = nullptr;
  for (const Tally& tally : probe.others) {
    if (tally.address != options_.common.interface) continue;
    if (tally.token == token_) ours = &tally;
  }
  for (size_t path = 0; path < kGroupPaths; ++path) peer.now[path] = probe.sent[path];
  for (size_t path = kGroupPaths; ours != nullptr && path < kPaths; ++path)
    peer.now[path] = ours->sent[path];
  if (peer.first == 0) {
    peer.first = last_new_ = std::max(seconds_, 1e-6);
    peer.pid = probe.pid;
    // What was sent before this doctor was started could not come.
    for (size_t path = 0; path < kGroupPaths; ++path) peer.began[path] = peer.now[path];
  }
  peer.last = seconds_;
  peer.listens = probe.listens;
  if (probe.path >= kGroupPaths && source != probe.address) peer.source = source;
  ++peer.heard[probe.path];
  if (ours == nullptr) return;
  if (!peer.told)
    for (size_t path = kGroupPaths; path < kPaths; ++path) peer.began[path] = peer.now[path];
  peer.tally = *ours;
  peer.told = true;
}

// A ping is the header of a control datagram and nothing else.
void Conversation::take_ping(const uint8_t* bytes, size_t length) {
  constexpr size_t kPrefix = sizeof(uint32_t);
  if (length < kPrefix) return;
  uint32_t header_length = 0;
  std::memcpy(&header_length, bytes, kPrefix);
  if (ntohl(header_length) != length - kPrefix) return;
  pkgdist_ctrl_msg_hdr header{};
  if (qidl::decode(bytes + kPrefix, length - kPrefix, header, nullptr) != 0 ||
      header.msg_id != PKGDIST_CTRL_MSG_PING)
    return;
  HeardLead& lead = leads_[{header.node_ip, header.pid}];
  lead.address = header.node_ip;
  lead.pid = header.pid;
  if (lead.pings++ == 0) lead.first = seconds_;
  lead.last = seconds_;
}

}  // namespace pkgdist::doctor
