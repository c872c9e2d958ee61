// One file on its way: what is sent, how far, and how each node stands with it.
#pragma once

#include <bit>
#include <memory>
#include <string>
#include <vector>

#include "batch_log.h"
#include "confirmed_repairs.h"
#include "node_table.h"
#include "pkgdist_lead/content.h"
#include "repair_queue.h"
#include "start_search.h"
#include "turn.h"

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

// How a node stands with a transfer.
struct TransferNode {
  enum class State : uint8_t {
    kAbsent,    // not concerned
    kOpen,      // has not reported an end
    kUnlisted,  // has not heard the file list; waits until it was announced to it again
    kEnded,
  };
  State state = State::kAbsent;
  bool answered = false;    // the last miss done
  bool asked = false;       // for segments, since the last miss done
  bool has_info = false;    // asked for segments of this transfer at some time
  uint16_t stale = 0;       // answers about an earlier transfer of the same file, in a row
  uint16_t unanswered = 0;  // miss dones in a row
  Time stale_since = 0;     // the first stale answer
  Time heard = 0;           // when it spoke of the file last, or began to be waited for

  // It spoke of this transfer.
  void hear(Time now) {
    stale = unanswered = 0;
    heard = now;
  }
};
// With a thousand nodes and two thousand files in transfer this is most of the lead's memory.
static_assert(sizeof(TransferNode) == 24);

struct Transfer {
  enum class Stage : uint8_t {
    kQueued,     // information not sent yet
    kAnnounced,  // information sent, no segment
    kStreaming,
    kSettling,  // stream ended: nodes are asked how they stand, and repaired
  };

  Transfer(TransferId id_, FileKey key_, const FileAttributes& attributes_, uint32_t segments_)
      : id(id_),
        key(std::move(key_)),
        attributes(attributes_),
        segments(segments_),
        turn(segments_),
        repairs(segments_),
        batches(segments_),
        start_search(segments_) {}

  const TransferId id;
  const FileKey key;
  const FileAttributes attributes;
  const uint32_t segments;

  uint64_t tag = 0;  // the owner's
  Time started = 0;  // when the content was looked at
  uint32_t priority = 0;
  uint64_t status = 0;  // non-zero: cannot be sent, nodes are told so
  Stage stage = Stage::kQueued;
  Turn turn;
  RepairQueue repairs;
  BatchLog batches;  // of a large file's first round
  ConfirmedRepairs confirmed;
  StartSearch start_search;
  std::unique_ptr<Content> content;  // null while closed

  std::vector<TransferNode> nodes;  // by node index
  uint32_t open = 0;                // nodes in State::kOpen
  uint32_t unlisted = 0;            // nodes in State::kUnlisted

  uint64_t segments_sent = 0;
  bool first_turn = true;
  double loss = 0;  // share of the first turn that a node lost, on average
  Time info_sent = 0;
  Time last_request = 0;

  // Settling.
  Time timer = kNever;
  Time turn_ended = 0;    // 0 after the first grace
  Time asked_at = 0;      // last miss done
  uint32_t answers = 0;   // open nodes that answered it
  bool help_now = false;  // a node asked for help: do not wait for answers
  uint32_t stuck = 0;     // rounds in a row that nodes answered 'in progress' to, asking nothing
  uint32_t mute = 0;      // rounds in a row that no node answered
  bool in_repair_line = false;
  uint32_t marks_sent = 0;
  // Since nodes asked afresh, see forget_asked().
  uint64_t requested = 0;  // segments, as often as they were asked for
  uint64_t repeated = 0;   // segments sent again without a request
  uint64_t late = 0;       // segments that became due after the stream had ended
  uint32_t repeats = 0;    // times that everything asked for was sent again
  uint32_t wholes = 0;     // times that the whole file was, to save a wait
  // While set, requests are gathered until then, or until all open nodes have asked.
  Time gather_until = 0;
  Time gather_limit = 0;  // at the latest
  uint32_t gathered = 0;  // open nodes that have asked meanwhile

  TransferNode& node(NodeIndex index) {
    if (index >= nodes.size()) nodes.resize(index + size_t{1});
    return nodes[index];
  }
  void set_state(NodeIndex index, TransferNode::State state);
  // As far as the first turn has come.
  uint64_t streamed_segments() const {
    if (stage == Stage::kQueued || stage == Stage::kAnnounced) return 0;
    return first_turn ? std::min<uint64_t>(turn.done(), segments) : segments;
  }
  // The same in bytes of content.
  uint64_t streamed_bytes() const { return attributes.size * streamed_segments() / segments; }
  // The stream goes round the file for the first time.
  bool first_round() const { return first_turn && turn.done() < segments; }
  void progress() { stuck = mute = 0; }
  void forget_asked() {
    repairs.forget_asked();
    requested = repeated = late = repeats = wholes = 0;
  }
};

inline void Transfer::set_state(NodeIndex index, TransferNode::State state) {
  TransferNode& at = node(index);
  open -= at.state == TransferNode::State::kOpen;
  unlisted -= at.state == TransferNode::State::kUnlisted;
  answers -= at.state == TransferNode::State::kOpen && at.answered;
  at.answered = at.asked = false;
  at.state = state;
  if (state != TransferNode::State::kOpen) confirmed.drop_node(index);
  open += state == TransferNode::State::kOpen;
  unlisted += state == TransferNode::State::kUnlisted;
}

}  // namespace pkgdist::lead
