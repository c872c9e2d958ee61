// What DATA_RX receives in one turn.
//
// The first datagram after a wait is taken with recvfrom(); whatever is ready behind it comes with
// one recvmmsg() that does not wait. Datagrams are received into the buffers that are queued: a
// batch keeps the buffers that stayed empty for its next turn. The whole batch is queued under one
// lock with one wake-up of DATA_FILE.
//
// Each datagram is judged by itself: a failed receive and an empty datagram are logged and counted
// and do not touch the others. Without memory for buffers, datagrams come one by one into
// G_data_rx_buffer and are copied as far as memory goes.
//
// Owned and used by DATA_RX alone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "pkgdist_data_recv_file_queue.h"
#include "pkgdist_tally.h"

namespace pkgdist {

class ReceiveBatch {
 public:
  // Datagrams of one turn. Enough to spare system calls; few enough to look at the exit flag often.
  static constexpr size_t kMax = 32;

  // Receives one datagram, which is waited for. False when that failed.
  bool receive_first(int socket);

  // Receives what is ready, as far as the batch has room. False when it ended with a failure.
  bool receive_ready(int socket);

  // Whether that emptied the socket. Else more is ready, and no wait is needed.
  bool is_drained() const { return drained_; }

  // Hands all datagrams to DATA_FILE. The batch is empty then.
  void queue();

 private:
  // Buffer `index`, made when it is not there; null without memory.
  uint8_t* buffer(size_t index);
  // A datagram of `length` bytes is in buffer `index`.
  void accept(size_t index, size_t length);
  void add(OwnedQueueEntry entry);

  std::array<Malloced<uint8_t>, kMax> buffers_;
  std::array<OwnedQueueEntry, kMax> entries_;
  size_t count_ = 0;  // entries
  bool drained_ = true;
  Tally tally_;
};

}  // namespace pkgdist
