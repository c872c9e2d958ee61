// Sending: datagrams are built one behind the other in one arena. At a flush, neighbours with the
// same destination and length leave in one call as a segmentation-offload batch, and all batches in
// one sendmmsg(). A kernel or device that refuses the offload gets single datagrams for a while.
//
// A datagram that cannot leave, because the interface is down or gone, is counted and forgotten: to
// the lead it is lost like any other. The kernel keeps the interface of multicast by its number, so
// one that was made anew has to be set again: renew().
#include "pkgdist_lead/udp_transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <vector>

#include "pkgdist/wire_ctrl.h"
#include "shell/offload_switch.h"

namespace pkgdist::lead {

namespace {

constexpr size_t kMaxDatagram = PKGDIST_CTRL_PKT_MAX;
// Gathered before a flush is forced.
constexpr size_t kMaxGathered = 128;
// Limits of the segmentation offload: segments and bytes of one call.
constexpr size_t kMaxOffloadSegments = 44;
constexpr size_t kMaxOffloadBytes = 65000;
// Answers of a thousand nodes to one ping, and requests of many, arrive within a moment.
constexpr int kReceiveBuffer = 8 * 1024 * 1024;
constexpr int kSendBuffer = 2 * 1024 * 1024;
// A full send buffer empties at the speed of the link; longer waits mean that the link is down.
constexpr int kSendWaitMs = 20;
constexpr size_t kReceiveBatch = 64;
constexpr size_t kMaxReceived = 1024;  // per socket and call, so that sending goes on

[[noreturn]] void fail(const std::string& step) {
  throw std::system_error(errno, std::generic_category(), step);
}

sockaddr_in endpoint(uint32_t address, uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(address);
  return name;
}

class Socket {
 public:
  explicit Socket(const char* what) : what_(what) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) fail(std::string(what) + ": socket");
  }
  ~Socket() { ::close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

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
  const char* what_;
  int fd_ = -1;
};

struct Gathered {
  int fd = -1;
  sockaddr_in to{};
  size_t offset = 0;
  size_t length = 0;

  bool same_way(const Gathered& other) const {
    return fd == other.fd && to.sin_port == other.to.sin_port &&
           to.sin_addr.s_addr == other.to.sin_addr.s_addr;
  }
};

// One message of a sendmmsg() call: a run of gathered datagrams.
struct Batch {
  size_t first = 0;
  size_t count = 0;
  size_t bytes = 0;
  iovec data{};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(uint16_t))> control{};
};

}  // namespace

class UdpTransport::Impl {
 public:
  explicit Impl(const UdpSettings& settings)
      : settings_(settings),
        control_("control channel"),
        data_("data channel"),
        requests_("request port"),
        arena_(kMaxGathered * kMaxDatagram),
        inbox_(kReceiveBatch * kMaxDatagram) {
    control_.multicast_from(settings.address, settings.ttl);
    data_.multicast_from(settings.address, settings.ttl);
    for (const Socket* socket : {&control_, &requests_})
      socket->buffer(SO_RCVBUFFORCE, SO_RCVBUF, kReceiveBuffer);
    data_.buffer(SO_SNDBUFFORCE, SO_SNDBUF, kSendBuffer);
    control_.bind(settings.address, settings.lead_port);
    requests_.bind(settings.address, settings.req_port);
    data_.bind(settings.address, 0);
    join_group();
  }

  // A membership of an interface that is gone stays with its socket: it begins anew.
  void join_group() {
    group_.emplace("control group");
    hears_group_ = group_->join(settings_.ctrl_group, settings_.ctrl_port, settings_.address);
  }

  bool renew() {
    offload_ = true;  // of another device, or refused because there was none
    join_group();
    announce();
    return control_.leave_by(settings_.address) && data_.leave_by(settings_.address);
  }

  std::span<uint8_t> buffer() { return {arena_.data() + used_, kMaxDatagram}; }

  void send(Channel channel, uint32_t destination, size_t length) {
    Gathered& one = gathered_.emplace_back();
    one.fd = channel == Channel::kData ? data_.fd() : control_.fd();
    if (destination != kGroup)
      one.to = endpoint(destination, settings_.node_port);
    else if (channel == Channel::kData)
      one.to = endpoint(settings_.data_group, settings_.data_port);
    else
      one.to = endpoint(settings_.ctrl_group, settings_.ctrl_port);
    one.offset = used_;
    one.length = length;
    used_ += length;
    if (gathered_.size() == kMaxGathered) flush();
  }

  void flush() {
    if (gathered_.empty()) return;
    offload_ = offload_switch_.on(monotonic_now());
    size_t sent = 0;
    while (sent < gathered_.size()) sent += send_from(sent);
    gathered_.clear();
    used_ = 0;
  }

  void receive(Lead& lead, Time now) {
    if (arrived_[0]) receive_from(control_, Channel::kControl, lead, now);
    if (arrived_[1]) receive_from(requests_, Channel::kData, lead, now);
    if (arrived_[2]) receive_from(*group_, Channel::kOverheard, lead, now);
    arrived_.fill(true);
  }

  bool wait(Time deadline, int extra_fd) {
    const Time left = elapsed(deadline, monotonic_now());
    const timespec timeout{static_cast<time_t>(left / kSecond), static_cast<long>(left % kSecond)};
    std::array<pollfd, 4> fds{{{control_.fd(), POLLIN, 0},
                               {requests_.fd(), POLLIN, 0},
                               {group_->fd(), POLLIN, 0},
                               {extra_fd, POLLIN, 0}}};
    const int ready = ::ppoll(fds.data(), fds.size(), &timeout, nullptr);
    for (size_t i = 0; i < arrived_.size(); ++i) arrived_[i] = ready > 0 && fds[i].revents != 0;
    return ready > 0 && (fds[3].revents & POLLIN) != 0;
  }

  uint64_t send_errors_ = 0;
  int last_send_error_ = 0;
  bool hears_group_ = false;

 private:
  // Nodes know the hardware address of an interface that is gone, and would send to it for up to a
  // minute. The question for a node's own address, which everybody hears, corrects them; a datagram
  // to a node makes the system ask it.
  void announce() const {
    constexpr uint16_t kDiscardPort = 9;
    if (last_peer_ == 0) return;
    const sockaddr_in to = endpoint(last_peer_, kDiscardPort);
    const char byte = 0;
    (void)::sendto(control_.fd(), &byte, sizeof byte, 0, reinterpret_cast<const sockaddr*>(&to),
                   sizeof to);
  }

  // The datagrams from `first` on that can leave in one message.
  Batch next_batch(size_t first) const {
    Batch batch;
    batch.first = first;
    const Gathered& head = gathered_[first];
    const size_t limit = offload_ ? kMaxOffloadSegments : 1;
    for (size_t i = first; i < gathered_.size() && batch.count < limit; ++i) {
      const Gathered& one = gathered_[i];
      if (!head.same_way(one) || one.length > head.length ||
          batch.bytes + one.length > kMaxOffloadBytes)
        break;
      ++batch.count;
      batch.bytes += one.length;
      if (one.length < head.length) break;  // only the last may be shorter
    }
    return batch;
  }

  void fill(mmsghdr& message, Batch& batch) {
    Gathered& head = gathered_[batch.first];
    batch.data = {arena_.data() + head.offset, batch.bytes};
    message = {};
    message.msg_hdr.msg_name = &head.to;
    message.msg_hdr.msg_namelen = sizeof head.to;
    message.msg_hdr.msg_iov = &batch.data;
    message.msg_hdr.msg_iovlen = 1;
    if (batch.count == 1) return;
    message.msg_hdr.msg_control = batch.control.data();
    message.msg_hdr.msg_controllen = batch.control.size();
    cmsghdr* note = CMSG_FIRSTHDR(&message.msg_hdr);
    note->cmsg_level = SOL_UDP;
    note->cmsg_type = UDP_SEGMENT;
    note->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const auto size = static_cast<uint16_t>(head.length);
    std::memcpy(CMSG_DATA(note), &size, sizeof size);
  }

  // Sends what follows `first` and goes out of the same socket; returns how many datagrams are
  // dealt with.
  size_t send_from(size_t first) {
    const int fd = gathered_[first].fd;
    size_t batches = 0;
    size_t end = first;
    while (end < gathered_.size() && gathered_[end].fd == fd) {
      batches_[batches] = next_batch(end);
      fill(messages_[batches], batches_[batches]);
      end += batches_[batches++].count;
    }
    const int sent = ::sendmmsg(fd, messages_.data(), static_cast<unsigned>(batches), 0);
    if (sent <= 0) return on_send_error(fd, batches_[0]);
    const Batch& last = batches_[static_cast<size_t>(sent) - 1];
    return last.first + last.count - first;
  }

  size_t on_send_error(int fd, const Batch& batch) {
    if (errno == EINTR) return 0;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      pollfd writable{fd, POLLOUT, 0};
      if (::poll(&writable, 1, kSendWaitMs) > 0) return 0;
    } else if (batch.count > 1 && offload_switch_.refused(errno, monotonic_now())) {
      offload_ = false;  // not on this way: once more, one by one
      return 0;
    }
    last_send_error_ = errno;
    send_errors_ += batch.count;
    return batch.count;
  }

  void receive_from(const Socket& socket, Channel channel, Lead& lead, Time now) {
    std::array<mmsghdr, kReceiveBatch> messages;
    std::array<iovec, kReceiveBatch> places;
    std::array<sockaddr_in, kReceiveBatch> senders;
    for (size_t received = 0; received < kMaxReceived;) {
      for (size_t i = 0; i < kReceiveBatch; ++i) {
        places[i] = {inbox_.data() + i * kMaxDatagram, kMaxDatagram};
        messages[i] = {};
        messages[i].msg_hdr.msg_iov = &places[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = &senders[i];
        messages[i].msg_hdr.msg_namelen = sizeof senders[i];
      }
      const int got = ::recvmmsg(socket.fd(), messages.data(), kReceiveBatch, 0, nullptr);
      if (got <= 0) return;
      if (channel != Channel::kOverheard) last_peer_ = ntohl(senders[0].sin_addr.s_addr);
      for (size_t i = 0; i < static_cast<size_t>(got); ++i)
        lead.on_datagram(channel, {inbox_.data() + i * kMaxDatagram, messages[i].msg_len},
                         ntohl(senders[i].sin_addr.s_addr), now);
      received += static_cast<size_t>(got);
      if (static_cast<size_t>(got) < kReceiveBatch) return;
    }
  }

  const UdpSettings settings_;
  Socket control_;
  Socket data_;
  Socket requests_;
  std::optional<Socket> group_;
  std::vector<uint8_t> arena_;
  std::vector<uint8_t> inbox_;
  size_t used_ = 0;
  std::vector<Gathered> gathered_;
  std::array<Batch, kMaxGathered> batches_;
  std::array<mmsghdr, kMaxGathered> messages_;
  OffloadSwitch offload_switch_;
  bool offload_ = true;     // during a flush
  uint32_t last_peer_ = 0;  // a node that was heard
  // Found by the last wait(), in the order of receive(); without one anything may have come.
  std::array<bool, 3> arrived_ = {true, true, true};
};

UdpTransport::UdpTransport(const UdpSettings& settings) : impl_(std::make_unique<Impl>(settings)) {}
UdpTransport::~UdpTransport() = default;

std::span<uint8_t> UdpTransport::buffer() {
  return impl_->buffer();
}

void UdpTransport::send(Channel channel, uint32_t destination, size_t length) {
  impl_->send(channel, destination, length);
}

void UdpTransport::flush() {
  impl_->flush();
}

void UdpTransport::receive(Lead& lead, Time now) {
  impl_->receive(lead, now);
}

bool UdpTransport::wait(Time deadline, int extra_fd) {
  return impl_->wait(deadline, extra_fd);
}

bool UdpTransport::renew() {
  return impl_->renew();
}

bool UdpTransport::hears_group() const {
  return impl_->hears_group_;
}

uint64_t UdpTransport::send_errors() const {
  return impl_->send_errors_;
}

int UdpTransport::last_send_error() const {
  return impl_->last_send_error_;
}

Time monotonic_now() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Time>(now.tv_sec) * kSecond + static_cast<Time>(now.tv_nsec);
}

}  // namespace pkgdist::lead
