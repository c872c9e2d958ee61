#include "push/members.h"

#include <algorithm>

namespace pkgdist::lead {

Members::Members(const PushPlan& plan)
    : plan_(plan), needed_(plan.files()), received_(plan.files()) {}

Member& Members::enter(NodeIndex node, const NodeInfo& info) {
  if (node >= members_.size()) members_.resize(node + size_t{1});
  Member& member = members_[node];
  if (!member.known) {
    member.known = true;
    member.ended.resize(plan_.files());
    member.left = plan_.files();
    for (const FileRange piece : plan_.pieces()) member.left_in.push_back(piece.end - piece.first);
    member.report.address = info.address;
    member.report.heard = true;
    member.report.bytes_left = plan_.bytes();
  }
  member.report.node_id = info.node_id;
  member.report.silent = false;
  return member;
}

bool Members::set_present(Member& member, bool present) {
  if (member.present == present) return false;
  member.present = present;
  if (member.left == 0) return true;
  unfinished_ = present ? unfinished_ + 1 : unfinished_ - 1;
  for (uint32_t file = 0; file < needed_.size(); ++file)
    if (!member.ended[file]) needed_[file] = present ? needed_[file] + 1 : needed_[file] - 1;
  return true;
}

size_t Members::present() const {
  return static_cast<size_t>(
      std::count_if(members_.begin(), members_.end(), [](const Member& m) { return m.present; }));
}

std::vector<uint32_t> Members::lacking(const Member& member, FileRange range) const {
  std::vector<uint32_t> files;
  for (uint32_t file = range.first; file < range.end; ++file)
    if (!member.ended[file]) files.push_back(file);
  return files;
}

bool Members::may_hear(const Member& member, uint32_t piece) const {
  const std::vector<FileRange>& pieces = plan_.pieces();
  for (uint32_t before = 0; pieces[before].level < pieces[piece].level; ++before)
    if (member.left_in[before] != 0) return false;
  return true;
}

bool Members::level_open(uint32_t piece) const {
  if (plan_.pieces()[piece].level == 0) return true;
  return std::all_of(members_.begin(), members_.end(), [&](const Member& member) {
    return !member.known || !member.present || may_hear(member, piece);
  });
}

bool Members::end(Member& member, uint32_t file, uint64_t status, Time now) {
  member.ended[file] = true;
  member.report.bytes_left -= plan_.size(file);
  if (status != 0) member.failed[file] = status;
  if (member.present) --needed_[file];
  const bool piece_ends = --member.left_in[plan_.piece_of(file)] == 0;
  if (--member.left != 0) return piece_ends;
  member.report.finished_at = now;
  if (member.present) --unfinished_;
  return piece_ends;
}

void Members::count_end(Member& member, uint32_t file, const Transfer& transfer, uint64_t status,
                        bool skipped) {
  PushNodeReport& node = member.report;
  if (!skipped) node.segments += status == 0 ? transfer.segments : transfer.streamed_segments();
  if (status != 0) return;
  const uint64_t bytes = transfer.attributes.size;
  ++node.files_done;
  node.bytes_done += bytes;
  if (skipped) {
    ++node.files_skipped;
    node.bytes_skipped += bytes;
    return;
  }
  if (received_[file]) return;
  received_[file] = true;
  bytes_received_ += bytes;
}

void Members::count_unfinished(Member& member, const std::vector<Streamed>& in_transfer) {
  for (const Streamed& part : in_transfer)
    if (!member.ended[part.file]) member.report.segments += part.segments;
}

}  // namespace pkgdist::lead
