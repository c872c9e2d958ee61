#include "confirmed_repairs.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

auto find_node(std::vector<ConfirmedRepairs::Node>& nodes, NodeIndex index) {
  return std::find_if(nodes.begin(), nodes.end(),
                      [&](const auto& node) { return node.index == index; });
}

}  // namespace

bool ConfirmedRepairs::join(uint32_t place, NodeIndex node) {
  const auto found = std::find_if(batches_.begin(), batches_.end(),
                                  [&](const Batch& batch) { return batch.place == place; });
  if (found == batches_.end()) return false;
  if (find_node(found->nodes, node) == found->nodes.end()) found->nodes.push_back({.index = node});
  return true;
}

ConfirmedRepairs::Batch& ConfirmedRepairs::add(uint32_t place, std::vector<uint32_t> segments,
                                               const std::vector<NodeIndex>& nodes) {
  Batch& batch = batches_.emplace_back();
  batch.place = place;
  batch.segments = std::move(segments);
  for (const NodeIndex node : nodes) batch.nodes.push_back({.index = node});
  return batch;
}

ConfirmedRepairs::Batch* ConfirmedRepairs::next_due(Time now) {
  std::erase_if(batches_,
                [&](const Batch& batch) { return batch.sent == kMaxSent && batch.due <= now; });
  const auto found = std::find_if(batches_.begin(), batches_.end(),
                                  [&](const Batch& batch) { return batch.due <= now; });
  return found != batches_.end() ? &*found : nullptr;
}

Time ConfirmedRepairs::due() const {
  Time due = kNever;
  for (const Batch& batch : batches_) due = std::min(due, batch.due);
  return due;
}

void ConfirmedRepairs::sent(Batch& batch, uint32_t before, uint32_t behind, Time now,
                            Time answer_time) {
  batch.question_before = before;
  batch.question_behind = behind;
  for (Node& node : batch.nodes) {
    node.before = before == 0;
    node.behind = false;
  }
  ++batch.sent;
  batch.sent_at = now;
  batch.due = now + answer_time;
}

Time ConfirmedRepairs::answered(uint32_t question, NodeIndex index, Time now) {
  if (question == 0) return 0;
  const auto batch = std::find_if(batches_.begin(), batches_.end(), [&](const Batch& one) {
    return one.question_before == question || one.question_behind == question;
  });
  if (batch == batches_.end()) return 0;
  const Time delay = elapsed(now, batch->sent_at) + 1;
  const auto node = find_node(batch->nodes, index);
  if (node == batch->nodes.end()) return delay;
  (batch->question_before == question ? node->before : node->behind) = true;
  if (node->before && node->behind) batch->nodes.erase(node);
  if (batch->nodes.empty()) batches_.erase(batch);
  return delay;
}

void ConfirmedRepairs::drop_node(NodeIndex index) {
  for (auto batch = batches_.begin(); batch != batches_.end();) {
    std::erase_if(batch->nodes, [&](const Node& node) { return node.index == index; });
    batch = batch->nodes.empty() ? batches_.erase(batch) : std::next(batch);
  }
}

}  // namespace pkgdist::lead
