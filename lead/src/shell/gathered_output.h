// Sending: datagrams are built one behind the other in one arena. At a flush, neighbours with the
// same destination and length leave in one call as a segmentation-offload batch, and all batches in
// one sendmmsg(). A kernel or device that refuses the offload gets single datagrams for a while.
//
// A datagram that cannot leave, because the interface is down or gone, is counted and forgotten: to
// the lead it is lost like any other.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "pkgdist/wire_ctrl.h"
#include "shell/offload_switch.h"

namespace pkgdist::lead {

class GatheredOutput {
 public:
  GatheredOutput() : arena_(kMaxGathered * kMaxDatagram) {}

  // Room for one datagram; valid until the next add() or flush().
  std::span<uint8_t> buffer() { return {arena_.data() + used_, kMaxDatagram}; }
  // What was built in buffer() is to leave by this socket. Flushes when enough is gathered.
  void add(int fd, const sockaddr_in& to, size_t length);
  void flush();
  // Offload that was refused is tried again: the device is another one.
  void renew() { offload_switch_ = {}; }

  // Datagrams that could not leave, and why the latest of them could not, as errno.
  uint64_t errors() const { return errors_; }
  int last_error() const { return last_error_; }

 private:
  static constexpr size_t kMaxDatagram = PKGDIST_CTRL_PKT_MAX;
  // Gathered before a flush is forced.
  static constexpr size_t kMaxGathered = 128;

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

  Batch next_batch(size_t first) const;
  void fill(mmsghdr& message, Batch& batch);
  size_t send_from(size_t first);
  size_t on_send_error(int fd, const Batch& batch);

  std::vector<uint8_t> arena_;
  size_t used_ = 0;
  std::vector<Gathered> gathered_;
  std::array<Batch, kMaxGathered> batches_;
  std::array<mmsghdr, kMaxGathered> messages_;
  OffloadSwitch offload_switch_;
  bool offload_ = true;  // during a flush
  uint64_t errors_ = 0;
  int last_error_ = 0;
};

}  // namespace pkgdist::lead
