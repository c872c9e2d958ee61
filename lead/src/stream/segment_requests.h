// What nodes ask for again: which of it is to be repaired, and what it tells of loss.
//
// A request for a segment that the stream still comes to is ignored, and so is one for what is
// still on its way to the node: a run up to a file's end comes from a node's time-out.
#pragma once

#include "stream/arrival.h"
#include "stream/data_contact.h"
#include "stream/settling.h"

namespace pkgdist::lead {

class SegmentRequests {
 public:
  // The other parts of the stream; all outlive this.
  struct Stream {
    TransferTable& table;
    Window& window;
    RepairLine& repairs;
    LossMeter& loss;
    DataContact& contact;
    Arrival& arrival;
    Settling& settling;
  };
  SegmentRequests(const Stream& stream, uint32_t segment_bytes, Counters& counters)
      : stream_(stream), segment_bytes_(segment_bytes), counters_(counters) {}

  // Returns how many segments of the file were asked for, 0 when the request makes no sense.
  uint32_t on_request(NodeIndex node, uint32_t file_id, uint32_t first, uint32_t num, Time now);

 private:
  Transfer* file_of(uint32_t file_id, uint32_t first, uint32_t num);
  uint32_t enter(Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num, Time now);
  uint64_t on_the_way(const Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num) const;
  bool is_first_request(const Transfer& transfer, NodeIndex node, uint32_t first,
                        uint32_t num) const;

  Stream stream_;
  const uint32_t segment_bytes_;
  Counters& counters_;
};

}  // namespace pkgdist::lead
