#include "pkgdist_data_recv_rx_batch.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

namespace pkgdist {

namespace {

constexpr char kReporter[] = "pkgdist_data_rx_thread";

// A receive that failed, or an empty datagram: `result` is negative or 0.
bool report_failed(ssize_t result) {
  PKGDIST_ERR_IN(kReporter, "data rx recvfrom failed, rc=%zd, errno=%d(%s)", result, errno,
                 std::strerror(errno));
  count(DrtCounter::kMcRecvfromErr);
  return false;
}

uint64_t time_since(uint64_t start) {
  return distance(stamp_for(DrtHistogram::kMcRxTime), start);
}

}  // namespace

uint8_t* ReceiveBatch::buffer(size_t index) {
  if (buffers_[index] == nullptr)
    buffers_[index].reset(static_cast<uint8_t*>(std::malloc(kDataPacketMax)));
  return buffers_[index].get();
}

void ReceiveBatch::add(OwnedQueueEntry entry) {
  if (entry != nullptr) entries_[count_++] = std::move(entry);
}

void ReceiveBatch::accept(size_t index, size_t length) {
  if (length <= kDataCopyMax)
    add(queue_entry_copy(buffers_[index].get(), length));
  else
    add(queue_entry_of(std::move(buffers_[index]), length));
}

bool ReceiveBatch::receive_first(int socket) {
  uint8_t* const own = buffer(0);
  uint8_t* const into = own != nullptr ? own : G_data_rx_buffer;
  const uint64_t start = stamp_for(DrtHistogram::kMcRxTime);
  const ssize_t length = recvfrom(socket, into, kDataPacketMax, 0, nullptr, nullptr);
  if (length <= 0) return report_failed(length);
  tally_.count(DrtCounter::kMcRxRecv);
  tally_.record(DrtHistogram::kMcRxTime, time_since(start));
  if (own != nullptr)
    accept(0, static_cast<size_t>(length));
  else
    add(queue_entry_copy(into, static_cast<size_t>(length)));
  return true;
}

bool ReceiveBatch::receive_ready(int socket) {
  std::array<iovec, kMax> places;
  std::array<mmsghdr, kMax> messages{};
  unsigned room = 0;
  for (; room < kMax - count_ && buffer(room) != nullptr; ++room) {
    places[room] = {buffers_[room].get(), kDataPacketMax};
    messages[room].msg_hdr.msg_iov = &places[room];
    messages[room].msg_hdr.msg_iovlen = 1;
  }
  drained_ = true;
  if (room == 0) return true;
  const uint64_t start = stamp_for(DrtHistogram::kMcRxTime);
  const int received = recvmmsg(socket, messages.data(), room, MSG_DONTWAIT, nullptr);
  if (received < 0) return errno == EAGAIN || report_failed(received);
  drained_ = static_cast<unsigned>(received) < room;
  const uint64_t time = time_since(start);
  bool good = true;
  for (unsigned i = 0; i < static_cast<unsigned>(received); ++i) {
    good = messages[i].msg_len != 0 || report_failed(0);
    if (!good) continue;
    tally_.count(DrtCounter::kMcRxRecv);
    tally_.record(DrtHistogram::kMcRxTime, time);
    accept(i, messages[i].msg_len);
  }
  return good;
}

void ReceiveBatch::queue() {
  tally_.flush();
  if (count_ == 0) return;
  const uint64_t now = stamp_for(DrtHistogram::kRxQueueTime);
  const std::span<OwnedQueueEntry> entries(entries_.data(), std::exchange(count_, 0));
  for (const OwnedQueueEntry& entry : entries) entry->enqueue_time = now;
  file_recv_queue(entries);
  for (OwnedQueueEntry& entry : entries) entry.reset();  // what could not be queued
}

}  // namespace pkgdist
