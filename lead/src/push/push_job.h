// The course of one push: a list of files that a set of nodes must have.
//
//   push_plan.h     what it brings, in which order
//   members.h       its nodes, and which file has ended on which of them
//   announcer.h     who is told of which files
//   file_walk.h     which file is sent next
//   second_tries.h  who gets a file again
//   reachability.h  whom the push does not reach
//
// It gathers its nodes, runs until every file has ended on every present one, and tells what became
// of it. Every push ends by itself: a node that answers pings and does not take part is left out
// after a while.
//
// A node that receives NAME writes to NAME.tmp. A push with both names brings files in levels
// (file_list.h): nobody is told of a file of the next level before the files of this one have ended
// on every present node. Nor is one sent beside a transfer that somebody else has asked for.
#pragma once

#include "pkgdist_lead/patience.h"
#include "push/file_walk.h"
#include "push/reachability.h"
#include "push/second_tries.h"

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
  Time node_timeout() const { return plan_.request().node_timeout; }
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
  bool counts(NodeIndex node) const { return !finished() && members_.find(node) != nullptr; }
  // `direct`: by an acknowledgement of this list, which a node sends only for what it has.
  void on_acknowledged(uint32_t sequence, NodeIndex node, bool direct);
  void on_requested_segments(NodeIndex node, uint32_t segments) {
    if (Member* asking = members_.find(node)) asking->report.repairs += segments;
  }

  // Transfers whose tag is the index of a file of this push.
  void on_ended(const Transfer& transfer, NodeIndex node, uint64_t status, bool skipped);
  // A node has received a file from a transfer outside of the push. If it knew of the push by then,
  // that was for both.
  void on_received_elsewhere(const Transfer& transfer, NodeIndex node);
  bool on_unlisted(const Transfer& transfer, NodeIndex node);
  // Whether a node that had no information yet can have ended the file so in this push.
  bool ends_unknown(const Transfer& transfer, uint64_t status) const;
  bool brings(uint32_t location, const std::string& name) const {
    return location == plan_.request().location && plan_.find(name).has_value();
  }
  // Nodes are told to delete these files.
  void note_deleted(uint32_t location, const std::vector<std::string>& names);
  void on_closed(const Transfer& transfer) { walk_.on_closed(file_of(transfer)); }
  // A transfer outside of the push ended; it may have stood in the way of one of its files.
  void on_other_closed() { walk_.go_round(); }

  // A node asked for a file that has no transfer. True when it is one of this push that the node
  // still lacks; it is then started out of turn, or will come soon when the push is about to begin:
  // sent at once it would be sent twice, since the node will be told of it again.
  bool start_requested(const FileKey& key, NodeIndex node, Time now);
  // Whether the node, which asks for a file, still lacks one of this push that would overwrite it.
  bool holds_back(const FileKey& key, NodeIndex node) const;

 private:
  enum class Phase : uint8_t { kGathering, kRunning, kFinished };

  static uint32_t file_of(const Transfer& transfer) { return static_cast<uint32_t>(transfer.tag); }
  void gather();
  void end_file(NodeIndex node, uint32_t file, uint64_t status);
  void set_present(Member& member, bool present);
  void give_up(NodeIndex node, uint64_t status);
  void leave_out(NodeIndex node, uint64_t status);
  void find_straggler();
  void treat_straggler(NodeIndex node);
  void return_to_deferred();
  void count_unfinished();
  void finish();

  const PushPlan plan_;
  const NodeTable& nodes_;
  DataSender& data_;
  Events& events_;
  Members members_;
  Announcer announcer_;
  FileWalk walk_;
  Reachability reachability_;
  SecondTries tries_;
  std::set<uint32_t> deleted_;  // files that this lead has had deleted since

  Phase phase_ = Phase::kGathering;
  Time now_ = 0;           // of the event being handled
  Time ends_at_ = kNever;  // whatever is left
  Patience patience_;      // with nodes that it gathers
  PushReport summary_;     // without nodes
};

}  // namespace pkgdist::lead
