// The data stream: every file on its way, and what is sent next.
//
// A transfer's life: its information is sent (Queued -> Announced), after a short grace for nodes
// that have the file already its segments follow (Streaming), and when the stream has gone round it
// the nodes that have not reported are asked how they stand and are helped (Settling), until every
// node concerned has ended. Files flow back to back: many are announced ahead of the stream, and
// many settle behind it.
//
// Repairs wait until an overrun is over (repair_queue.h), then interleave with the stream one to
// one. A request for a segment that the stream still comes to is ignored. Where whole batches of
// datagrams get lost they are found out (batch_log.h), and repaired at once, by batches that nodes
// confirm (confirmed_repairs.h).
//
// The settling ladder. A node's final report may be lost, a node may have lost a request, a repair,
// the information or everything; only its answers tell. Each round ends with miss done to the open
// nodes. A node that answers 'in progress' and asked for nothing is helped in rising steps: the
// information and the segments at which a turn ended, sent as first transmissions (a node that
// lacks what lies before asks for the gap at once; marks all over the file do the same for one that
// began in the middle), and with these all segments that were asked for, when that is little or
// most of them are lacking somewhere; then the whole file when it is small; then patience, because
// the node asks again by itself within seconds, for what it lacks and for nothing else. Every round
// from the second on carries a segment, so that no node counts the lead as lost.
//
// What nodes ask for after their time-outs is gathered first. A node's time-out begins anew with
// every repair that it can use: if the first one that asks were served at once, it would silence
// the others for two seconds, and so on, one node after the other.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "content_window.h"
#include "data_message.h"
#include "delay_meter.h"
#include "loss_meter.h"
#include "pacer.h"
#include "pkgdist_lead/lead.h"
#include "queue_probe.h"
#include "rate_control.h"

namespace pkgdist::lead {

// What the owner of the transfers learns. Calls may start further transfers.
class TransferObserver {
 public:
  virtual ~TransferObserver() = default;
  // The node has reported its end. `skipped`: before any segment was sent.
  virtual void transfer_ended(const Transfer&, NodeIndex, uint64_t status, bool skipped) = 0;
  // The node knows nothing of the file. True when it will be announced to it again (join() then
  // follows), false when the node shall be left alone.
  virtual bool transfer_unlisted(const Transfer&, NodeIndex) = 0;
  // The node says that the file ended on it with this error, before it had any information. Nodes
  // remember for a while how files ended: false when this is about an earlier transfer.
  virtual bool transfer_ends_unknown(const Transfer&, uint64_t status) = 0;
  // Nothing is left to do; the transfer is destroyed after the call.
  virtual void transfer_closed(const Transfer&) = 0;
};

class DataSender {
 public:
  DataSender(const Settings& self, const NodeTable& nodes, DatagramSink& sink, ContentStore& store,
             Counters& counters, TransferObserver& observer);
  ~DataSender();

  // Begins the transfer of a file that has none yet.
  TransferId start(FileKey key, uint32_t priority, uint64_t tag,
                   const std::vector<NodeIndex>& nodes, Time now);
  // Another owner: the one who uses this tag.
  void hand_over(TransferId id, uint64_t tag) { at(id)->tag = tag; }
  // The node wants the file, too. `asked`: it just asked for the information, so it has none.
  void join(TransferId id, NodeIndex node, bool asked, Time now);
  // The node is gone: nothing is waited for.
  void drop_node(NodeIndex node, Time now);
  // Ends all transfers with a tag below this without a word.
  void abandon(uint64_t tag_limit);
  void abandon_all();

  TransferId find(const FileKey& key) const;
  const Transfer* get(TransferId id) const;

  // Transfers that are announced but not streamed yet, and the bytes in them.
  size_t waiting_files() const { return waiting_; }
  uint64_t waiting_bytes() const { return waiting_bytes_; }
  size_t active_files() const { return transfers_.size(); }
  // How long the stream takes to come to the end of what was started, at the present rate.
  double backlog_seconds();
  // The same for the files that are begun.
  double streaming_seconds();

  // Messages from nodes.
  // Returns how many segments of the file were asked for, 0 when the request makes no sense.
  uint32_t on_segment_request(NodeIndex node, uint32_t file_id, uint32_t first, uint32_t num,
                              Time now);
  void on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now);

  // Tells one node that a file cannot be sent.
  void refuse(const FileKey& key, uint64_t status, NodeIndex node);

  void set_round_trip(Time round_trip) { round_trip_ = round_trip; }
  void run(Time now);
  Time next_deadline(Time now) const;
  uint64_t rate_bits() const { return pacer_.rate(); }

 private:
  using Line = std::deque<TransferId>;
  // Files up to this many segments are soon sent again as a whole, which is simpler than to find
  // out what a node lacks.
  static constexpr uint32_t kMediumFile = 1024;
  // As what a segment is sent: on the wire the first is unmarked, the others are marked as repairs.
  enum class Sending : uint8_t { kInPlace, kAhead, kRepair };
  // Contents kept open: well below the usual limit of 1024 descriptors.
  static constexpr size_t kMaxOpenContents = 256;

  // data_sender.cpp: choosing and sending
  Transfer* at(TransferId id) const;
  Transfer* head(Line& line);
  TransferId next_id();
  bool send_one(Time now);
  bool run_timer(Time now);
  bool send_announcement(Time now);
  bool send_stream(Time now);
  bool send_in_place(Transfer& transfer, Time now);
  void enter_batch(Transfer& transfer);
  bool worth_a_call() const;
  Transfer* streamable(Time now);
  void leave_waiting(Transfer& transfer);
  void enter_stream(Transfer& transfer, Time now);
  void send(size_t length);
  void send_info(Transfer& transfer, Time now);
  bool send_segment(Transfer& transfer, uint32_t segment, Sending how, Time now);
  int read_content(Transfer& transfer, uint64_t offset, std::span<uint8_t> out, Sending how);
  std::span<uint32_t> open_nodes(const Transfer& transfer);
  void arm(Transfer& transfer, Time when);
  void close(Transfer& transfer);
  void close_if_ended(Transfer& transfer);
  void end_node(Transfer& transfer, NodeIndex node, uint64_t status);
  void adapt_rate(Time now);
  void probe_queues(Time now);
  TransferId send_question(const Transfer& transfer);

  // file_cache part: content that is open
  int open_content(Transfer& transfer);
  bool room_for_content() const { return opened_.size() < kMaxOpenContents; }
  void use_content(Transfer& transfer);
  void fail(Transfer& transfer, int error, Time now);

  // data_repairs.cpp
  bool send_repair(Time now);
  void send_repair_of(Transfer& transfer, Time now);
  Transfer* confirming(Time now);
  ConfirmedRepairs::Batch& gather_repairs(Transfer& transfer, const std::vector<NodeIndex>& nodes,
                                          Time now);
  static std::vector<NodeIndex> nodes_of(const Transfer& transfer, bool askers);
  ConfirmedRepairs::Batch& repair_confirmed(Transfer& transfer, uint32_t place,
                                            std::vector<uint32_t> segments,
                                            const std::vector<NodeIndex>& nodes);
  void send_confirmed(Transfer& transfer, ConfirmedRepairs::Batch& batch, Time now);
  TransferId ask(const Transfer& transfer, const ConfirmedRepairs::Batch& batch);
  void confirm_last_batch(Transfer& transfer, Time now);
  bool confirms(const Transfer& transfer, Time now) const;
  uint32_t request_repair(Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num,
                          Time now);
  bool on_confirmed(Transfer& transfer, NodeIndex node, uint32_t question, Time now);
  void enter_repair_line(Transfer& transfer);

  // data_settling.cpp
  void begin_settling(Transfer& transfer, Time now);
  void settle(Transfer& transfer, Time now);
  bool in_trouble(Transfer& transfer);
  bool end_mute_nodes(Transfer& transfer, Time now);
  bool help(Transfer& transfer, Time now);
  bool costs_little(const Transfer& transfer) const;
  bool whole_again(const Transfer& transfer) const;
  bool worth_repeating(const Transfer& transfer) const;
  bool lost_whole(const Transfer& transfer) const;
  bool most_are_lacking(const Transfer& transfer) const;
  bool worth_sending_twice(const Transfer& transfer) const;
  bool repairs_can_wait(const Transfer& transfer) const;
  bool send_marks(Transfer& transfer, Time now);
  void begin_gathering(Transfer& transfer, Time now);
  bool gathers(Transfer& transfer, Time now);
  void restart_turn(Transfer& transfer);
  void send_miss_done(Transfer& transfer, Time now);
  void on_in_progress(Transfer& transfer, NodeIndex node, Time now);
  void on_stale_report(Transfer& transfer, NodeIndex node, Time now);
  void unlist(Transfer& transfer, NodeIndex node, Time now);
  void note_answer(Transfer& transfer, NodeIndex node, Time now);
  Time grace() const;
  Time skip_grace() const;
  Time stream_time(const Transfer& transfer) const;
  void note_reaction(Time since, Time now);
  Time answer_time() const;

  const Settings& self_;
  const NodeTable& nodes_;
  DatagramSink& sink_;
  ContentStore& store_;
  Counters& counters_;
  TransferObserver& observer_;
  SegmentBuilder segment_;
  ContentWindow window_;
  Pacer pacer_;
  std::optional<RateControl> rate_;
  LossMeter loss_;

  std::unordered_map<TransferId, std::unique_ptr<Transfer>> transfers_;
  std::unordered_map<std::string, TransferId> by_key_;
  Line announcing_;
  std::map<uint32_t, Line> streaming_;  // by priority; the front is the file being streamed
  Line repairing_;
  std::set<std::pair<Time, TransferId>> timers_;
  std::deque<TransferId> opened_;       // contents in the order of their opening
  std::vector<TransferId> confirming_;  // with repairs to be confirmed
  int64_t repairs_ahead_ = 0;           // sent, over the segments of the stream meanwhile
  // The batch that is being put together: the file whose segments it has, and its datagrams.
  TransferId batch_of_ = kNoTransfer;
  size_t batched_ = 0;
  size_t batch_least_ = 0;  // datagrams before it may end
  double lost_whole_ = 0;   // share of small files that were lost as a whole when they were lost
  Time batch_lost_ = 0;     // when a whole batch was found to be lost last, 0: never
  Time overrun_ = 0;        // when a node lost a part of one last, meanwhile
  TransferId last_id_;
  size_t waiting_ = 0;
  uint64_t waiting_bytes_ = 0;
  Time stream_due_ = kNever;      // when streamable() will find something; long ago: at once
  std::vector<uint32_t> listed_;  // scratch of open_nodes()

  Time round_trip_ = kMillisecond;  // of the control channel
  DelayMeter reaction_;             // of the nodes' file threads
  Time last_skip_ = 0;              // when a node last reported a file that it had already

  QueueProbe probe_;
  NodeIndex probed_ = 0;  // where the next question's nodes begin

  // The rate controller's present period.
  Time period_started_ = 0;
  uint64_t period_segments_ = 0;
  std::vector<uint32_t> period_requested_;  // by node
  Time period_delay_ = 0;
  uint64_t period_bytes_ = 0;
  bool period_idle_ = false;  // there was nothing to send at some time
};

}  // namespace pkgdist::lead
