// Everything that leaves on the data channel: builds the datagrams and counts them, for the window,
// for the pacer and for the operator.
#pragma once

#include "pkgdist_lead/lead.h"
#include "pkgdist_lead/transport.h"
#include "stream/data_message.h"
#include "stream/open_contents.h"
#include "stream/pacer.h"
#include "stream/window.h"

namespace pkgdist::lead {

class DataOutput {
 public:
  DataOutput(const Settings& self, const NodeTable& nodes, DatagramSink& sink,
             OpenContents& contents, Window& window, Pacer& pacer, Counters& counters)
      : self_(self),
        nodes_(nodes),
        sink_(sink),
        contents_(contents),
        window_(window),
        pacer_(pacer),
        counters_(counters),
        segment_(self.address) {}

  void info(Transfer& transfer, Time now);
  // Tells one node that a file cannot be sent.
  void refuse(TransferId number, const FileKey& key, uint64_t status, NodeIndex node);
  // What a segment is sent as: the stream's, or a repair, which makes no node ask for a gap.
  enum class As : uint8_t { kFirst, kRepair };
  // 0, or the errno value with which the content could not be read.
  int segment(Transfer& transfer, uint32_t segment, As as, Time now);
  // Asks all nodes that have not ended the file how they stand with it.
  void file_poll(Transfer& transfer);
  // Asks the nodes about no file at all, see window.h.
  void window_poll(TransferId number, const std::vector<NodeIndex>& nodes);

 private:
  void send(size_t length);
  void send_about(Transfer& transfer, size_t length);
  std::span<uint32_t> open_nodes(const Transfer& transfer);

  const Settings& self_;
  const NodeTable& nodes_;
  DatagramSink& sink_;
  OpenContents& contents_;
  Window& window_;
  Pacer& pacer_;
  Counters& counters_;
  SegmentBuilder segment_;
  std::vector<uint32_t> listed_;  // addresses, scratch
};

}  // namespace pkgdist::lead
