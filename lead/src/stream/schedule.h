// What is announced and streamed next. There are two lanes, the push's and that of the files which
// nodes asked for; they take turns as long as both have something, whatever priority a request has.
// In a lane files go in the order of their priority and, of equals, of their announcement.
//
// Files flow back to back: the push's are announced ahead of the stream, by less than the time
// after which a node asks for the segments of a file that it was informed of. One that was
// announced waits a moment for the nodes that have it already: when all of them say so, no segment
// is sent.
#pragma once

#include <array>
#include <deque>
#include <map>

#include "stream/transfer_table.h"

namespace pkgdist::lead {

class Schedule {
 public:
  explicit Schedule(const TransferTable& table) : table_(table) {}

  void enter(const Transfer& transfer);
  // To be called around a change of the transfer's asker: leave() before it, come_back() after it.
  struct Place {
    bool waiting = false;
    bool announcing = false;
    bool streaming = false;
  };
  Place leave(const Transfer& transfer);
  void come_back(const Transfer& transfer, Place place);

  // The lane that is to have the next turn; the other one has it when this one has nothing.
  Lane next_lane() const { return next_; }
  // The lane has had its turn.
  void end_turn_of(Lane lane) { next_ = other(lane); }

  // Takes the lane's next file to be announced; null when none is due.
  Transfer* next_announcement(Time now, Lane lane = Lane::kPush);
  // It was announced: the stream comes to it.
  void announced(const Transfer& transfer, Time now);
  // Its stream begins, or it will not be streamed at all.
  void leave_waiting(const Transfer& transfer);
  // The lane's file that is streamed now; null when none is due.
  Transfer* streamable(Time now, Lane lane = Lane::kPush);
  // What streamable() returned has had its turn.
  void end_turn(const Transfer& transfer) { of(transfer).streaming[transfer.priority].pop_front(); }
  // It is to be streamed again, ahead of files that were not begun: their nodes are further back.
  void stream_again(const Transfer& transfer);

  // A node has just said that it has a file already: more of these reports are likely on their way.
  void note_skip(Time now) {
    last_skip_ = now;
    skipping_ = true;
  }
  void set_round_trip(Time round_trip) { round_trip_ = round_trip; }
  // How fast the stream is at present.
  void set_rate(double bytes_per_second) { rate_ = bytes_per_second; }

  // Something is to be announced, or streamed at some time.
  bool empty() const;
  // When something is due, long ago for at once; kNever when nothing will be by itself.
  Time next_deadline() const;

  // Files of the push that are announced, or to be announced, but not streamed yet, and the bytes
  // in them.
  size_t waiting_files() const { return lanes_[0].waiting_files; }
  uint64_t waiting_bytes() const { return lanes_[0].waiting_bytes; }
  // Segments that are left of the push's files whose streams have begun.
  uint64_t segments_ahead();

 private:
  using Line = std::deque<TransferId>;
  struct Files {
    Line announcing;
    std::map<uint32_t, Line> streaming;  // by priority; the front is the file being streamed
    Time due = kNever;                   // when streamable() will find something
    size_t waiting_files = 0;
    uint64_t waiting_bytes = 0;
    // Those of them that are announced.
    size_t announced_files = 0;
    uint64_t announced_bytes = 0;
    bool filling = false;  // announcements go on until they are far enough ahead
  };
  // How far the stream is behind the announcements. Nodes ask for the segments of a file after a
  // tenth of a second.
  static constexpr double kAheadSeconds = 0.08;
  // Announcements go out in groups. One between two segments of a file would split the sender's
  // batch and the nodes' write.
  static constexpr double kLeastAheadSeconds = 0.075;
  // But so many are announced in any case, and more while nodes say that they have what they hear
  // of: nothing of it is streamed.
  static constexpr size_t kLeastAhead = 1;
  static constexpr size_t kLeastAheadOfSkips = 512;
  // And a file that has waited for so long: nodes that know of it from the list ask for it every
  // two seconds, and give it up after 21.
  static constexpr Time kMostHeldBack = 8 * kSecond;
  static constexpr double kUnknownRate = 12'500'000;
  static constexpr Time kLeastSkipWait = 3 * kMillisecond;
  static constexpr Time kMostSkipWait = 100 * kMillisecond;

  Files& of(Lane lane) { return lanes_[static_cast<size_t>(lane)]; }
  Files& of(const Transfer& transfer) { return of(transfer.lane()); }
  Transfer* head(Line& line);
  void count_waiting(const Transfer& transfer, bool more);
  Time announcement_due(Lane lane) const;
  Time stream_time(const Transfer& transfer) const;

  const TransferTable& table_;
  std::array<Files, 2> lanes_;  // as Lane
  Lane next_ = Lane::kPush;
  Time last_skip_ = 0;
  bool skipping_ = false;  // the latest file was one that nodes had
  Time round_trip_ = kMillisecond;
  double rate_ = kUnknownRate;
};

}  // namespace pkgdist::lead
