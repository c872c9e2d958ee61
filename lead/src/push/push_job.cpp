#include "push/push_job.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead {

namespace {

// Files ahead of the stream whose information was sent: a whole piece of the list, because a node
// asks for files that it was told of and hears nothing about.
constexpr size_t kMaxWaitingFiles = 1024;
constexpr uint64_t kMaxWaitingBytes = 128 * 1024 * 1024;
// The next piece is announced when the stream has this much left to do, for the same reason.
constexpr double kAnnounceAheadSeconds = 0.3;
// How long the files of a piece wait for nodes that do not acknowledge its list.
constexpr Time kListWait = 2 * kSecond;
// How long nodes that ask for files of a push that gathers its nodes are left to wait for it. They
// ask again within seconds, and give up after 21.
constexpr Time kRequestHold = 2 * kSecond;
// How long reports about a transfer outside of the push are waited for, before it is displaced.
constexpr Time kReportTime = kSecond;
// A node on which a file failed for a passing reason gets it again so many times.
constexpr uint32_t kMaxRetries = 2;
// Between lists that tell nodes of files again.
constexpr Time kRelistPause = 50 * kMillisecond;
// A process that ends more often in one push ends because of it.
constexpr uint32_t kMaxRestarts = 3;

// How often present nodes are looked through for those that cannot be reached, and how long one may
// leave all of its lists unacknowledged: they are sent again every second.
constexpr Time kLookPeriod = kSecond;
constexpr Time kListPatience = 45 * kSecond;
// One that is not heard at all for so long may be away and come back, which is for the node
// time-out to judge; longer than the pauses in which a node repeats a request.
constexpr Time kAway = 25 * kSecond;
// A node that does not know a file is told of it again, unless both have passed.
constexpr uint32_t kMaxUnknown = 8;
constexpr Time kUnknownPatience = 10 * kSecond;

uint64_t pair_key(NodeIndex node, uint32_t file) {
  return uint64_t{node} << 32 | file;
}

bool audience_takes(const Audience& audience, const NodeInfo& node) {
  if (audience.unicast) return audience.nodes.front() == node.address;
  return audience.includes(node.address, node.card_class);
}

// Files of lower levels first; says where each stood before when that changes anything.
PushRequest in_levels(PushRequest request, std::vector<uint32_t>& levels,
                      std::vector<uint32_t>& original) {
  const std::vector<uint32_t> given = levels_of(request.files);
  levels = given;
  if (std::is_sorted(levels.begin(), levels.end())) return request;
  original.resize(levels.size());
  std::iota(original.begin(), original.end(), 0u);
  std::stable_sort(original.begin(), original.end(),
                   [&](uint32_t a, uint32_t b) { return given[a] < given[b]; });
  std::vector<PushFile> files;
  files.reserve(original.size());
  for (const uint32_t file : original) files.push_back(std::move(request.files[file]));
  request.files = std::move(files);
  std::sort(levels.begin(), levels.end());
  return request;
}

}  // namespace

PushJob::PushJob(PushRequest request, uint32_t xact, const NodeTable& nodes, ControlStream& control,
                 DataSender& data, Events& events)
    : request_(in_levels(std::move(request), levels_, original_)),
      xact_(xact),
      nodes_(nodes),
      control_(control),
      data_(data),
      events_(events),
      places_(request_),
      pieces_(cut_file_list(request_.files, levels_)),
      piece_deadline_(pieces_.size(), 0),
      received_(request_.files.size()),
      needed_(request_.files.size()),
      active_in_(pieces_.size()) {
  for (uint32_t i = 0; i < request_.files.size(); ++i) {
    by_name_.emplace(request_.files[i].name, i);
    summary_.bytes += request_.files[i].size;
  }
  summary_.files = request_.files.size();
  leveled_ = !levels_.empty() && levels_.back() != 0;
}

void PushJob::begin(Time now) {
  now_ = now;
  begun_ = summary_.started_at = now;
  for (NodeIndex i = 0; i < nodes_.size(); ++i)
    if (nodes_[i].info.pid != 0 && !nodes_[i].silent) on_node_fresh(i);
}

void PushJob::stop(Time now) {
  if (phase_ == Phase::kFinished) return;
  for (Member& one : members_)
    if (one.present) count_unfinished(one);
  data_.abandon(request_.files.size());
  phase_ = Phase::kFinished;
  summary_.finished_at = now;
}

void PushJob::cancel(const Audience& audience, Time now) {
  if (phase_ == Phase::kFinished) return;
  now_ = now;
  for (NodeIndex node = 0; node < members_.size(); ++node)
    if (members_[node].known && audience_takes(audience, nodes_[node].info))
      give_up(node, PKGDIST_STATUS_CANCELLED);
  const bool everyone = audience.nodes.empty() && audience.card_class == kCardClassEveryone;
  if (everyone) finish();
}

// What has not ended on the node ends so.
void PushJob::give_up(NodeIndex node, uint64_t status) {
  Member& one = members_[node];
  for (uint32_t file = 0; file < request_.files.size(); ++file) {
    if (one.ended[file]) continue;
    end_file(one, file, status);
    events_.file_ended(nodes_[node].info, request_.files[file].name, status, false);
  }
  release_due_ = true;
  ready_piece_ = kNoPiece;
}

// The last node that lacks something holds nobody up.
void PushJob::treat_straggler(NodeIndex node) {
  Member* const slow = member(node);
  if (slow == nullptr || !slow->present || slow->left == 0 || unfinished_ < 2) return;
  slow->behind = true;
  relists_.erase(node);
  if (request_.slow_nodes == SlowNodes::kDrop)
    return leave_out(node, PKGDIST_STATUS_FROM_ERRNO(ETIME));
  set_present(*slow, false);
  release_due_ = true;
  slow->report.deferred = true;
  events_.node_deferred(nodes_[node].info);
  ready_piece_ = kNoPiece;
  data_.drop_node(node);
}

// What the node lacks ends so, also on the node itself.
void PushJob::leave_out(NodeIndex node, uint64_t status) {
  Member& one = members_[node];
  one.behind = true;
  relists_.erase(node);
  give_up(node, status);
  std::vector<NodeIndex> waiting;  // for its acknowledgement, if there is one to be expected
  if (one.unacknowledged.empty()) waiting = {node};
  for (const uint32_t list : std::exchange(one.unacknowledged, {})) control_.give_up(list, node);
  (void)control_.post(PKGDIST_CTRL_CLASS_FILE_SEND, encode_cancel(xact_), listed({node}),
                      std::move(waiting), now_);
  data_.drop_node(node);
}

bool PushJob::leave_out_node(NodeIndex node, uint64_t status, Time now) {
  now_ = now;
  if (phase_ != Phase::kRunning || member(node) == nullptr) return false;
  if (members_[node].left != 0) leave_out(node, status);
  return true;
}

// Nodes that answer pings, and nothing else of the push. One that has no list does not listen to
// the data channel: it has given the list up, as its acknowledgement point says.
void PushJob::leave_out_unreachable() {
  if (now_ < next_look_) return;
  next_look_ = now_ + kLookPeriod;
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    Member& one = members_[node];
    if (!one.present || one.left == 0) continue;
    if (elapsed(now_, nodes_[node].last_heard) >= kAway) {
      data_.restart_contact(node);
      one.list_told = now_;
      continue;
    }
    const uint64_t status = data_.out_of_contact(node, now_);
    const bool unheeded =
        !one.unacknowledged.empty() && elapsed(now_, one.list_told) >= kListPatience;
    if (unheeded || (status != 0 && !one.list_arrived))
      leave_out(node, PKGDIST_STATUS_FROM_ERRNO(ENOMSG));
    else if (status != 0)
      leave_out(node, status);
  }
}

void PushJob::return_to_deferred() {
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    Member& one = members_[node];
    if (!one.report.deferred || one.left == 0 || nodes_[node].silent) continue;
    one.behind = one.report.deferred = false;
    on_node_fresh(node);
  }
}

// --- Nodes ---

bool PushJob::wanted(uint32_t address) const {
  return request_.nodes.empty() ||
         std::find(request_.nodes.begin(), request_.nodes.end(), address) != request_.nodes.end();
}

PushJob::Member* PushJob::member(NodeIndex node) {
  return node < members_.size() && members_[node].known ? &members_[node] : nullptr;
}

void PushJob::on_node_fresh(NodeIndex node, bool restarted) {
  const NodeInfo& info = nodes_[node].info;
  if (phase_ == Phase::kFinished || info.pid == 0 || !wanted(info.address)) return;
  if (node >= members_.size()) members_.resize(node + size_t{1});
  Member& fresh = members_[node];
  if (!fresh.known) {
    fresh.known = true;
    fresh.ended.resize(request_.files.size());
    fresh.left = static_cast<uint32_t>(request_.files.size());
    for (const FileRange piece : pieces_) fresh.left_in.push_back(piece.end - piece.first);
    fresh.report.address = info.address;
    fresh.report.heard = true;
    fresh.report.bytes_left = summary_.bytes;
  }
  fresh.report.node_id = info.node_id;
  fresh.report.silent = false;
  if (fresh.report.deferred) return;
  set_present(fresh, true);
  fresh.heard.assign(pieces_.size(), Heard::kNothing);
  fresh.unacknowledged.clear();  // of a process, or a time, that is over
  fresh.list_arrived = false;
  places_.forget(node);
  relists_.erase(node);
  ready_piece_ = kNoPiece;
  go_round_ = true;
  if (restarted && phase_ == Phase::kRunning && ++fresh.restarts > kMaxRestarts)
    return give_up(node, PKGDIST_STATUS_FROM_ERRNO(ECONNRESET));
  if (phase_ == Phase::kRunning) fresh_.push_back(node);
}

// Counts what the node lacks among what is needed, or no longer.
void PushJob::set_present(Member& member, bool present) {
  if (member.present == present) return;
  member.present = present;
  go_round_ |= leveled_;
  if (member.left == 0) return;
  unfinished_ = present ? unfinished_ + 1 : unfinished_ - 1;
  for (uint32_t file = 0; file < needed_.size(); ++file)
    if (!member.ended[file]) needed_[file] = present ? needed_[file] + 1 : needed_[file] - 1;
}

void PushJob::on_node_silent(NodeIndex node) {
  Member* gone = member(node);
  if (gone == nullptr) return;
  if (gone->present) count_unfinished(*gone);
  set_present(*gone, false);
  release_due_ = true;
  gone->report.silent = true;
  ready_piece_ = kNoPiece;
}

void PushJob::on_requested_segments(NodeIndex node, uint32_t segments) {
  if (Member* asking = member(node)) asking->report.repairs += segments;
}

bool PushJob::gathered() const {
  const auto present =
      std::count_if(members_.begin(), members_.end(), [](const Member& m) { return m.present; });
  const size_t expected = request_.nodes.empty() ? request_.node_count : request_.nodes.size();
  return static_cast<size_t>(present) >= expected;
}

void PushJob::gather(Time now) {
  const bool waited = elapsed(now, summary_.started_at) >= request_.node_timeout;
  if (!gathered() && !waited) return;
  phase_ = Phase::kRunning;
  summary_.started = true;
  summary_.started_at = now;
  const auto present =
      std::count_if(members_.begin(), members_.end(), [](const Member& m) { return m.present; });
  events_.push_started(xact_, summary_.files, summary_.bytes, static_cast<uint32_t>(present));
}

// --- Lists ---

uint32_t PushJob::piece_of(uint32_t file) const {
  const auto after = std::upper_bound(pieces_.begin(), pieces_.end(), file,
                                      [](uint32_t f, FileRange range) { return f < range.end; });
  return static_cast<uint32_t>(after - pieces_.begin());
}

std::vector<uint32_t> PushJob::lacking(const Member& member, FileRange range) const {
  std::vector<uint32_t> files;
  for (uint32_t file = range.first; file < range.end; ++file)
    if (!member.ended[file]) files.push_back(file);
  return files;
}

// Nothing of the lower levels is left on the node.
bool PushJob::may_hear(const Member& member, uint32_t piece) const {
  for (uint32_t before = 0; pieces_[before].level < pieces_[piece].level; ++before)
    if (member.left_in[before] != 0) return false;
  return true;
}

bool PushJob::level_open(uint32_t piece) const {
  if (pieces_[piece].level == 0) return true;
  return std::all_of(members_.begin(), members_.end(), [&](const Member& one) {
    return !one.known || !one.present || may_hear(one, piece);
  });
}

// Tells everybody who needs the piece; true when its files can go out.
bool PushJob::piece_ready(uint32_t piece) {
  if (piece == ready_piece_) return true;
  std::vector<NodeIndex> untold;
  bool unacknowledged = false;
  for (NodeIndex i = 0; i < members_.size(); ++i) {
    const Member& one = members_[i];
    if (!one.known || !needs_any(one, piece) || !places_.clear(i)) continue;
    if (one.heard[piece] == Heard::kNothing) untold.push_back(i);
    unacknowledged |= one.heard[piece] != Heard::kAcknowledged;
  }
  if (!untold.empty()) announce(piece, untold);
  if (unacknowledged && now_ < piece_deadline_[piece]) return false;
  ready_piece_ = piece;
  return true;
}

void PushJob::announce(uint32_t piece, const std::vector<NodeIndex>& nodes) {
  // Nodes that lack the same files share a message.
  std::map<std::vector<uint32_t>, std::vector<NodeIndex>> groups;
  for (NodeIndex node : nodes) {
    Member& one = members_[node];
    if (one.heard[piece] != Heard::kNothing) continue;
    one.heard[piece] = Heard::kTold;
    groups[lacking(one, pieces_[piece])].push_back(node);
  }
  for (const auto& [files, group] : groups)
    if (!files.empty()) post_list(files, group, piece);
  piece_deadline_[piece] = now_ + kListWait;
}

Audience PushJob::listed(const std::vector<NodeIndex>& nodes) const {
  Audience audience;
  audience.card_class = PKGDIST_CARD_CLASS_NODE_LIST;
  for (const NodeIndex node : nodes) audience.nodes.push_back(nodes_[node].info.address);
  return audience;
}

// A message has room for so many addresses.
template <class Post>
void PushJob::in_groups(const std::vector<NodeIndex>& nodes, Post&& post) const {
  const bool everyone = request_.nodes.empty() && nodes.size() == nodes_.size();
  const size_t group = everyone ? nodes.size() : kMaxNodesPerMessage;
  for (size_t start = 0; start < nodes.size(); start += group) {
    const std::vector<NodeIndex> some(
        nodes.begin() + static_cast<ptrdiff_t>(start),
        nodes.begin() + static_cast<ptrdiff_t>(std::min(nodes.size(), start + group)));
    post(some, everyone ? Audience{} : listed(some));
  }
}

void PushJob::post_list(const std::vector<uint32_t>& files, const std::vector<NodeIndex>& nodes,
                        uint32_t piece) {
  in_groups(nodes, [&](const std::vector<NodeIndex>& some, const Audience& audience) {
    for (std::vector<uint8_t>& list : encode_file_lists(request_, xact_, files)) {
      const uint32_t sequence =
          control_.post(PKGDIST_CTRL_CLASS_FILE_SEND, std::move(list), audience, some, now_);
      for (const NodeIndex node : some) {
        if (members_[node].unacknowledged.empty()) members_[node].list_told = now_;
        members_[node].unacknowledged.insert(sequence);
      }
      told_[sequence] = piece != kNoPiece ? Told{piece, {}} : Told{kNoPiece, files};
    }
  });
}

// --- Directories ---

void PushJob::clear_places() {
  std::vector<NodeIndex> untold;
  for (NodeIndex i = 0; i < members_.size(); ++i)
    if (members_[i].known && members_[i].present && places_.untold(i)) untold.push_back(i);
  if (untold.empty()) return;
  in_groups(untold, [&](const std::vector<NodeIndex>& some, const Audience& audience) {
    places_.tell(some, audience, control_, now_);
  });
  if (places_deadline_ == 0) places_deadline_ = now_ + kListWait;
}

// The push begins with the nodes that it has; one that comes later makes room by itself.
bool PushJob::places_pending() const {
  if (now_ >= places_deadline_) return false;
  for (NodeIndex i = 0; i < members_.size(); ++i)
    if (members_[i].known && members_[i].present && !places_.clear(i)) return true;
  return false;
}

void PushJob::on_acknowledged(uint32_t sequence, NodeIndex node, bool direct) {
  using Meaning = DirectoryPlaces::Meaning;
  if (const Meaning meaning = places_.on_acknowledged(sequence, node); meaning != Meaning::kOther) {
    if (meaning != Meaning::kCleared || member(node) == nullptr) return;
    go_round_ = true;
    ready_piece_ = kNoPiece;
    return fresh_.push_back(node);
  }
  const auto found = told_.find(sequence);
  Member* one = member(node);
  if (found == told_.end() || one == nullptr) return;
  one->unacknowledged.erase(sequence);
  one->list_told = now_;
  one->list_arrived |= direct;
  const Told& told = found->second;
  if (told.piece != kNoPiece) {
    one->heard[told.piece] = Heard::kAcknowledged;
    ready_piece_ = kNoPiece;
    go_round_ |= pieces_[told.piece].first < cursor_;
  }
  if (told.piece == kNoPiece) {
    for (uint32_t file : told.files) join(file, node);
  } else if (active_in_[told.piece] != 0) {
    const FileRange range = pieces_[told.piece];
    for (uint32_t file = range.first; file < range.end; ++file) join(file, node);
  }
}

// The node takes part in the transfer of the file when there is one and it needs it.
void PushJob::join(uint32_t file, NodeIndex node) {
  const auto at = active_.find(file);
  if (at == active_.end() || !needs(members_[node], file)) return;
  const Transfer* transfer = data_.get(at->second);
  if (transfer == nullptr) return;
  const bool open =
      node < transfer->nodes.size() && transfer->nodes[node].state == TransferNode::State::kOpen;
  if (open)
    data_.wait_for(at->second, node);
  else
    data_.join(at->second, node, false, now_);
}

// What appeared at the same moment shares messages.
void PushJob::announce_to_fresh() {
  const std::vector<NodeIndex> nodes = std::exchange(fresh_, {});
  for (uint32_t piece = 0; piece < pieces_.size(); ++piece) {
    if (active_in_[piece] == 0) continue;
    std::vector<NodeIndex> untold;
    for (NodeIndex node : nodes)
      if (needs_any(members_[node], piece) && may_hear(members_[node], piece) &&
          places_.clear(node))
        untold.push_back(node);
    if (!untold.empty()) announce(piece, untold);
  }
}

// A node that does not know a file although it was told will hardly do so a moment later.
void PushJob::flush_relists() {
  if (now_ < next_relist_) return;
  next_relist_ = now_ + kRelistPause;
  auto relists = std::move(relists_);
  relists_.clear();
  for (auto& [node, files] : relists)
    if (members_[node].present) post_list({files.begin(), files.end()}, {node}, kNoPiece);
}

// --- Files ---

std::vector<NodeIndex> PushJob::listeners(uint32_t file) const {
  const uint32_t piece = piece_of(file);
  std::vector<NodeIndex> nodes;
  for (NodeIndex i = 0; i < members_.size(); ++i) {
    const Member& one = members_[i];
    if (one.known && needs(one, file) && one.heard[piece] == Heard::kAcknowledged)
      nodes.push_back(i);
  }
  return nodes;
}

// Moves the cursor to the next file that somebody lacks and that is not in transfer.
bool PushJob::pick_file() {
  for (;;) {
    for (; cursor_ < request_.files.size(); ++cursor_)
      if (!active_.contains(cursor_) && needed_[cursor_] != 0) return true;
    if (!go_round_) return false;
    go_round_ = false;
    cursor_ = 0;
  }
}

void PushJob::start_file(uint32_t file, const std::vector<NodeIndex>& nodes) {
  make_active(file, data_.start(key_of(file), request_.priority, file, nodes, now_));
}

void PushJob::make_active(uint32_t file, TransferId id) {
  active_in_[piece_of(file)] += active_.contains(file) ? 0 : 1;
  active_[file] = id;
}

void PushJob::feed() {
  if (places_pending()) return;
  while (data_.waiting_files() < kMaxWaitingFiles && data_.waiting_bytes() < kMaxWaitingBytes &&
         active_.size() < Slots::kPush && pick_file()) {
    const uint32_t piece = piece_of(cursor_);
    if (!level_open(piece)) {
      cursor_ = pieces_[piece].end;
      continue;
    }
    const bool announced = piece_deadline_[piece] != 0;
    if (!announced && !fits_ahead(piece) && data_.backlog_seconds() > kAnnounceAheadSeconds) return;
    if (!piece_ready(piece)) return;
    const std::vector<NodeIndex> nodes = listeners(cursor_);
    // Left out, a file comes again: when a node acknowledges, or when the other transfer ends.
    const TransferId other = data_.find(key_of(cursor_));
    const bool free = other == kNoTransfer && !data_.collides(key_of(cursor_));
    if (!nodes.empty() && free) start_file(cursor_, nodes);
    held_ |= other == kNoTransfer && !free;
    if (!nodes.empty() && other != kNoTransfer && !take_over(cursor_, other, nodes))
      displace(cursor_, other, nodes);
    ++cursor_;
  }
}

// Nodes have asked for the file by themselves, because an earlier push was interrupted. On a node
// that has heard of this push the file ends for both at once, so one transfer does, if it brings
// the file as it is now. It is too late when a node may have ended the file before it heard: its
// report would not be about this push.
bool PushJob::take_over(uint32_t file, TransferId id, const std::vector<NodeIndex>& nodes) {
  const Transfer& transfer = *data_.get(id);
  const bool may_have_ended = !transfer.first_turn || transfer.turn.done() >= transfer.segments;
  if (transfer.status != 0 || transfer.started < begun_ || may_have_ended) return false;
  data_.hand_over(id, file);
  make_active(file, id);
  for (const NodeIndex node : nodes) join(file, node);
  return true;
}

// A transfer that is too old to be taken over, and that others keep going: they ask again. Reports
// of the push's nodes about it may be on their way at first.
void PushJob::displace(uint32_t file, TransferId other, const std::vector<NodeIndex>& nodes) {
  const Transfer& transfer = *data_.get(other);
  if (is_for_members(transfer)) return;
  if (elapsed(now_, transfer.started) < kReportTime) {
    revisit_at_ = std::min(revisit_at_, transfer.started + kReportTime);
    return;
  }
  data_.displace(other);
  start_file(file, nodes);
}

// Whether a node of the push is receiving it.
bool PushJob::is_for_members(const Transfer& transfer) const {
  for (NodeIndex node = 0; node < std::min(transfer.nodes.size(), members_.size()); ++node)
    if (transfer.nodes[node].state == TransferNode::State::kOpen && members_[node].present)
      return true;
  return false;
}

// What only others than the push's nodes still receive takes no place of the push.
void PushJob::release_unneeded() {
  if (!std::exchange(release_due_, false)) return;
  std::vector<std::pair<uint32_t, TransferId>> unneeded;
  for (const auto& [file, id] : active_)
    if (needed_[file] == 0) unneeded.emplace_back(file, id);
  for (const auto& [file, id] : unneeded) {
    active_in_[piece_of(file)] -= static_cast<uint32_t>(active_.erase(file));
    data_.leave_to_guests(id);
  }
}

// Few and small enough to be announced long before their turn: nodes that know of a file get it
// from another lead when this one dies.
bool PushJob::fits_ahead(uint32_t piece) const {
  const FileRange range = pieces_[piece];
  uint64_t bytes = data_.waiting_bytes();
  for (uint32_t file = range.first; file < range.end; ++file) bytes += request_.files[file].size;
  return data_.waiting_files() + (range.end - range.first) <= kMaxWaitingFiles &&
         bytes <= kMaxWaitingBytes;
}

bool PushJob::start_requested(const FileKey& key, NodeIndex node, Time now) {
  now_ = now;
  const auto found = by_name_.find(key.name);
  if (key.location != request_.location || found == by_name_.end()) return false;
  if (phase_ == Phase::kGathering)
    return wanted(nodes_[node].info.address) && elapsed(now, summary_.started_at) < kRequestHold;
  const Member* asking = member(node);
  if (phase_ != Phase::kRunning || asking == nullptr || !needs(*asking, found->second))
    return false;
  // The node asks again.
  if (!may_hear(*asking, piece_of(found->second)) || !places_.clear(node) || data_.collides(key))
    return true;
  std::vector<NodeIndex> nodes = listeners(found->second);
  if (std::find(nodes.begin(), nodes.end(), node) == nodes.end()) nodes.push_back(node);
  start_file(found->second, nodes);
  return true;
}

bool PushJob::holds_back(const FileKey& key, NodeIndex node) {
  const Member* asking = member(node);
  if (phase_ != Phase::kRunning || asking == nullptr || key.location != request_.location)
    return false;
  const std::string plain = plain_name(key.name);
  const std::vector<std::string_view> owners = owners_of_partial(plain);
  return std::any_of(owners.begin(), owners.end(), [&](std::string_view owner) {
    const auto found = by_name_.find(std::string(owner));
    return found != by_name_.end() && needs(*asking, found->second);
  });
}

// Failures that another try may cure: the node gave up waiting, or a link came before the first
// file of its directory.
bool PushJob::retry(const Transfer& transfer, NodeIndex node, uint64_t status) {
  const bool early_link =
      transfer.attributes.symlink && status == PKGDIST_STATUS_FROM_ERRNO(ENOENT);
  if (status != PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT) && !early_link) return false;
  const auto file = static_cast<uint32_t>(transfer.tag);
  if (++retries_[pair_key(node, file)] > kMaxRetries) return false;
  relists_[node].insert(file);
  go_round_ = true;
  return true;
}

void PushJob::end_file(Member& one, uint32_t file, uint64_t status) {
  one.ended[file] = true;
  one.report.bytes_left -= request_.files[file].size;
  if (status != 0) one.failed[file] = status;
  if (one.present) --needed_[file];
  const uint32_t piece = piece_of(file);
  if (--one.left_in[piece] == 0 && leveled_) {
    // It may hear of what is perhaps on its way to others.
    go_round_ = true;
    fresh_.push_back(static_cast<NodeIndex>(&one - members_.data()));
  }
  if (--one.left != 0) return;
  one.report.finished_at = now_;
  if (one.present) --unfinished_;
}

// What the file's end says about the traffic, also when it begins again on the node.
void PushJob::count_end(PushNodeReport& node, uint32_t file, const Transfer& transfer,
                        uint64_t status, bool skipped) {
  if (!skipped) node.segments += status == 0 ? transfer.segments : transfer.streamed_segments();
  if (status != 0) return;
  ++node.files_done;
  node.bytes_done += transfer.attributes.size;
  if (skipped) {
    ++node.files_skipped;
    node.bytes_skipped += transfer.attributes.size;
  } else if (!received_[file]) {
    received_[file] = true;
    summary_.bytes_received += transfer.attributes.size;
  }
}

void PushJob::on_ended(const Transfer& transfer, NodeIndex node, uint64_t status, bool skipped) {
  const auto file = static_cast<uint32_t>(transfer.tag);
  Member* one = member(node);
  if (one == nullptr || one->ended[file]) return;
  count_end(one->report, file, transfer, status, skipped);
  if (retry(transfer, node, status)) return;
  end_file(*one, file, status);
  release_due_ |= needed_[file] == 0 && transfer.open != 0;
  events_.file_ended(nodes_[node].info, transfer.key.name, status, skipped);
}

void PushJob::on_received_elsewhere(const Transfer& transfer, NodeIndex node) {
  go_round_ = true;
  const auto found = by_name_.find(transfer.key.name);
  Member* one = member(node);
  if (phase_ != Phase::kRunning || one == nullptr || found == by_name_.end()) return;
  const uint32_t file = found->second;
  if (transfer.key.location != request_.location || transfer.started < begun_) return;
  if (one->ended[file] || one->heard[piece_of(file)] != Heard::kAcknowledged) return;
  count_end(one->report, file, transfer, 0, false);
  end_file(*one, file, 0);
  events_.file_ended(nodes_[node].info, transfer.key.name, 0, false);
}

bool PushJob::on_unlisted(const Transfer& transfer, NodeIndex node) {
  Member* one = member(node);
  if (phase_ != Phase::kRunning || one == nullptr || !one->present) return false;
  const auto file = static_cast<uint32_t>(transfer.tag);
  Unknown& unknown = unknown_[pair_key(node, file)];
  if (unknown.times++ == 0) unknown.since = now_;
  if (unknown.times > kMaxUnknown && elapsed(now_, unknown.since) >= kUnknownPatience) return false;
  relists_[node].insert(file);
  return true;
}

// What is cancelled in this push has ended here already.
bool PushJob::ends_unknown(const Transfer& transfer, uint64_t status) const {
  if (status == PKGDIST_STATUS_CANCELLED) return false;
  if (status == PKGDIST_STATUS_DELETED)
    return deleted_.contains(static_cast<uint32_t>(transfer.tag));
  return true;
}

void PushJob::note_deleted(uint32_t location, const std::vector<std::string>& names) {
  if (location != request_.location) return;
  for (const std::string& name : names)
    if (const auto found = by_name_.find(name); found != by_name_.end())
      deleted_.insert(found->second);
}

void PushJob::on_closed(const Transfer& transfer) {
  const auto file = static_cast<uint32_t>(transfer.tag);
  active_in_[piece_of(file)] -= static_cast<uint32_t>(active_.erase(file));
  if (phase_ == Phase::kRunning && needed_[file] != 0) go_round_ = true;
  go_round_ |= std::exchange(held_, false);
}

// --- The course of the push ---

void PushJob::finish() {
  // What is still in transfer is for nodes outside of the push, who ask again.
  data_.abandon(request_.files.size());
  phase_ = Phase::kFinished;
  summary_.finished_at = now_;
  events_.push_finished();
}

void PushJob::run(Time now) {
  now_ = now;
  if (phase_ != Phase::kFinished && out_of_time()) {
    for (Member& one : members_)
      if (one.present) count_unfinished(one);
    return finish();
  }
  if (phase_ == Phase::kGathering) gather(now);
  if (phase_ != Phase::kRunning) return;
  release_unneeded();
  if (now >= revisit_at_) {
    revisit_at_ = kNever;
    go_round_ = true;
  }
  if (!relists_.empty()) flush_relists();
  clear_places();
  if (!fresh_.empty()) announce_to_fresh();
  if (request_.slow_nodes != SlowNodes::kWait)
    if (const NodeIndex slow = data_.take_straggler(now); slow != kNoNode) treat_straggler(slow);
  leave_out_unreachable();
  feed();
  if (unfinished_ == 0) return_to_deferred();
  if (unfinished_ == 0) finish();
}

Time PushJob::next_deadline() const {
  if (phase_ == Phase::kFinished) return kNever;
  Time deadline = request_.max_time != 0 ? begun_ + request_.max_time : kNever;
  if (phase_ == Phase::kGathering)
    return std::min(deadline, summary_.started_at + request_.node_timeout);
  if (places_deadline_ > now_) deadline = std::min(deadline, places_deadline_);
  deadline = std::min(deadline, revisit_at_);
  if (!relists_.empty()) deadline = std::min(deadline, next_relist_);
  for (Time wait : piece_deadline_)
    if (wait > now_) deadline = std::min(deadline, wait);
  return deadline;
}

std::vector<PushJob::Streamed> PushJob::streamed() const {
  std::vector<Streamed> files;
  for (const auto& [file, id] : active_) {
    const Transfer* transfer = data_.get(id);
    if (transfer == nullptr || transfer->streamed_segments() == 0) continue;
    files.push_back({file, transfer->streamed_bytes(), transfer->streamed_segments()});
  }
  return files;
}

// The node does not wait for what is in transfer any longer.
void PushJob::count_unfinished(Member& one) {
  for (const Streamed& part : streamed())
    if (!one.ended[part.file]) one.report.segments += part.segments;
}

PushReport PushJob::progress() const {
  PushReport report = summary_;
  report.finished = phase_ == Phase::kFinished;
  report.expected_nodes = request_.nodes.empty() ? request_.node_count : request_.nodes.size();
  report.nodes.reserve(members_.size());
  const std::vector<Streamed> in_transfer = streamed();
  for (const Member& one : members_) {
    if (!one.known) continue;
    PushNodeReport& node = report.nodes.emplace_back(one.report);
    node.files_failed = one.failed.size();
    node.files_left = one.left;
    if (one.left == 0 || !one.present) continue;
    for (const Streamed& part : in_transfer) {
      if (one.ended[part.file]) continue;
      node.bytes_in_transfer += part.bytes;
      node.segments += part.segments;
    }
  }
  for (uint32_t address : request_.nodes) {
    const NodeIndex index = nodes_.find(address);
    if (index < members_.size() && members_[index].known) continue;
    PushNodeReport& absent = report.nodes.emplace_back();
    absent.address = address;
    absent.files_left = report.files;
    absent.bytes_left = report.bytes;
  }
  return report;
}

PushReport PushJob::report() const {
  PushReport report = progress();
  auto node = report.nodes.begin();
  for (const Member& one : members_) {
    if (!one.known) continue;
    for (const auto& [file, status] : one.failed) node->failed[original(file)] = status;
    if (one.left != 0) node->open = lacking(one, {0, static_cast<uint32_t>(request_.files.size())});
    for (uint32_t& file : node->open) file = original(file);
    ++node;
  }
  return report;
}

bool PushReport::complete() const {
  if (!finished || nodes.size() < expected_nodes) return false;
  return std::all_of(nodes.begin(), nodes.end(), [&](const PushNodeReport& node) {
    return node.heard && node.files_failed == 0 && node.files_left == 0 && node.files_done == files;
  });
}

}  // namespace pkgdist::lead
