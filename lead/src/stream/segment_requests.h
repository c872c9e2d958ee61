// What nodes ask for again: which of it is to be repaired, and what it tells of loss.
//
// A request for a segment that the stream still comes to is ignored, and so is one for what is
// still on its way to the node: a run up to a file's end comes from a node's time-out. Nodes that
// ask before the stream has begun with a file have the rest of it.
#pragma once

#include <vector>

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

  // Ahead of a segment of the first turn: true when every node goes on with a part that it has, so
  // that much of the turn is asked for by nobody. What is asked for is due as repairs then, and the
  // turn has ended.
  bool ends_turn(Transfer& transfer, Time now);

 private:
  Transfer* file_of(uint32_t file_id, uint32_t first, uint32_t num);
  // Runs that are kept for one transfer, of all nodes together. With more, the turn is sent whole.
  static constexpr size_t kMostAhead = 65'536;

  // The turn ends early only if this saves at least one part in so many of its rest.
  static constexpr uint64_t kLeastSaving = 16;

  static bool asks_ahead(const Transfer& transfer, uint32_t first, uint32_t num);
  static std::vector<Transfer::Run> ahead_of(const Transfer& transfer, uint64_t begun);
  static uint64_t length_of_all(const std::vector<Transfer::Run>& runs);
  void note_ahead(Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num);
  uint32_t enter(Transfer& transfer, const Transfer::Run& run, uint64_t coming, Time now);
  uint64_t on_the_way(const Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num) const;
  static bool from_time_outs(const Transfer& transfer);
  bool is_first_request(const Transfer& transfer, NodeIndex node, uint32_t first,
                        uint32_t num) const;

  Stream stream_;
  const uint32_t segment_bytes_;
  Counters& counters_;
};

}  // namespace pkgdist::lead
