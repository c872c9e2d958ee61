// The lead's sockets: everything of the lead that touches the network.
#pragma once

#include <memory>
#include <string>

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead {

struct UdpSettings {
  uint32_t address = 0;  // own IPv4 address: source of everything, and the multicast interface
  uint32_t ctrl_group = 0;
  uint16_t ctrl_port = 0;
  uint32_t data_group = 0;
  uint16_t data_port = 0;
  uint16_t lead_port = 0;  // own port for acknowledgements and messages of nodes
  uint16_t node_port = 0;  // the nodes' port for control messages to one of them
  uint16_t req_port = 0;   // own port for data requests
  uint8_t ttl = 1;
};

class UdpTransport : public DatagramSink {
 public:
  // Opens and binds all sockets; throws std::system_error that says which step failed. The control
  // group alone may be refused, when a program of another user on this host has it.
  explicit UdpTransport(const UdpSettings& settings);
  ~UdpTransport() override;
  UdpTransport(const UdpTransport&) = delete;
  UdpTransport& operator=(const UdpTransport&) = delete;

  // Datagrams are gathered and leave at flush(), or when many have gathered.
  std::span<uint8_t> buffer() override;
  void send(Channel channel, uint32_t destination, size_t length) override;
  void flush();

  // Hands what has arrived to the lead, at most a bounded number of datagrams: from the sockets
  // that wait() has found readable since the last call, from all without a wait().
  void receive(Lead& lead, Time now);

  // Waits until something arrives, `extra_fd` (or -1) becomes readable, or the clock reaches
  // `deadline`. True when extra_fd is readable.
  bool wait(Time deadline, int extra_fd);

  // Whether other leads can be heard.
  bool hears_group() const;

  // The interface is back, perhaps as another one: multicast leaves by it again, and other leads
  // are heard again. False when the system refuses.
  bool renew();

  // Datagrams that the system refused to send.
  uint64_t send_errors() const;
  // Why it refused the last of them: an error number, 0 when there was none.
  int last_send_error() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The clock to run a lead on.
Time monotonic_now();

}  // namespace pkgdist::lead
