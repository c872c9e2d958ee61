#include "push/announcer.h"

#include <algorithm>
#include <map>

namespace pkgdist::lead {

namespace {

// How long the files of a piece wait for nodes that do not acknowledge its list.
constexpr Time kListWait = 2 * kSecond;
// Between lists that tell nodes of files again: a node that does not know a file although it was
// told will hardly do so a moment later.
constexpr Time kAgainPause = 50 * kMillisecond;

}  // namespace

Announcer::Announcer(const PushPlan& plan, const Members& members, const NodeTable& nodes,
                     ControlStream& control)
    : plan_(plan),
      members_(members),
      nodes_(nodes),
      control_(control),
      places_(plan.request()),
      piece_deadline_(plan.pieces().size(), 0) {}

void Announcer::forget(NodeIndex node) {
  if (node >= listeners_.size()) listeners_.resize(node + size_t{1});
  Listener& one = listeners_[node];
  one.heard.assign(plan_.pieces().size(), Heard::kNothing);
  one.unacknowledged.clear();  // of a process, or a time, that is over
  one.reached = false;
  places_.forget(node);
  cancel_again(node);
  look_anew();
}

// --- Pieces ---

bool Announcer::ready(uint32_t piece, Time now) {
  if (piece == ready_piece_) return true;
  std::vector<NodeIndex> untold;
  bool unacknowledged = false;
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    const Member& member = members_[node];
    if (!member.known || !member.needs_any(piece) || !clear(node)) continue;
    const Heard heard = listeners_[node].heard[piece];
    if (heard == Heard::kNothing) untold.push_back(node);
    unacknowledged |= heard != Heard::kAcknowledged;
  }
  if (!untold.empty()) announce(piece, untold, now);
  if (unacknowledged && now < piece_deadline_[piece]) return false;
  ready_piece_ = piece;
  return true;
}

std::vector<NodeIndex> Announcer::listeners(uint32_t file) const {
  const uint32_t piece = plan_.piece_of(file);
  std::vector<NodeIndex> nodes;
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    const Member& member = members_[node];
    if (member.known && member.needs(file) && has_heard(node, piece)) nodes.push_back(node);
  }
  return nodes;
}

// Nodes that lack the same files share a message.
void Announcer::announce(uint32_t piece, const std::vector<NodeIndex>& nodes, Time now) {
  std::map<std::vector<uint32_t>, std::vector<NodeIndex>> groups;
  for (const NodeIndex node : nodes) {
    Heard& heard = listeners_[node].heard[piece];
    if (heard != Heard::kNothing) continue;
    heard = Heard::kTold;
    groups[members_.lacking(members_[node], plan_.pieces()[piece])].push_back(node);
  }
  for (const auto& [files, group] : groups)
    if (!files.empty()) post_list(files, group, piece, now);
  piece_deadline_[piece] = now + kListWait;
}

// --- Messages ---

Audience Announcer::listed(const std::vector<NodeIndex>& nodes) const {
  Audience audience;
  audience.card_class = PKGDIST_CARD_CLASS_NODE_LIST;
  for (const NodeIndex node : nodes) audience.nodes.push_back(nodes_[node].info.address);
  return audience;
}

// A message has room for so many addresses.
template <class Post>
void Announcer::in_groups(const std::vector<NodeIndex>& nodes, Post&& post) const {
  const bool everyone = plan_.request().nodes.empty() && nodes.size() == nodes_.size();
  const size_t group = everyone ? nodes.size() : kMaxNodesPerMessage;
  for (size_t start = 0; start < nodes.size(); start += group) {
    const std::vector<NodeIndex> some(
        nodes.begin() + static_cast<ptrdiff_t>(start),
        nodes.begin() + static_cast<ptrdiff_t>(std::min(nodes.size(), start + group)));
    post(some, everyone ? Audience{} : listed(some));
  }
}

void Announcer::post_list(const std::vector<uint32_t>& files, const std::vector<NodeIndex>& nodes,
                          uint32_t piece, Time now) {
  in_groups(nodes, [&](const std::vector<NodeIndex>& some, const Audience& audience) {
    for (std::vector<uint8_t>& list : encode_file_lists(plan_.request(), plan_.xact(), files)) {
      const uint32_t sequence =
          control_.post(PKGDIST_CTRL_CLASS_FILE_SEND, std::move(list), audience, some, now);
      for (const NodeIndex node : some) {
        Listener& one = listeners_[node];
        if (one.unacknowledged.empty()) one.told = now;
        one.unacknowledged.insert(sequence);
      }
      told_[sequence] = piece != kNoPiece ? Told{piece, {}} : Told{kNoPiece, files};
    }
  });
}

Announcer::Arrived Announcer::on_acknowledged(uint32_t sequence, NodeIndex node, bool direct,
                                              Time now) {
  using Meaning = DirectoryPlaces::Meaning;
  using What = Arrived::What;
  const Meaning meaning = places_.on_acknowledged(sequence, node);
  if (members_.find(node) == nullptr) return {};
  if (meaning == Meaning::kCleared) {
    look_anew();
    inform(node);
    return {What::kPlaces, 0, {}};
  }
  const auto found = told_.find(sequence);
  if (meaning == Meaning::kMore || found == told_.end()) return {};
  Listener& one = listeners_[node];
  one.unacknowledged.erase(sequence);
  one.told = now;
  one.reached |= direct;
  const Told& told = found->second;
  if (told.piece == kNoPiece) return {What::kFiles, 0, told.files};
  one.heard[told.piece] = Heard::kAcknowledged;
  look_anew();
  return {What::kPiece, told.piece, {}};
}

Time Announcer::unheeded(NodeIndex node, Time now) const {
  const Listener& one = listeners_[node];
  return one.unacknowledged.empty() ? 0 : elapsed(now, one.told);
}

void Announcer::dismiss(NodeIndex node, Time now) {
  std::vector<NodeIndex> waiting;  // for its acknowledgement, if there is one to be expected
  const std::set<uint32_t> lists = std::exchange(listeners_[node].unacknowledged, {});
  if (lists.empty()) waiting = {node};
  for (const uint32_t list : lists) control_.give_up(list, node);
  (void)control_.post(PKGDIST_CTRL_CLASS_FILE_SEND, encode_cancel(plan_.xact()), listed({node}),
                      std::move(waiting), now);
}

// --- Directories ---

void Announcer::make_room(Time now) {
  std::vector<NodeIndex> untold;
  for (NodeIndex node = 0; node < members_.size(); ++node)
    if (members_[node].present && places_.untold(node)) untold.push_back(node);
  if (untold.empty()) return;
  in_groups(untold, [&](const std::vector<NodeIndex>& some, const Audience& audience) {
    places_.tell(some, audience, control_, now);
  });
  if (places_deadline_ == 0) places_deadline_ = now + kListWait;
}

bool Announcer::places_pending(Time now) const {
  if (now >= places_deadline_) return false;
  for (NodeIndex node = 0; node < members_.size(); ++node)
    if (members_[node].present && !clear(node)) return true;
  return false;
}

// --- Time ---

void Announcer::inform_fresh(const std::function<bool(uint32_t piece)>& in_transfer, Time now) {
  const std::vector<NodeIndex> nodes = std::exchange(fresh_, {});
  for (uint32_t piece = 0; piece < plan_.pieces().size(); ++piece) {
    if (!in_transfer(piece)) continue;
    std::vector<NodeIndex> untold;
    for (const NodeIndex node : nodes) {
      const Member& member = members_[node];
      if (member.needs_any(piece) && members_.may_hear(member, piece) && clear(node))
        untold.push_back(node);
    }
    if (!untold.empty()) announce(piece, untold, now);
  }
}

void Announcer::flush_again(Time now) {
  if (now < next_again_) return;
  next_again_ = now + kAgainPause;
  for (const auto& [node, files] : std::exchange(again_, {}))
    if (members_[node].present) post_list({files.begin(), files.end()}, {node}, kNoPiece, now);
}

void Announcer::run(const std::function<bool(uint32_t piece)>& in_transfer, Time now) {
  if (!again_.empty()) flush_again(now);
  make_room(now);
  if (!fresh_.empty()) inform_fresh(in_transfer, now);
}

Time Announcer::next_deadline(Time now) const {
  Time deadline = again_.empty() ? kNever : next_again_;
  if (places_deadline_ > now) deadline = std::min(deadline, places_deadline_);
  for (const Time wait : piece_deadline_)
    if (wait > now) deadline = std::min(deadline, wait);
  return deadline;
}

}  // namespace pkgdist::lead
