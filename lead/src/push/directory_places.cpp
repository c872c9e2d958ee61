#include "push/directory_places.h"

#include "push/file_list.h"

namespace pkgdist::lead {

DirectoryPlaces::DirectoryPlaces(const PushRequest& push)
    : messages_(encode_deletes(push.location, push.directories)) {}

void DirectoryPlaces::tell(const std::vector<NodeIndex>& nodes, const Audience& audience,
                           ControlStream& control, Time now) {
  for (const NodeIndex node : nodes) {
    if (node >= left_.size()) left_.resize(node + size_t{1}, kUntold);
    left_[node] = messages_.size();
  }
  for (const std::vector<uint8_t>& message : messages_)
    sequences_.insert(control.post(PKGDIST_CTRL_CLASS_FILE_SEND, message, audience, nodes, now));
}

void DirectoryPlaces::forget(NodeIndex node) {
  if (left(node) != 0 && left(node) != kUntold) left_[node] = kUntold;
}

DirectoryPlaces::Meaning DirectoryPlaces::on_acknowledged(uint32_t sequence, NodeIndex node) {
  if (!sequences_.contains(sequence)) return Meaning::kOther;
  if (left(node) == kUntold || left(node) == 0) return Meaning::kMore;
  return --left_[node] == 0 ? Meaning::kCleared : Meaning::kMore;
}

}  // namespace pkgdist::lead
