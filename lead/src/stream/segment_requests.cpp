#include "stream/segment_requests.h"

#include <algorithm>
#include <utility>

namespace pkgdist::lead {

// Whether the node has only now found out that it lacks the run: what the stream has just sent, or
// a small file of which it has not asked for anything yet. Others come from its time-outs.
bool SegmentRequests::is_first_request(const Transfer& transfer, NodeIndex node, uint32_t first,
                                       uint32_t num) const {
  if (!transfer.first_turn && transfer.segments > kFirstInformedAgain) return false;
  if (transfer.segments <= kFirstInformedAgain) return !transfer.nodes[node].has_info;
  const uint64_t recent = 2 * stream_.window.size() / segment_bytes_ + 2 * kFirstInformedAgain;
  return uint64_t{first} + num + recent >= transfer.turn.done();
}

// Whether several nodes wait for the rest of a file whose turn is over. A small one is not worth
// the pause: what it lacks is sent in less time.
bool SegmentRequests::from_time_outs(const Transfer& transfer) {
  return transfer.stage == Transfer::Stage::kSettling && transfer.open > 1 &&
         transfer.segments > kFirstInformedAgain;
}

// The latest segments of the file that the node may not have come to yet, if the run goes up to the
// file's end.
uint64_t SegmentRequests::on_the_way(const Transfer& transfer, NodeIndex node, uint32_t first,
                                     uint32_t num) const {
  if (!transfer.turn.has_last(first, num)) return 0;
  const uint64_t bytes = stream_.window.unhandled(node, transfer.stream_end);
  return (bytes + segment_bytes_ - 1) / segment_bytes_;
}

Transfer* SegmentRequests::file_of(uint32_t file_id, uint32_t first, uint32_t num) {
  Transfer* const transfer = stream_.table.at(file_id);
  if (transfer == nullptr) {
    ++counters_.foreign_datagrams;
    return nullptr;
  }
  if (first < transfer->segments && num != 0 && transfer->status == 0) return transfer;
  ++counters_.bad_datagrams;
  return nullptr;
}

// The runs that nodes asked for ahead of the first turn, cut off before segment `begun` and sorted.
std::vector<Transfer::Run> SegmentRequests::ahead_of(const Transfer& transfer, uint64_t begun) {
  std::vector<Transfer::Run> runs;
  const auto add = [&](NodeIndex node, uint64_t from, uint64_t to) {
    from = std::max(from, begun);
    if (from < to)
      runs.push_back({node, static_cast<uint32_t>(from), static_cast<uint32_t>(to - from)});
  };
  for (const auto& [node, first, num] : transfer.asked_ahead) {
    const uint64_t end = uint64_t{first} + num;
    const uint64_t behind = std::min<uint64_t>(end, transfer.segments);
    add(node, first, behind);
    add(node, 0, end - behind);
  }
  std::sort(runs.begin(), runs.end(),
            [](const Transfer::Run& a, const Transfer::Run& b) { return a.first < b.first; });
  return runs;
}

// The number of different segments in sorted runs.
uint64_t SegmentRequests::length_of_all(const std::vector<Transfer::Run>& runs) {
  uint64_t length = 0;
  uint64_t counted_to = 0;
  for (const Transfer::Run& run : runs) {
    const uint64_t end = uint64_t{run.first} + run.num;
    if (end <= counted_to) continue;
    length += end - std::max<uint64_t>(run.first, counted_to);
    counted_to = end;
  }
  return length;
}

// Returns how many of the run are repaired. `coming`: its latest segments that are on their way.
uint32_t SegmentRequests::enter(Transfer& transfer, const Transfer::Run& run, uint64_t coming,
                                Time now) {
  uint32_t gone = 0;
  transfer.repairs.set_holdoff(2 * stream_.window.round_trip());
  transfer.repairs.gather(from_time_outs(transfer));
  transfer.turn.behind(run.first, run.num, coming, [&](uint32_t from, uint32_t count) {
    transfer.repairs.request(from, count, now);
    transfer.node(run.node).parts |= transfer.repairs.parts_of(from, count);
    gone += count;
  });
  return gone;
}

// Whether the run has segments that the first turn has not sent yet. Nodes that resume a partial
// file ask for these, and nodes whose time-out ended during a pause of the stream.
bool SegmentRequests::asks_ahead(const Transfer& transfer, uint32_t first, uint32_t num) {
  if (transfer.stage == Transfer::Stage::kAnnounced) return true;
  return transfer.stage == Transfer::Stage::kStreaming && transfer.first_turn &&
         transfer.segments > kFirstInformedAgain && uint64_t{first} + num > transfer.turn.done();
}

// Only of nodes that the file is for: others may be forged.
void SegmentRequests::note_ahead(Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num) {
  if (!asks_ahead(transfer, first, num) ||
      transfer.node(node).state != TransferNode::State::kOpen ||
      transfer.asked_ahead.size() >= kMostAhead)
    return;
  transfer.asked_ahead.push_back({node, first, num});
  transfer.asked_ahead_more = true;
  transfer.node(node).goes_on = true;
}

// After a pause of the stream all nodes may ask for everything that the turn has not sent yet. The
// turn then goes on: sending the same segments as repairs would save nothing.
bool SegmentRequests::ends_turn(Transfer& transfer, Time now) {
  if (!std::exchange(transfer.asked_ahead_more, false)) return false;
  const bool all =
      std::all_of(transfer.nodes.begin(), transfer.nodes.end(), [](const TransferNode& node) {
        return node.state == TransferNode::State::kEnded ||
               node.state == TransferNode::State::kAbsent || node.goes_on;
      });
  const uint64_t begun = transfer.turn.done();
  if (transfer.asked_ahead.size() >= kMostAhead || !all || begun >= transfer.segments) return false;
  const uint64_t rest = transfer.segments - begun;
  const std::vector<Transfer::Run> runs = ahead_of(transfer, begun);
  if (kLeastSaving * (rest - length_of_all(runs)) < rest) return false;
  transfer.turn.skip();
  transfer.first_turn = false;
  transfer.asked_ahead.clear();
  if (begun == 0) transfer.stream_begin = transfer.stream_end = stream_.window.position();
  for (const Transfer::Run& run : runs) {
    const uint32_t gone = enter(transfer, run, 0, now);
    counters_.segments_requested += gone;
    stream_.arrival.lacks(run.node, uint64_t{gone} * segment_bytes_);
  }
  stream_.repairs.enter(transfer);
  return true;
}

uint32_t SegmentRequests::on_request(NodeIndex node, uint32_t file_id, uint32_t first, uint32_t num,
                                     Time now) {
  Transfer* const transfer = file_of(file_id, first, num);
  if (transfer == nullptr) return 0;
  num = std::min(num, transfer->segments);
  transfer->start_search.asked(node, first, num);
  // A node that is not known to want the file is served, but not waited for: it may be forged.
  TransferNode& state = transfer->node(node);
  if (state.has_info)
    stream_.contact.asked(node);
  else
    stream_.contact.answered(node);  // the information has reached it
  note_ahead(*transfer, node, first, num);
  const uint64_t coming = on_the_way(*transfer, node, first, num);
  const uint32_t gone = enter(*transfer, {node, first, num}, coming, now);
  if (state.state == TransferNode::State::kOpen) {
    const bool paced = stream_.table.busy().contains(node);
    if (paced && is_first_request(*transfer, node, first, num)) stream_.window.lost(node, gone);
    stream_.settling.on_request(*transfer, node, gone, now);
  }
  state.asked = state.has_info = true;
  state.hear(now);
  transfer->last_request = now;
  transfer->progress();
  counters_.segments_requested += gone;
  stream_.arrival.lacks(node, uint64_t{gone} * segment_bytes_);
  stream_.loss.lost(static_cast<double>(gone) / std::max<double>(1, transfer->open));
  stream_.repairs.enter(*transfer);
  return gone;
}

}  // namespace pkgdist::lead
