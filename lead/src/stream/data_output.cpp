#include "stream/data_output.h"

namespace pkgdist::lead {

void DataOutput::send(size_t length) {
  if (length == 0) return;
  sink_.send(Channel::kData, kGroup, length);
  window_.sent(length);
  pacer_.spend(length);
  counters_.data_bytes_sent += length;
}

void DataOutput::send_about(Transfer& transfer, size_t length) {
  send(length);
  transfer.position = window_.position();
}

// The addresses of the open nodes, none when the message may as well go to everybody.
std::span<uint32_t> DataOutput::open_nodes(const Transfer& transfer) {
  listed_.clear();
  if (transfer.open > kMaxListedNodes || transfer.open == nodes_.size()) return {};
  for (NodeIndex i = 0; i < transfer.nodes.size(); ++i)
    if (transfer.nodes[i].state == TransferNode::State::kOpen)
      listed_.push_back(nodes_[i].info.address);
  return listed_;
}

void DataOutput::info(Transfer& transfer, Time now) {
  // A bad status ends the file on whoever takes it: only for the nodes concerned.
  std::span<uint32_t> nodes;
  if (transfer.status != 0) nodes = open_nodes(transfer);
  send_about(transfer,
             build_info(sink_.buffer(), self_.address, transfer, self_.segment_size, nodes));
  transfer.info_sent = now;
  ++counters_.infos_sent;
}

void DataOutput::refuse(TransferId number, const FileKey& key, uint64_t status, NodeIndex node) {
  Transfer refusal(number, key, {}, 1);
  refusal.status = status;
  uint32_t address = nodes_[node].info.address;
  send(build_info(sink_.buffer(), self_.address, refusal, self_.segment_size, {&address, 1}));
  ++counters_.infos_sent;
}

int DataOutput::segment(Transfer& transfer, uint32_t segment, As as, Time now) {
  const uint64_t offset = uint64_t{segment} * self_.segment_size;
  const size_t length = static_cast<size_t>(
      std::min<uint64_t>(self_.segment_size, transfer.attributes.size - offset));
  const std::span<uint8_t> out = sink_.buffer();
  const int error = contents_.read(transfer, offset, segment_.data(out, length), as == As::kFirst);
  if (error != 0) return error;
  send_about(transfer, segment_.finish(out, transfer.id, segment, as == As::kRepair, length));
  transfer.served = now;
  ++transfer.segments_sent;
  ++counters_.segments_sent;
  window_.sent_segment();
  if (as == As::kRepair) ++counters_.repairs_sent;
  return 0;
}

void DataOutput::file_poll(Transfer& transfer) {
  send_about(transfer, build_poll(sink_.buffer(), self_.address, transfer.key, transfer.id,
                                  open_nodes(transfer)));
  ++counters_.miss_done_sent;
}

void DataOutput::window_poll(TransferId number, const std::vector<NodeIndex>& nodes) {
  // No file has this location.
  static const FileKey kNoFile{0, "poll"};
  listed_.clear();
  for (const NodeIndex node : nodes) listed_.push_back(nodes_[node].info.address);
  send(build_poll(sink_.buffer(), self_.address, kNoFile, number, listed_));
  ++counters_.polls_sent;
}

}  // namespace pkgdist::lead
