// The lead's sockets: what comes in, and what goes out by which of them and where to. The kernel
// keeps the interface of multicast by its number, so one that was made anew has to be set again:
// renew().
#include "pkgdist_lead/udp_transport.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <optional>
#include <vector>

#include "pkgdist/wire_ctrl.h"
#include "shell/gathered_output.h"
#include "shell/udp_socket.h"

namespace pkgdist::lead {

namespace {

constexpr size_t kMaxDatagram = PKGDIST_CTRL_PKT_MAX;
// Answers of a thousand nodes to one ping, and requests of many, arrive within a moment.
constexpr int kReceiveBuffer = 8 * 1024 * 1024;
constexpr int kSendBuffer = 2 * 1024 * 1024;
constexpr size_t kReceiveBatch = 64;
constexpr size_t kMaxReceived = 1024;  // per socket and call, so that sending goes on

}  // namespace

class UdpTransport::Impl {
 public:
  explicit Impl(const UdpSettings& settings)
      : settings_(settings),
        control_("control channel"),
        data_("data channel"),
        requests_("request port"),
        inbox_(kReceiveBatch * kMaxDatagram) {
    control_.multicast_from(settings.address, settings.ttl);
    data_.multicast_from(settings.address, settings.ttl);
    for (const UdpSocket* socket : {&control_, &requests_})
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
    output_.renew();
    join_group();
    announce();
    return control_.leave_by(settings_.address) && data_.leave_by(settings_.address);
  }

  std::span<uint8_t> buffer() { return output_.buffer(); }

  void send(Channel channel, uint32_t destination, size_t length) {
    output_.add(channel == Channel::kData ? data_.fd() : control_.fd(),
                target(channel, destination), length);
  }

  void flush() { output_.flush(); }

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

  const GatheredOutput& output() const { return output_; }
  bool hears_group() const { return hears_group_; }

 private:
  sockaddr_in target(Channel channel, uint32_t destination) const {
    if (destination != kGroup) return endpoint(destination, settings_.node_port);
    if (channel == Channel::kData) return endpoint(settings_.data_group, settings_.data_port);
    return endpoint(settings_.ctrl_group, settings_.ctrl_port);
  }

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

  void receive_from(const UdpSocket& socket, Channel channel, Lead& lead, Time now) {
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
  UdpSocket control_;
  UdpSocket data_;
  UdpSocket requests_;
  std::optional<UdpSocket> group_;
  GatheredOutput output_;
  std::vector<uint8_t> inbox_;
  bool hears_group_ = false;
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
  return impl_->hears_group();
}

uint64_t UdpTransport::send_errors() const {
  return impl_->output().errors();
}

int UdpTransport::last_send_error() const {
  return impl_->output().last_error();
}

Time monotonic_now() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Time>(now.tv_sec) * kSecond + static_cast<Time>(now.tv_nsec);
}

}  // namespace pkgdist::lead
