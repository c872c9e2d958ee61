// One file on its way: what is sent, how far, and how each node stands with it.
#pragma once

#include <bit>
#include <string>
#include <vector>

#include "node_table.h"
#include "pkgdist_lead/content.h"
#include "stream/repair_queue.h"
#include "stream/start_search.h"
#include "stream/turn.h"

namespace pkgdist::lead {

using TransferId = uint32_t;  // the file id on the wire, never 0
inline constexpr TransferId kNoTransfer = 0;

struct FileKey {
  uint32_t location = 0;
  std::string name;

  // Index key: no location has a name of another.
  std::string text() const { return std::to_string(location) + ':' + name; }
};

// Ahead of these segments the stream's first turn tells of the file again, for nodes that lost the
// information or had not heard the file list yet: they join there.
inline constexpr uint32_t kFirstInformedAgain = 256;
constexpr bool informs_again_at(uint64_t segment) {
  return segment >= kFirstInformedAgain && std::has_single_bit(segment);
}

// The nodes that receive something at present: those are polled. Guests receive what nobody waits
// for: they set the pace only as long as there is no other node.
class BusyNodes {
 public:
  void add(NodeIndex node, bool guest = false) {
    if (node >= end_) end_ = node + 1;
    add_to(guest ? guests_ : members_, node);
  }
  void remove(NodeIndex node, bool guest = false) { remove_from(guest ? guests_ : members_, node); }
  bool contains(NodeIndex node) const {
    const std::vector<uint32_t>& files = present().files;
    return node < files.size() && files[node] != 0;
  }
  size_t count() const { return present().count; }
  // Nodes 0 .. end()-1 can be busy.
  NodeIndex end() const { return end_; }
  // Changes with the set.
  uint64_t version() const { return version_; }

 private:
  struct Set {
    std::vector<uint32_t> files;  // that a node has not ended, by node
    size_t count = 0;
  };

  const Set& present() const { return members_.count != 0 ? members_ : guests_; }
  void add_to(Set& set, NodeIndex node) {
    if (node >= set.files.size()) set.files.resize(node + size_t{1});
    if (set.files[node]++ == 0) ++set.count, ++version_;
  }
  void remove_from(Set& set, NodeIndex node) {
    if (--set.files[node] == 0) --set.count, ++version_;
  }

  Set members_;
  Set guests_;
  NodeIndex end_ = 0;
  uint64_t version_ = 0;
};

// Whose turn it is to be streamed.
enum class Lane : uint8_t { kPush, kRequests };
constexpr Lane other(Lane lane) {
  return lane == Lane::kPush ? Lane::kRequests : Lane::kPush;
}

// How a node stands with a transfer.
struct TransferNode {
  enum class State : uint8_t {
    kAbsent,    // not concerned
    kOpen,      // has not reported an end
    kUnlisted,  // has not heard the file list; waits until it was announced to it again
    kEnded,
  };
  State state = State::kAbsent;
  bool answered = false;      // the last poll of the file
  bool asked = false;         // for segments, since the last poll
  bool has_info : 1 = false;  // asked for segments of this transfer at some time
  bool guest : 1 = false;     // the push does not wait for it
  bool goes_on : 1 = false;   // has a part, and asked for the rest ahead of the stream
  uint16_t stale = 0;         // answers about an earlier transfer of the same file, in a row
  uint16_t unanswered = 0;    // polls in a row
  Time stale_since = 0;       // the first stale answer
  Time heard = 0;             // when it spoke of the file last, or began to be waited for
  uint64_t parts = 0;         // of the file that it has asked for, see RepairQueue::part_of()

  // It spoke of this transfer.
  void hear(Time now) {
    stale = unanswered = 0;
    heard = now;
  }
};
// With a thousand nodes and two thousand files in transfer this is most of the lead's memory.
static_assert(sizeof(TransferNode) == 32);

struct Transfer {
  enum class Stage : uint8_t {
    kQueued,     // information not sent yet
    kAnnounced,  // information sent, no segment
    kStreaming,
    kSettling,  // stream ended: nodes are polled, and repaired
  };

  // `busy_` may be null, and outlives the transfer.
  Transfer(TransferId id_, FileKey key_, const FileAttributes& attributes_, uint32_t segments_,
           BusyNodes* busy_ = nullptr)
      : id(id_),
        key(std::move(key_)),
        attributes(attributes_),
        segments(segments_),
        turn(segments_),
        repairs(segments_),
        start_search(segments_),
        busy(busy_) {}

  const TransferId id;
  const FileKey key;
  const FileAttributes attributes;
  const uint32_t segments;

  uint64_t tag = 0;           // the owner's
  NodeIndex asker = kNoNode;  // for whom it was begun, kNoNode: for the push
  Time started = 0;           // when the content was looked at
  uint32_t priority = 0;
  uint64_t status = 0;  // non-zero: cannot be sent, nodes are told so
  Stage stage = Stage::kQueued;
  Turn turn;
  RepairQueue repairs;
  StartSearch start_search;

  std::vector<TransferNode> nodes;  // by node index
  uint32_t open = 0;                // nodes in State::kOpen
  uint32_t unlisted = 0;            // nodes in State::kUnlisted

  // What nodes asked for ahead of the first turn: they go on with what an earlier transfer has
  // left. When all of them do, this is sent instead of the turn.
  struct Run {
    NodeIndex node = 0;
    uint32_t first = 0, num = 0;
  };
  std::vector<Run> asked_ahead;
  bool asked_ahead_more = false;  // since somebody looked

  uint64_t segments_sent = 0;
  bool first_turn = true;
  Time info_sent = 0;
  uint64_t position = 0;  // of the window, behind the last datagram about the file
  // The same ahead of the stream's first segment and behind its latest, and the segments between,
  // repairs not counted.
  uint64_t stream_begin = 0, stream_end = 0;
  uint64_t streamed = 0;
  Time served = 0;  // when a segment of the stream or a repair was sent last
  Time last_request = 0;
  bool in_repair_line = false;
  uint64_t watched = 0;  // settling goes on when the window has handled this position

  // Settling; see settling.h.
  Time timer = kNever;
  bool tail_shown = false;   // the segments at which the last turn began and ended
  Time asked_at = 0;         // last poll of the file, 0: none since the last turn
  uint32_t answers = 0;      // open nodes that answered it
  bool help_now = false;     // a node asked for help: do not wait for answers
  uint32_t stuck = 0;        // rounds in a row that nodes answered 'in progress' to, asking nothing
  uint32_t mute = 0;         // rounds in a row that no node answered
  uint32_t copies = 0;       // sets sent again without a request, since nodes asked last
  uint32_t probes_sent = 0;  // segments of the start search

  TransferNode& node(NodeIndex index) {
    if (index >= nodes.size()) nodes.resize(index + size_t{1});
    return nodes[index];
  }
  Lane lane() const { return asker == kNoNode ? Lane::kPush : Lane::kRequests; }
  void set_state(NodeIndex index, TransferNode::State state);
  void set_guest(NodeIndex index, bool guest);
  // As far as the first turn has come.
  uint64_t streamed_segments() const {
    if (stage == Stage::kQueued || stage == Stage::kAnnounced) return 0;
    return first_turn ? std::min<uint64_t>(turn.done(), segments) : segments;
  }
  // The same in bytes of content.
  uint64_t streamed_bytes() const { return attributes.size * streamed_segments() / segments; }
  void progress() { stuck = mute = copies = 0; }

 private:
  BusyNodes* const busy;
};

inline void Transfer::set_state(NodeIndex index, TransferNode::State state) {
  using State = TransferNode::State;
  TransferNode& at = node(index);
  const bool was_open = at.state == State::kOpen;
  const bool is_open = state == State::kOpen;
  if (was_open && at.answered) --answers;
  if (busy != nullptr && is_open && !was_open) busy->add(index, at.guest);
  if (busy != nullptr && was_open && !is_open) busy->remove(index, at.guest);
  open = open + is_open - was_open;
  unlisted = unlisted + (state == State::kUnlisted) - (at.state == State::kUnlisted);
  at.answered = at.asked = false;
  at.state = state;
}

inline void Transfer::set_guest(NodeIndex index, bool guest) {
  TransferNode& at = node(index);
  if (at.guest == guest) return;
  const bool is_busy = busy != nullptr && at.state == TransferNode::State::kOpen;
  if (is_busy) busy->add(index, guest);
  if (is_busy) busy->remove(index, at.guest);
  at.guest = guest;
}

}  // namespace pkgdist::lead
