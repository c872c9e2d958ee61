// Takes what the lead sends on the data channel and keeps it decoded, for tests of the stream.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "pkgdist/wire_data.h"
#include "pkgdist_lead/transport.h"
#include "wire_frame.h"

namespace pkgdist::test {

struct SentDatagram {
  enum class Kind { kInfo, kSegment, kPoll };
  Kind kind = Kind::kInfo;
  uint32_t file_id = 0;
  std::string name;  // of informations and polls
  uint32_t location = 0;
  uint32_t segment = 0;
  bool repair = false;
  uint64_t status = 0;
  std::vector<uint32_t> nodes;  // addresses, none for all
  Bytes data;                   // of a segment
  size_t length = 0;            // of the datagram

  // A poll about a file, not one of the window.
  bool file_poll() const { return kind == Kind::kPoll && location != 0; }
  bool window_poll() const { return kind == Kind::kPoll && location == 0; }
};

class RecordingSink : public lead::DatagramSink {
 public:
  std::span<uint8_t> buffer() override { return bytes_; }
  void send(lead::Channel channel, uint32_t destination, size_t length) override {
    to_group &= channel == lead::Channel::kData && destination == lead::kGroup;
    const Parts parts = parts_of({bytes_.data(), length});
    const Message<pkgdist_data_msg_hdr> header(parts.header);
    SentDatagram datagram = decoded(header.ok() ? header->msg_id : UINT32_MAX, parts.body);
    datagram.length = length;
    sent.push_back(datagram);
    if (on_sent) on_sent(datagram);
  }

  template <class Condition>
  size_t count(Condition&& condition) const {
    return static_cast<size_t>(std::count_if(sent.begin(), sent.end(), condition));
  }
  size_t infos() const { return count_of(SentDatagram::Kind::kInfo); }
  size_t segments() const { return count_of(SentDatagram::Kind::kSegment); }
  size_t file_polls() const {
    return count([](const SentDatagram& one) { return one.file_poll(); });
  }
  // Numbers of the segments, in the order in which they were sent.
  std::vector<uint32_t> segment_numbers() const {
    std::vector<uint32_t> numbers;
    for (const SentDatagram& one : sent)
      if (one.kind == SentDatagram::Kind::kSegment) numbers.push_back(one.segment);
    return numbers;
  }

  std::vector<SentDatagram> sent;
  std::function<void(const SentDatagram&)> on_sent;
  bool to_group = true;  // every datagram, and on the data channel
  size_t undecodable = 0;

 private:
  size_t count_of(SentDatagram::Kind kind) const {
    return count([kind](const SentDatagram& one) { return one.kind == kind; });
  }

  SentDatagram decoded(uint32_t msg_id, std::span<const uint8_t> body) {
    SentDatagram out;
    if (msg_id == PKGDIST_DATA_MSG_FILE_INFO) {
      const Message<pkgdist_data_send_file_info> info(body);
      if (!info.ok()) return ++undecodable, out;
      out.kind = SentDatagram::Kind::kInfo;
      out.file_id = info->file_id;
      out.name = info->name;
      out.location = info->location;
      out.status = info->status;
      out.nodes.assign(info->node_list, info->node_list + info->node_list_count);
    } else if (msg_id == PKGDIST_DATA_MSG_SEGMENT) {
      const Message<pkgdist_data_send_segment> segment(body);
      if (!segment.ok()) return ++undecodable, out;
      out.kind = SentDatagram::Kind::kSegment;
      out.file_id = segment->file_id;
      out.segment = segment->segment;
      out.repair = segment->repair != 0;
      out.data.assign(segment->data, segment->data + segment->data_size);
    } else if (msg_id == PKGDIST_DATA_MSG_MISS_DONE) {
      const Message<pkgdist_data_send_miss_done> poll(body);
      if (!poll.ok()) return ++undecodable, out;
      out.kind = SentDatagram::Kind::kPoll;
      out.file_id = poll->file_id;
      out.name = poll->name;
      out.location = poll->location;
      out.nodes.assign(poll->node_list, poll->node_list + poll->node_list_count);
    } else {
      ++undecodable;
    }
    return out;
  }

  std::array<uint8_t, 2048> bytes_{};
};

}  // namespace pkgdist::test
