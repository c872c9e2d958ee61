// One push: a list of files that a set of nodes must have.
//
// The list is announced piece by piece (file_list.h); the files of a piece are handed to the data
// stream once the nodes have acknowledged it, or after a bounded wait. Every node has a record of
// the files that ended on it and of the pieces that it has heard of. A node that appears, restarts
// or comes back has heard of nothing: the pieces in transfer are announced to it at once, and the
// walk over the files goes round again for what had gone by. A node that says that it never heard
// of a file is told of it again.
//
// Every push ends by itself: a node that answers pings and does not take part in the push, because
// its lists or the data channel do not get through, is left out after a while.
//
// A node that receives NAME writes to NAME.tmp. A push with both names brings files in levels
// (file_list.h): nobody is told of a file of the next level before the files of this one have ended
// on every present node. Nor is one sent beside a transfer that somebody else has asked for.
#pragma once

#include <set>
#include <unordered_map>

#include "control/control_stream.h"
#include "push/directory_places.h"
#include "push/file_list.h"
#include "stream/data_sender.h"

namespace pkgdist::lead {

class PushJob {
 public:
  PushJob(PushRequest request, uint32_t xact, const NodeTable& nodes, ControlStream& control,
          DataSender& data, Events& events);

  void begin(Time now);
  void stop(Time now);
  // What has not ended on these nodes ends as cancelled; for everyone, so does the push.
  void cancel(const Audience& audience, Time now);
  void run(Time now);
  Time next_deadline() const;

  bool gathering() const { return phase_ == Phase::kGathering; }
  bool finished() const { return phase_ == Phase::kFinished; }
  Time node_timeout() const { return request_.node_timeout; }
  PushReport progress() const;
  PushReport report() const;

  // The node appeared, restarted or came back: it has to be told everything.
  // `restarted`: with another process. A node that restarts again and again is given up.
  void on_node_fresh(NodeIndex node, bool restarted = false);
  void on_node_silent(NodeIndex node);
  // What the node lacks ends with this status. False when the push does not have it, or not yet.
  bool leave_out_node(NodeIndex node, uint64_t status, Time now);
  // The node was left behind because it is slow: what it asks for would slow the others down.
  bool leaves_behind(NodeIndex node) const {
    return phase_ == Phase::kRunning && node < members_.size() && members_[node].behind;
  }
  // Whether the push reports about the node.
  bool counts(NodeIndex node) const {
    return phase_ != Phase::kFinished && node < members_.size() && members_[node].known;
  }
  // `direct`: by an acknowledgement of this list, which a node sends only for what it has.
  void on_acknowledged(uint32_t sequence, NodeIndex node, bool direct);
  void on_requested_segments(NodeIndex node, uint32_t segments);

  // Transfers whose tag is the index of a file of this push.
  void on_ended(const Transfer& transfer, NodeIndex node, uint64_t status, bool skipped);
  // A node has received a file from a transfer outside of the push. If it knew of the push by then,
  // that was for both.
  void on_received_elsewhere(const Transfer& transfer, NodeIndex node);
  bool on_unlisted(const Transfer& transfer, NodeIndex node);
  // Whether a node that had no information yet can have ended the file so in this push.
  bool ends_unknown(const Transfer& transfer, uint64_t status) const;
  // Nodes are told to delete these files.
  void note_deleted(uint32_t location, const std::vector<std::string>& names);
  void on_closed(const Transfer& transfer);
  // A transfer outside of the push ended; it may have stood in the way of one of its files.
  void on_other_closed() { go_round_ = true; }

  // A node asked for a file that has no transfer. True when it is one of this push that the node
  // still lacks; it is then started out of turn, or will come soon when the push is about to begin:
  // sent at once it would be sent twice, since the node will be told of it again.
  bool start_requested(const FileKey& key, NodeIndex node, Time now);
  // Whether the node, which asks for a file, still lacks one of this push that would overwrite it.
  bool holds_back(const FileKey& key, NodeIndex node);

 private:
  enum class Phase : uint8_t { kGathering, kRunning, kFinished };
  enum class Heard : uint8_t { kNothing, kTold, kAcknowledged };

  struct Member {
    bool known = false;                   // belongs to the push and was heard
    bool present = false;                 // and is not silent
    uint32_t restarts = 0;                // of its process
    bool behind = false;                  // too slow; its requests are not heeded
    std::vector<bool> ended;              // by file
    std::vector<Heard> heard;             // by piece
    PushNodeReport report;                // but for what is in transfer, and the files by name
    std::map<uint32_t, uint64_t> failed;  // by file
    uint32_t left = 0;                    // files that have not ended
    std::vector<uint32_t> left_in;        // the same by piece
    std::set<uint32_t> unacknowledged;    // sequences of lists
    Time list_told = 0;                   // since when it acknowledges none of these
    bool list_arrived = false;            // some list of this push has
  };
  // A node says that it does not know a file.
  struct Unknown {
    uint32_t times = 0;
    Time since = 0;
  };

  bool wanted(uint32_t address) const;
  bool gathered() const;
  void gather(Time now);
  void feed();
  bool pick_file();
  bool needs(const Member& member, uint32_t file) const {
    return member.present && !member.ended[file];
  }
  bool needs_any(const Member& member, uint32_t piece) const {
    return member.present && member.left_in[piece] != 0;
  }
  void set_present(Member& member, bool present);
  void clear_places();
  bool places_pending() const;
  bool may_hear(const Member& member, uint32_t piece) const;
  bool level_open(uint32_t piece) const;
  FileKey key_of(uint32_t file) const { return {request_.location, request_.files[file].name}; }
  std::vector<NodeIndex> listeners(uint32_t file) const;
  bool piece_ready(uint32_t piece);
  void announce(uint32_t piece, const std::vector<NodeIndex>& nodes);
  Audience listed(const std::vector<NodeIndex>& nodes) const;
  template <class Post>
  void in_groups(const std::vector<NodeIndex>& nodes, Post&& post) const;
  void post_list(const std::vector<uint32_t>& files, const std::vector<NodeIndex>& nodes,
                 uint32_t piece);
  std::vector<uint32_t> lacking(const Member& member, FileRange range) const;
  uint32_t original(uint32_t file) const { return original_.empty() ? file : original_[file]; }
  uint32_t piece_of(uint32_t file) const;
  // A file in transfer of which something was sent.
  struct Streamed {
    uint32_t file = 0;
    uint64_t bytes = 0;
    uint64_t segments = 0;
  };
  std::vector<Streamed> streamed() const;
  void count_unfinished(Member& one);
  bool fits_ahead(uint32_t piece) const;
  void start_file(uint32_t file, const std::vector<NodeIndex>& nodes);
  void make_active(uint32_t file, TransferId id);
  void join(uint32_t file, NodeIndex node);
  bool take_over(uint32_t file, TransferId id, const std::vector<NodeIndex>& nodes);
  bool is_for_members(const Transfer& transfer) const;
  void release_unneeded();
  void flush_relists();
  void announce_to_fresh();
  void give_up(NodeIndex node, uint64_t status);
  void treat_straggler(NodeIndex node);
  void leave_out_unreachable();
  void leave_out(NodeIndex node, uint64_t status);
  void return_to_deferred();
  bool out_of_time() const {
    return request_.max_time != 0 && elapsed(now_, begun_) >= request_.max_time;
  }
  void finish();
  void end_file(Member& one, uint32_t file, uint64_t status);
  void count_end(PushNodeReport& node, uint32_t file, const Transfer& transfer, uint64_t status,
                 bool skipped);
  void displace(uint32_t file, TransferId other, const std::vector<NodeIndex>& nodes);
  bool retry(const Transfer& transfer, NodeIndex node, uint64_t status);
  Member* member(NodeIndex node);

  static constexpr uint32_t kNoPiece = UINT32_MAX;

  std::vector<uint32_t> original_;  // by file: its place in the owner's request; empty: the same
  std::vector<uint32_t> levels_;    // by file, ascending
  const PushRequest request_;       // in the order of levels
  const uint32_t xact_;
  const NodeTable& nodes_;
  ControlStream& control_;
  DataSender& data_;
  Events& events_;

  DirectoryPlaces places_;
  Time places_deadline_ = 0;  // when files go out without the nodes that have not made room

  Phase phase_ = Phase::kGathering;
  Time now_ = 0;
  Time begun_ = 0;  // what was looked at earlier may have changed since
  PushReport summary_;
  std::vector<FileRange> pieces_;
  std::vector<Time> piece_deadline_;  // when files go out without the last acknowledgements
  std::unordered_map<std::string, uint32_t> by_name_;
  std::vector<Member> members_;  // by node index
  std::vector<bool> received_;   // by file: some node has received it
  // Kept up to date, because with many nodes and files nobody can afford to count them anew.
  std::vector<uint32_t> needed_;  // by file: present nodes that lack it
  size_t unfinished_ = 0;         // present nodes that lack something

  uint32_t cursor_ = 0;                              // next file of the walk
  bool go_round_ = false;                            // something before the cursor is needed again
  Time revisit_at_ = kNever;                         // a file that was in the way then
  bool release_due_ = false;                         // files in transfer may be needed no longer
  bool leveled_ = false;                             // not all files are of level 0
  bool held_ = false;                                // a file waits for the end of another one
  uint32_t ready_piece_ = kNoPiece;                  // found ready, until somebody's state changes
  std::unordered_map<uint32_t, TransferId> active_;  // by file
  std::vector<uint32_t> active_in_;                  // files of active_, by piece

  struct Told {
    uint32_t piece = kNoPiece;
    std::vector<uint32_t> files;  // for lists that are not a whole piece
  };
  std::unordered_map<uint32_t, Told> told_;                    // by sequence
  std::unordered_map<NodeIndex, std::set<uint32_t>> relists_;  // files to tell a node of again
  Time next_relist_ = 0;                                       // not before
  std::vector<NodeIndex> fresh_;  // to be told of the pieces in transfer, together
  std::set<uint32_t> deleted_;    // files that this lead has had deleted since
  std::unordered_map<uint64_t, uint32_t> retries_;  // (node, file) -> tried again so often
  std::unordered_map<uint64_t, Unknown> unknown_;   // (node, file)
  Time next_look_ = 0;                              // for nodes that cannot be reached
};

}  // namespace pkgdist::lead
