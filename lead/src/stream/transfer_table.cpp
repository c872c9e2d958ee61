#include "stream/transfer_table.h"

#include <algorithm>

#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

namespace {

// One step of a common mixer: neighbouring start values give distant numbers.
TransferId first_id(uint64_t seed) {
  uint64_t x = seed + 0x9E3779B97F4A7C15u;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return static_cast<TransferId>(x >> 32);
}

}  // namespace

TransferTable::TransferTable(uint64_t seed) : last_id_(first_id(seed)) {}

TransferId TransferTable::next_id() {
  do ++last_id_;
  while (last_id_ == kNoTransfer || transfers_.contains(last_id_));
  return last_id_;
}

Transfer& TransferTable::add(FileKey key, const FileAttributes& attributes, uint32_t segments) {
  const TransferId id = next_id();
  by_key_.emplace(key.text(), id);
  count_names(key, true);
  auto owned = std::make_unique<Transfer>(id, std::move(key), attributes, segments, &busy_);
  return *transfers_.emplace(id, std::move(owned)).first->second;
}

Transfer* TransferTable::at(TransferId id) const {
  const auto found = transfers_.find(id);
  return found != transfers_.end() ? found->second.get() : nullptr;
}

TransferId TransferTable::find(const FileKey& key) const {
  const auto found = by_key_.find(key.text());
  return found != by_key_.end() ? found->second : kNoTransfer;
}

void TransferTable::set_asker(Transfer& transfer, NodeIndex asker) {
  if (transfer.asker != kNoNode) slots_.give_back(transfer.asker);
  if (asker != kNoNode) slots_.take(asker);
  transfer.asker = asker;
}

void TransferTable::count(Counts& counts, const std::string& key, bool more) {
  if (more)
    ++counts[key];
  else if (const auto found = counts.find(key); --found->second == 0)
    counts.erase(found);
}

void TransferTable::count_names(const FileKey& key, bool more) {
  const std::string plain = plain_name(key.name);
  count(plain_names_, FileKey{key.location, plain}.text(), more);
  for (const std::string_view owner : owners_of_partial(plain))
    count(partial_owners_, FileKey{key.location, std::string(owner)}.text(), more);
}

bool TransferTable::collides(const FileKey& key) const {
  const FileKey plain{key.location, plain_name(key.name)};
  const std::vector<std::string_view> owners = owners_of_partial(plain.name);
  if (partial_owners_.contains(plain.text())) return true;
  if (plain_names_.contains(plain.text()) && find(key) == kNoTransfer) return true;
  return std::any_of(owners.begin(), owners.end(), [&](std::string_view owner) {
    return plain_names_.contains(FileKey{key.location, std::string(owner)}.text());
  });
}

std::unique_ptr<Transfer> TransferTable::remove(TransferId id) {
  const auto found = transfers_.find(id);
  std::unique_ptr<Transfer> removed = std::move(found->second);
  transfers_.erase(found);
  by_key_.erase(removed->key.text());
  set_asker(*removed, kNoNode);
  count_names(removed->key, false);
  const auto nodes = static_cast<NodeIndex>(removed->nodes.size());
  for (NodeIndex node = 0; node < nodes; ++node)
    if (removed->nodes[node].state == TransferNode::State::kOpen)
      removed->set_state(node, TransferNode::State::kAbsent);
  return removed;
}

std::vector<TransferId> TransferTable::ids() const {
  std::vector<TransferId> ids;
  ids.reserve(transfers_.size());
  each([&](const Transfer& transfer) { ids.push_back(transfer.id); });
  return ids;
}

}  // namespace pkgdist::lead
