// What is announced and streamed next: files in the order of their priority and, of equals, of
// their announcement.
//
// Files flow back to back: many are announced ahead of the stream. One that was announced waits a
// moment for the nodes that have it already: when all of them say so, no segment is sent.
#pragma once

#include <deque>
#include <map>

#include "stream/transfer_table.h"

namespace pkgdist::lead {

class Schedule {
 public:
  explicit Schedule(const TransferTable& table) : table_(table) {}

  void enter(const Transfer& transfer);
  // Takes the next file to be announced; null when there is none.
  Transfer* next_announcement();
  // It was announced: the stream comes to it.
  void announced(const Transfer& transfer, Time now);
  // Its stream begins, or it will not be streamed at all.
  void leave_waiting(const Transfer& transfer);
  // The file that is streamed now; null when none is due.
  Transfer* streamable(Time now);
  // What streamable() returned has had its turn.
  void end_turn(const Transfer& transfer) { streaming_[transfer.priority].pop_front(); }
  // It is to be streamed again, ahead of files that were not begun: their nodes are further back.
  void stream_again(const Transfer& transfer);

  // A node has just said that it has a file already: more of these reports are likely on their way.
  void note_skip(Time now) { last_skip_ = now; }
  void set_round_trip(Time round_trip) { round_trip_ = round_trip; }

  // Something is to be announced, or streamed at some time.
  bool empty() const { return announcing_.empty() && streaming_.empty(); }
  // When something is due, long ago for at once; kNever when nothing will be by itself.
  Time next_deadline() const { return announcing_.empty() ? due_ : 0; }

  // Files that are announced, or to be announced, but not streamed yet, and the bytes in them.
  size_t waiting_files() const { return waiting_files_; }
  uint64_t waiting_bytes() const { return waiting_bytes_; }
  // Segments that are left of the files whose streams have begun.
  uint64_t segments_ahead();

 private:
  using Line = std::deque<TransferId>;
  static constexpr Time kLeastSkipWait = 3 * kMillisecond;
  static constexpr Time kMostSkipWait = 100 * kMillisecond;

  Transfer* head(Line& line);
  Time stream_time(const Transfer& transfer) const;

  const TransferTable& table_;
  Line announcing_;
  std::map<uint32_t, Line> streaming_;  // by priority; the front is the file being streamed
  Time due_ = kNever;                   // when streamable() will find something
  size_t waiting_files_ = 0;
  uint64_t waiting_bytes_ = 0;
  Time last_skip_ = 0;
  Time round_trip_ = kMillisecond;
};

}  // namespace pkgdist::lead
