#include "shell/gathered_output.h"

#include <netinet/udp.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

#include "pkgdist_lead/udp_transport.h"

namespace pkgdist::lead {

namespace {

// Limits of the segmentation offload: segments and bytes of one call.
constexpr size_t kMaxOffloadSegments = 44;
constexpr size_t kMaxOffloadBytes = 65000;
// A full send buffer empties at the speed of the link; longer waits mean that the link is down.
constexpr int kSendWaitMs = 20;

}  // namespace

void GatheredOutput::add(int fd, const sockaddr_in& to, size_t length) {
  gathered_.push_back({fd, to, used_, length});
  used_ += length;
  if (gathered_.size() == kMaxGathered) flush();
}

void GatheredOutput::flush() {
  if (gathered_.empty()) return;
  offload_ = offload_switch_.on(monotonic_now());
  size_t sent = 0;
  while (sent < gathered_.size()) sent += send_from(sent);
  gathered_.clear();
  used_ = 0;
}

// The datagrams from `first` on that can leave in one message.
GatheredOutput::Batch GatheredOutput::next_batch(size_t first) const {
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

void GatheredOutput::fill(mmsghdr& message, Batch& batch) {
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
size_t GatheredOutput::send_from(size_t first) {
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

size_t GatheredOutput::on_send_error(int fd, const Batch& batch) {
  if (errno == EINTR) return 0;
  if (errno == EAGAIN || errno == EWOULDBLOCK) {
    pollfd writable{fd, POLLOUT, 0};
    if (::poll(&writable, 1, kSendWaitMs) > 0) return 0;
  } else if (batch.count > 1 && offload_switch_.refused(errno, monotonic_now())) {
    offload_ = false;  // not on this way: once more, one by one
    return 0;
  }
  last_error_ = errno;
  errors_ += batch.count;
  return batch.count;
}

}  // namespace pkgdist::lead
