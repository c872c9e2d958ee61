// Tells the nodes of a push which files come.
//
// The list is announced piece by piece (file_list.h); the files of a piece may go out once the
// members have acknowledged it, or after a bounded wait. Ahead of the first piece, nodes make room
// for the directories of the push (directory_places.h). A node that appears, restarts or comes back
// has heard of nothing: the pieces in transfer are announced to it at once, what appeared at the
// same moment together. A node that says that it never heard of a file is told of it again.
//
// Nobody is told of a file of the next level before the files of this one have ended on it.
#pragma once

#include <functional>
#include <set>

#include "control/control_stream.h"
#include "push/directory_places.h"
#include "push/members.h"

namespace pkgdist::lead {

class Announcer {
 public:
  Announcer(const PushPlan& plan, const Members& members, const NodeTable& nodes,
            ControlStream& control);

  // The member's process is another one, or was away: it has heard of nothing.
  void forget(NodeIndex node);
  // The member is to be told of the pieces in transfer, with the next run().
  void inform(NodeIndex node) { fresh_.push_back(node); }
  // The member is to be told of this file again, soon.
  void tell_again(NodeIndex node, uint32_t file) { again_[node].insert(file); }
  void cancel_again(NodeIndex node) { again_.erase(node); }
  // Something has changed in who is present or lacks what: no piece is ready until looked at.
  void look_anew() { ready_piece_ = kNoPiece; }

  // Tells everybody who needs the piece; true when its files can go out.
  bool ready(uint32_t piece, Time now);
  // Whether it was announced to anybody so far.
  bool announced(uint32_t piece) const { return piece_deadline_[piece] != 0; }
  // Members that lack the file and have acknowledged the list with it.
  std::vector<NodeIndex> listeners(uint32_t file) const;
  bool has_heard(NodeIndex node, uint32_t piece) const {
    return listeners_[node].heard[piece] == Heard::kAcknowledged;
  }
  // The node has made room for directories.
  bool clear(NodeIndex node) const { return places_.clear(node); }
  // Members still make room, and files wait for them. The push begins with the nodes that it has;
  // one that comes later makes room by itself.
  bool places_pending(Time now) const;

  // What a member has acknowledged. `direct`: by an acknowledgement of this message, which a node
  // sends only for what it has.
  struct Arrived {
    enum class What : uint8_t { kNothing, kPlaces, kPiece, kFiles };
    What what = What::kNothing;
    uint32_t piece = 0;
    std::vector<uint32_t> files;
  };
  Arrived on_acknowledged(uint32_t sequence, NodeIndex node, bool direct, Time now);

  // For how long the member has acknowledged none of the lists that were sent to it; 0 when none is
  // outstanding.
  Time unheeded(NodeIndex node, Time now) const;
  // Some list of this push has arrived there.
  bool reached(NodeIndex node) const { return listeners_[node].reached; }
  // What it left unheeded until now does not count.
  void excuse(NodeIndex node, Time now) { listeners_[node].told = now; }
  // Takes back the lists that the member has not acknowledged, and has it give the push up.
  void dismiss(NodeIndex node, Time now);

  // Tells what is due. `in_transfer`: whether files of a piece are.
  void run(const std::function<bool(uint32_t piece)>& in_transfer, Time now);
  Time next_deadline(Time now) const;

 private:
  enum class Heard : uint8_t { kNothing, kTold, kAcknowledged };
  struct Listener {
    std::vector<Heard> heard;           // by piece
    std::set<uint32_t> unacknowledged;  // sequences of lists
    Time told = 0;                      // since when it acknowledges none of these
    bool reached = false;
  };
  // What a list was about.
  struct Told {
    uint32_t piece = kNoPiece;
    std::vector<uint32_t> files;  // of a list that is not for a whole piece
  };
  static constexpr uint32_t kNoPiece = UINT32_MAX;

  void announce(uint32_t piece, const std::vector<NodeIndex>& nodes, Time now);
  void post_list(const std::vector<uint32_t>& files, const std::vector<NodeIndex>& nodes,
                 uint32_t piece, Time now);
  template <class Post>
  void in_groups(const std::vector<NodeIndex>& nodes, Post&& post) const;
  Audience listed(const std::vector<NodeIndex>& nodes) const;
  void make_room(Time now);
  void inform_fresh(const std::function<bool(uint32_t piece)>& in_transfer, Time now);
  void flush_again(Time now);

  const PushPlan& plan_;
  const Members& members_;
  const NodeTable& nodes_;
  ControlStream& control_;
  DirectoryPlaces places_;
  Time places_deadline_ = 0;          // when files go out without nodes that have not made room
  std::vector<Listener> listeners_;   // by node, of members
  std::vector<Time> piece_deadline_;  // when files go out without the last acknowledgements
  uint32_t ready_piece_ = kNoPiece;   // found ready
  std::unordered_map<uint32_t, Told> told_;  // by sequence
  std::unordered_map<NodeIndex, std::set<uint32_t>> again_;
  Time next_again_ = 0;           // not before
  std::vector<NodeIndex> fresh_;  // to be told of the pieces in transfer
};

}  // namespace pkgdist::lead
