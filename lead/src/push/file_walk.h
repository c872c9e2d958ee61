// The walk over the files of a push: which one is handed to the data stream next.
//
// A file goes out once when its piece is announced and its level is open (announcer.h). What
// happens behind the walk makes it go round again: a node that comes late, an acknowledgement that
// arrives after its file's turn, a transfer of somebody else that was in the way.
//
// A file that a node has asked for by itself has a transfer already. That one serves the push, too,
// when nobody can have ended it yet; otherwise it is ended once no member takes part in it.
#pragma once

#include "push/announcer.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

class FileWalk {
 public:
  FileWalk(const PushPlan& plan, const Members& members, Announcer& announcer, DataSender& data);

  // What was looked at earlier may have changed since.
  void begin(Time now) { begun_ = now; }
  Time begun() const { return begun_; }

  // Something before the present place is needed again.
  void go_round() { go_round_ = true; }
  // The list of the piece has been acknowledged, perhaps too late for this round.
  void go_round_for(uint32_t piece) { go_round_ |= plan_.pieces()[piece].first < cursor_; }
  // Files in transfer may be needed no longer.
  void look_for_unneeded() { unneeded_due_ = true; }

  // Takes back what is not needed, and goes round when something is no longer in the way.
  void run(Time now);
  // Hands files to the data stream as long as it has room.
  void feed(Time now);
  Time next_deadline() const { return revisit_at_; }

  // A file is sent out of turn, also to this node, which asked for it.
  void start_for(uint32_t file, NodeIndex node, Time now);
  // The node takes part in the transfer of the file when there is one and it needs it.
  void join(uint32_t file, NodeIndex node, Time now);
  // The same for every file of a piece.
  void join_piece(uint32_t piece, NodeIndex node, Time now);
  // The transfer of the file has ended.
  void on_closed(uint32_t file);

  bool in_transfer(uint32_t piece) const { return active_in_[piece] != 0; }
  std::vector<Streamed> streamed() const;

 private:
  bool pick_file();
  void visit(uint32_t file, Time now);
  void start(uint32_t file, const std::vector<NodeIndex>& nodes, Time now);
  void make_active(uint32_t file, TransferId id);
  void remove_active(uint32_t file);
  bool take_over(uint32_t file, TransferId id, const std::vector<NodeIndex>& nodes, Time now);
  void displace(uint32_t file, TransferId other, const std::vector<NodeIndex>& nodes, Time now);
  bool is_for_members(const Transfer& transfer) const;
  void release_unneeded();
  bool fits_ahead(uint32_t piece) const;

  const PushPlan& plan_;
  const Members& members_;
  Announcer& announcer_;
  DataSender& data_;
  Time begun_ = 0;
  uint32_t cursor_ = 0;  // next file
  bool go_round_ = false;
  Time revisit_at_ = kNever;  // a file that was in the way then
  bool unneeded_due_ = false;
  bool held_ = false;                                // a file waits for the end of another one
  std::unordered_map<uint32_t, TransferId> active_;  // by file
  std::vector<uint32_t> active_in_;                  // files of active_, by piece
};

}  // namespace pkgdist::lead
