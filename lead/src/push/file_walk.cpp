#include "push/file_walk.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

// Files ahead of the stream whose information was sent: a whole piece of the list, because a node
// asks for files that it was told of and hears nothing about.
constexpr size_t kMaxWaitingFiles = 1024;
constexpr uint64_t kMaxWaitingBytes = 128 * 1024 * 1024;
// The next piece is announced when the stream has this much left to do, for the same reason.
constexpr double kAnnounceAheadSeconds = 0.3;
// How long reports about a transfer outside of the push are waited for, before it is displaced.
constexpr Time kReportTime = kSecond;

}  // namespace

FileWalk::FileWalk(const PushPlan& plan, const Members& members, Announcer& announcer,
                   DataSender& data)
    : plan_(plan),
      members_(members),
      announcer_(announcer),
      data_(data),
      active_in_(plan.pieces().size()) {}

// --- The walk ---

// Moves the cursor to the next file that somebody lacks and that is not in transfer.
bool FileWalk::pick_file() {
  for (;;) {
    for (; cursor_ < plan_.files(); ++cursor_)
      if (!active_.contains(cursor_) && members_.needed(cursor_) != 0) return true;
    if (!go_round_) return false;
    go_round_ = false;
    cursor_ = 0;
  }
}

void FileWalk::feed(Time now) {
  if (announcer_.places_pending(now)) return;
  while (data_.waiting_files() < kMaxWaitingFiles && data_.waiting_bytes() < kMaxWaitingBytes &&
         active_.size() < Slots::kPush && pick_file()) {
    const uint32_t piece = plan_.piece_of(cursor_);
    if (!members_.level_open(piece)) {
      cursor_ = plan_.pieces()[piece].end;
      continue;
    }
    if (!announcer_.announced(piece) && !fits_ahead(piece) &&
        data_.backlog_seconds() > kAnnounceAheadSeconds)
      return;
    if (!announcer_.ready(piece, now)) return;
    visit(cursor_, now);
    ++cursor_;
  }
}

// Left out, a file comes again: when a node acknowledges, or when the other transfer ends.
void FileWalk::visit(uint32_t file, Time now) {
  const std::vector<NodeIndex> nodes = announcer_.listeners(file);
  const TransferId other = data_.find(plan_.key(file));
  const bool free = other == kNoTransfer && !data_.collides(plan_.key(file));
  held_ |= other == kNoTransfer && !free;
  if (nodes.empty()) return;
  if (free) start(file, nodes, now);
  if (other != kNoTransfer && !take_over(file, other, nodes, now))
    displace(file, other, nodes, now);
}

// Few and small enough to be announced long before their turn: nodes that know of a file get it
// from another lead when this one dies.
bool FileWalk::fits_ahead(uint32_t piece) const {
  const FileRange range = plan_.pieces()[piece];
  return data_.waiting_files() + (range.end - range.first) <= kMaxWaitingFiles &&
         data_.waiting_bytes() + plan_.bytes_of(range) <= kMaxWaitingBytes;
}

void FileWalk::run(Time now) {
  release_unneeded();
  if (now < revisit_at_) return;
  revisit_at_ = kNever;
  go_round_ = true;
}

// --- Transfers ---

void FileWalk::start(uint32_t file, const std::vector<NodeIndex>& nodes, Time now) {
  make_active(file, data_.start(plan_.key(file), plan_.request().priority, file, nodes, now));
}

void FileWalk::start_for(uint32_t file, NodeIndex node, Time now) {
  std::vector<NodeIndex> nodes = announcer_.listeners(file);
  if (std::find(nodes.begin(), nodes.end(), node) == nodes.end()) nodes.push_back(node);
  start(file, nodes, now);
}

void FileWalk::make_active(uint32_t file, TransferId id) {
  active_in_[plan_.piece_of(file)] += active_.contains(file) ? 0 : 1;
  active_[file] = id;
}

void FileWalk::remove_active(uint32_t file) {
  active_in_[plan_.piece_of(file)] -= static_cast<uint32_t>(active_.erase(file));
}

void FileWalk::join(uint32_t file, NodeIndex node, Time now) {
  const auto at = active_.find(file);
  if (at == active_.end() || !members_[node].needs(file)) return;
  const Transfer* transfer = data_.get(at->second);
  if (transfer == nullptr) return;
  const bool open =
      node < transfer->nodes.size() && transfer->nodes[node].state == TransferNode::State::kOpen;
  if (open)
    data_.wait_for(at->second, node);
  else
    data_.join(at->second, node, false, now);
}

void FileWalk::join_piece(uint32_t piece, NodeIndex node, Time now) {
  if (!in_transfer(piece)) return;
  const FileRange range = plan_.pieces()[piece];
  for (uint32_t file = range.first; file < range.end; ++file) join(file, node, now);
}

void FileWalk::on_closed(uint32_t file) {
  remove_active(file);
  go_round_ |= members_.needed(file) != 0;
  go_round_ |= std::exchange(held_, false);
}

// What only others than the push's nodes still receive takes no place of the push.
void FileWalk::release_unneeded() {
  if (!std::exchange(unneeded_due_, false)) return;
  std::vector<std::pair<uint32_t, TransferId>> unneeded;
  for (const auto& [file, id] : active_)
    if (members_.needed(file) == 0) unneeded.emplace_back(file, id);
  for (const auto& [file, id] : unneeded) {
    remove_active(file);
    data_.leave_to_guests(id);
  }
}

std::vector<Streamed> FileWalk::streamed() const {
  std::vector<Streamed> files;
  for (const auto& [file, id] : active_) {
    const Transfer* transfer = data_.get(id);
    if (transfer == nullptr || transfer->streamed_segments() == 0) continue;
    files.push_back({file, transfer, transfer->streamed_bytes(), transfer->streamed_segments()});
  }
  return files;
}

// --- Transfers of others ---

// Nodes have asked for the file by themselves, because an earlier push was interrupted. On a node
// that has heard of this push the file ends for both at once, so one transfer does, if it brings
// the file as it is now. It is too late when a node may have ended the file before it heard: its
// report would not be about this push.
bool FileWalk::take_over(uint32_t file, TransferId id, const std::vector<NodeIndex>& nodes,
                         Time now) {
  const Transfer& transfer = *data_.get(id);
  const bool may_have_ended = !transfer.first_turn || transfer.turn.done() >= transfer.segments;
  if (transfer.status != 0 || transfer.started < begun_ || may_have_ended) return false;
  data_.hand_over(id, file);
  make_active(file, id);
  for (const NodeIndex node : nodes) join(file, node, now);
  return true;
}

// A transfer that is too old to be taken over, and that others keep going: they ask again. Reports
// of the push's nodes about it may be on their way at first.
void FileWalk::displace(uint32_t file, TransferId other, const std::vector<NodeIndex>& nodes,
                        Time now) {
  const Transfer& transfer = *data_.get(other);
  if (is_for_members(transfer)) return;
  if (elapsed(now, transfer.started) < kReportTime) {
    revisit_at_ = std::min(revisit_at_, transfer.started + kReportTime);
    return;
  }
  data_.displace(other);
  start(file, nodes, now);
}

// Whether a node of the push is receiving it.
bool FileWalk::is_for_members(const Transfer& transfer) const {
  for (NodeIndex node = 0; node < std::min<size_t>(transfer.nodes.size(), members_.size()); ++node)
    if (transfer.nodes[node].state == TransferNode::State::kOpen && members_[node].present)
      return true;
  return false;
}

}  // namespace pkgdist::lead
