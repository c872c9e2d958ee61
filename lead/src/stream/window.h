// How much of the stream is in flight: sent, and not known to be handled by the slowest of the
// polled nodes. It is never more than the window, so that a queue on the way, the smallest is a
// node's socket, does not run over, however slow the node is.
//
// A poll is a question under a number of its own about a file that no node has, in the stream like
// every other datagram. A node answers it from the same queue as the data, so the answer says that
// all before was taken and handled, whichever file it belonged to. Polls follow each other at half
// of the window, or at a quarter where answers are lost often enough that the next poll's have to
// do; one closes the stream whenever it stops. The report of a file that has just been sent says
// the same, so where files are small and reports are expected from all who are polled, these take
// the place of polls. Up to eight nodes are polled; of more, eight for a while, then others. A node
// that owes an answer is asked again; one that owes it for long is excused: nothing waits for it
// until it is heard. Where all are excused the stream creeps, a quarter of a window for each poll
// that nobody answered.
//
// The window begins at what fits into the sockets and switches that are usual, and grows while it
// limits the stream. Loss alone never slows the stream; loss that a smaller window cures does, see
// overrun_judge.h.
#pragma once

#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "stream/delay_meter.h"
#include "stream/overrun_judge.h"
#include "stream/socket_charge.h"
#include "stream/straggler_watch.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

class Window {
 public:
  static constexpr size_t kMaxPolled = 8;

  explicit Window(const BusyNodes& busy) : busy_(busy) {}

  // --- The stream ---
  // A datagram of so many bytes left.
  void sent(size_t bytes) { position_ += socket_charge(bytes); }
  // Bytes since the beginning: what lies behind a datagram that was just sent.
  uint64_t position() const { return position_; }
  // Up to which all polled nodes have handled everything.
  uint64_t handled() const;
  // Bytes up to this position that the node is not known to have handled; 0 for one that is not
  // polled.
  uint64_t unhandled(NodeIndex node, uint64_t up_to) const;
  bool open() const { return has_room_behind(handled()); }
  // More would be sent if it were open.
  void note_full(Time now) {
    limited_ = true;
    stragglers_.held_up_by(holder(), now);
  }
  // A node that the others wait for most of the time, told once in `patience`; kNoNode: there is
  // none.
  NodeIndex take_straggler(Time now, Time patience) { return stragglers_.take(now, patience); }
  uint64_t size() const { return static_cast<uint64_t>(size_); }
  // Bytes per second that the nodes have handled lately, at least a trickle.
  double rate() const { return rate_ == 0 ? kAssumedRate : std::max(rate_, kLeastRate); }

  // --- Polls ---
  // Whether the next datagram is to be a poll. `stops`: nothing else is sent now, because there is
  // nothing or because the window is full.
  bool poll_due(bool stops, Time now) const;
  // When poll_due() says so for a stream that stopped; kNever when all is answered.
  Time next_poll(Time now) const;
  // The nodes to be named by the poll of this number, which is sent now: sent() follows with what
  // is charged least. Empty: none is sent.
  const std::vector<NodeIndex>& begin_poll(TransferId number, Time now);
  // The last segment of a file was just sent, and no node that gets it has asked for any again. If
  // they are all that a poll would name, none is needed for a while.
  void expect_reports(const Transfer& file, Time now);
  // A node has the whole of a file without having asked for anything again: as good as an answer,
  // if reports of the file were expected.
  void reported(TransferId file, NodeIndex node, Time now);
  // Ahead of the poll of this number; nothing when it is none of the latest ones.
  std::optional<uint64_t> position_of(TransferId number) const;
  // False when the number is none of a poll. May grow the window.
  bool answered(TransferId number, NodeIndex node, Time now);
  // How long answers take, nearly always.
  Time answer_time() const;
  // The same on average.
  Time round_trip() const { return round_trip_.known() ? round_trip_.mean() : kUnknownRoundTrip; }

  // --- Loss ---
  // The share of datagrams that a node loses, on average.
  void set_loss(double loss) { loss_ = loss; }
  void sent_segment() { judge_.sent(1); }
  // A node misses a run that it has not asked for before.
  void lost(NodeIndex node, uint32_t segments);

 private:
  static constexpr double kKiB = 1024;
  // The usual limit of a socket, 212,992 bytes, holds 92 full datagrams; cheap switches have 100 kB
  // of buffer.
  static constexpr double kFirstSize = 128 * kKiB;
  static constexpr double kLeastSize = 32 * kKiB;
  // Beside this only what is on its way makes the stream faster.
  static constexpr double kMaxQueued = 120 * kKiB;
  // Where answers come as fast as ever no queue stands: more than the pipe that is known is tried.
  static constexpr double kTriedPipe = 1.25;
  // A cured overrun is tried again after so much of the stream, with an eighth more.
  static constexpr uint64_t kCuredFor = 256 * 1024 * 1024;
  // The share of polls that some node does not hear, and the share of those whose answer is lost,
  // below which polls are few.
  static constexpr double kRareLoss = 0.02;
  static constexpr double kLeastPollGap = 12'000;
  static constexpr double kMostPollGap = 120'000;
  // In flight at a time; polls_ holds twice as many, for those that are sent because of a stop.
  static constexpr double kMostPolls = 32;
  static constexpr Time kUnknownRoundTrip = kMillisecond;
  static constexpr Time kLeastPatience = 8 * kMillisecond;
  static constexpr Time kMostPatience = 500 * kMillisecond;
  // Excused after both.
  static constexpr Time kExcuseAfter = 300 * kMillisecond;
  static constexpr uint32_t kExcusePolls = 5;
  // Between polls after these, doubling.
  static constexpr Time kMostRepeatGap = 100 * kMillisecond;
  // How long the same nodes are polled where there are more.
  static constexpr Time kRotation = 250 * kMillisecond;
  static constexpr Time kRatePeriod = 20 * kMillisecond;
  static constexpr Time kMostRatePeriod = 500 * kMillisecond;
  static constexpr uint64_t kRateSample = 128 * 1024;
  static constexpr double kLeastRate = 1'000'000;
  static constexpr double kAssumedRate = 12'500'000;  // of a slow network, until it is measured

  struct Polled {
    NodeIndex node = kNoNode;
    uint64_t handled = 0;     // position
    Time owes_since = 0;      // the first poll that it has not answered, 0: none
    uint32_t unanswered = 0;  // polls in a row
    bool excused() const { return excused_; }
    bool excused_ = false;
  };
  struct Poll {
    TransferId number = kNoTransfer;
    uint64_t position = 0;
    Time sent = 0;
    bool is_file = false;  // of which reports are expected
  };

  bool has_room_behind(uint64_t handled) const {
    return position_ - handled < static_cast<uint64_t>(size_);
  }
  const Poll* find(TransferId number, bool is_file) const;
  const Poll& latest() const { return polls_[(next_ + polls_.size() - 1) % polls_.size()]; }
  bool would_name_only_nodes_of(const Transfer& file) const;
  void remember(const Poll& poll);
  void credit(const Poll& poll, NodeIndex node, Time now);
  void choose(Time now);
  bool stale_choice(Time now) const;
  bool all_excused() const;
  double poll_gap() const;
  Time patience() const;
  void creep();
  void grow(uint64_t handled, Time took);
  void follow_judge();
  NodeIndex holder() const;
  void measure_rate(Time now);
  double pipe() const;
  double limit(Time took) const;
  double least_trial() const;

  const BusyNodes& busy_;
  OverrunJudge judge_;
  StragglerWatch stragglers_;
  std::vector<Polled> polled_;
  std::vector<NodeIndex> named_;
  uint64_t chosen_version_ = UINT64_MAX;
  Time chosen_at_ = 0;
  NodeIndex next_choice_ = 0;

  uint64_t position_ = 0;
  std::array<Poll, 64> polls_;  // the latest
  size_t next_ = 0;
  uint64_t asked_ = 0;  // position of the last poll
  Time asked_at_ = 0;
  uint32_t repeats_ = 0;  // polls since something was sent, or answered

  DelayMeter round_trip_;
  Time least_round_trip_ = kNever;

  double size_ = kFirstSize;
  double ceiling_ = kNoCeiling;  // of what stands in queues, where an overrun was cured
  static constexpr double kNoCeiling = 1e18;
  double size_before_ = 0;  // the present trial; 0: none
  double pipe_before_ = 0;  // when it began
  uint64_t cured_at_ = 0;
  bool limited_ = false;  // the window was full since it grew
  double loss_ = 0;
  double rate_ = 0;
  double latest_rate_ = 0;
  uint64_t rated_ = 0;  // position handled at rated_at_
  Time rated_at_ = 0;
};

}  // namespace pkgdist::lead
