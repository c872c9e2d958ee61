// The nodes of a push, and which file has ended on which of them.
//
// A node is a member from when it is first heard, and present unless it is silent or put off. How
// many present members lack a file, and how many lack anything, is kept up to date: with many nodes
// and files nobody can afford to count that anew.
#pragma once

#include "push/push_plan.h"

namespace pkgdist::lead {

struct Member {
  bool known = false;    // belongs to the push and was heard
  bool present = false;  // and is neither silent nor put off
  bool behind = false;   // too slow; its requests are not heeded
  uint32_t restarts = 0;
  std::vector<bool> ended;              // by file
  uint32_t left = 0;                    // files that have not ended
  std::vector<uint32_t> left_in;        // the same by piece
  std::map<uint32_t, uint64_t> failed;  // by file: its status
  PushNodeReport report;                // but for what is in transfer, and the files by name

  bool needs(uint32_t file) const { return present && !ended[file]; }
  bool needs_any(uint32_t piece) const { return present && left_in[piece] != 0; }
};

// A file in transfer of which something was sent.
struct Streamed {
  uint32_t file = 0;
  const Transfer* transfer = nullptr;
  uint64_t bytes = 0;
  uint64_t segments = 0;
};

class Members {
 public:
  explicit Members(const PushPlan& plan);

  // Nodes at and above this are no members, and neither are all below.
  NodeIndex size() const { return static_cast<NodeIndex>(members_.size()); }
  Member& operator[](NodeIndex node) { return members_[node]; }
  const Member& operator[](NodeIndex node) const { return members_[node]; }
  // Null when the node is no member.
  Member* find(NodeIndex node) {
    return node < members_.size() && members_[node].known ? &members_[node] : nullptr;
  }
  const Member* find(NodeIndex node) const { return const_cast<Members*>(this)->find(node); }

  // The node is heard, for the first time or again. Present it is not yet.
  Member& enter(NodeIndex node, const NodeInfo& info);
  // False when nothing changes.
  bool set_present(Member& member, bool present);

  size_t present() const;                                         // members
  uint32_t needed(uint32_t file) const { return needed_[file]; }  // by present members
  size_t unfinished() const { return unfinished_; }               // present members
  std::vector<uint32_t> lacking(const Member& member, FileRange range) const;
  // Nothing of the levels below the piece's is left on the member, or on any that is present.
  bool may_hear(const Member& member, uint32_t piece) const;
  bool level_open(uint32_t piece) const;

  // A file ends on a member. True when nothing of its piece is left there.
  bool end(Member& member, uint32_t file, uint64_t status, Time now);
  // What the end of a file says about the traffic, also when the file begins again on the member.
  // `skipped`: it was there already.
  void count_end(Member& member, uint32_t file, const Transfer& transfer, uint64_t status,
                 bool skipped);
  // The member does not wait for what is in transfer any longer.
  void count_unfinished(Member& member, const std::vector<Streamed>& in_transfer);

  // Content of files that some member has received, each counted once.
  uint64_t bytes_received() const { return bytes_received_; }

 private:
  const PushPlan& plan_;
  std::vector<Member> members_;   // by node
  std::vector<uint32_t> needed_;  // by file
  std::vector<bool> received_;    // by file
  uint64_t bytes_received_ = 0;
  size_t unfinished_ = 0;
};

}  // namespace pkgdist::lead
